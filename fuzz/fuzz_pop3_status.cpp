// The POP3 status-line and listing readers on arbitrary lines.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "net/pop3_status.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace trv;
  std::string_view text(reinterpret_cast<const char*>(data), size);
  uint32_t capabilities = 0, sasl = 0;
  while (!text.empty()) {
    const size_t end = text.find("\r\n");
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 2);

    JudgeStatus(line);
    const std::string_view rest = StatusText(line);
    if (!rest.empty() && (rest.data() < line.data() || rest.data() + rest.size() > line.data() + line.size())) {
      __builtin_trap();
    }
    const std::string stamp = ApopTimestamp(line);
    if (!stamp.empty() && (stamp.front() != '<' || line.find(stamp) == std::string_view::npos)) __builtin_trap();
    ApplyCapaLine(line, &capabilities, &sasl);
    if (sasl & ~7u) __builtin_trap();  // only PLAIN, LOGIN and CRAM-MD5 come from a server list
    uint32_t number = 0;
    uint64_t bytes = 0;
    ParseNumberAndSize(rest, &number, &bytes);
    std::string_view uid;
    if (ParseNumberAndUid(line, &number, &uid) && (uid.empty() || uid.find(' ') != std::string_view::npos)) {
      __builtin_trap();
    }
  }
  return 0;
}
