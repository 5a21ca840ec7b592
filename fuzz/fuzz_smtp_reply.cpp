// The SMTP reply reader, the reply error codes, the EHLO line parser and the
// DATA dot transformation. The input is read as reply lines (split at LF),
// and as a message whose transformation must not depend on where it is cut.
#include <cstddef>
#include <cstdint>
#include <string>

#include "net/smtp_reply.h"

namespace {

std::string Stuffed(std::string_view text, size_t cut) {
  trv::SmtpDotStuffer stuffer;
  std::string out;
  stuffer.Add(text.substr(0, cut), &out);
  stuffer.Add(text.substr(cut), &out);
  if (stuffer.consumed() + stuffer.held() != text.size()) __builtin_trap();
  stuffer.Add("\r\n", &out);  // as Data ends the message
  stuffer.Flush(&out);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace trv;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  SmtpReply reply;
  uint32_t extensions = 0, mechanisms = 0, max_size = 0;
  for (size_t start = 0; start <= text.size();) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    const std::string_view line = text.substr(start, end - start);
    ParseEhloLine(line, &extensions, &mechanisms, &max_size);
    const Result error = SmtpReplyError(line);
    if (!IsSmtpReplyError(error) || DescribeSmtpResult(error).empty()) __builtin_trap();
    if (reply.Add(line)) {
      const Result r = reply.Expect({"250", "354"});
      if (r.ok() != (reply.Is("250") || reply.Is("354"))) __builtin_trap();
      reply.Clear();
    }
    start = end + 1;
  }
  if (mechanisms & ~7u) __builtin_trap();  // a server list yields PLAIN, LOGIN and CRAM-MD5 only
  const std::string whole = Stuffed(text, text.size());
  if (whole != Stuffed(text, size == 0 ? 0 : data[0] % (size + 1))) __builtin_trap();
  // Every lone dot was doubled, so nothing before the terminator ends the data.
  if (whole.find("\r\n.\r\n") != std::string::npos) __builtin_trap();
  return 0;
}
