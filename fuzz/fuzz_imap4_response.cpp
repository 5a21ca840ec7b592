// The IMAP4 response parser on arbitrary wire bytes: responses split with
// their literals, classified, and every data parser run on them.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "net/imap4_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace trv;
  std::string_view wire(reinterpret_cast<const char*>(data), size);
  Imap4Response response;
  Imap4CommandResult result;
  Imap4MailboxData mailbox;
  Imap4Capabilities capabilities;
  while (Imap4SplitWire(&wire, &response)) {
    for (size_t i = 0; i < response.literals.size(); ++i) {
      if (i % 2) response.literals[i].streamed = true, response.literals[i].bytes.clear();
    }
    Imap4LiteralPlace place;
    FindLiteralPlace(response, &place);
    Imap4Head head;
    if (ParseHead(response.text, &head).failed()) continue;
    if (head.rest > response.text.size()) __builtin_trap();
    const std::string_view rest = std::string_view(response.text).substr(head.rest);
    ApplyResponseCode(ParseStatusText(rest), &result, &mailbox, &capabilities);
    Imap4ListEntry entry;
    ParseListEntry(response, head.rest + (rest.empty() ? 0 : 1), &entry);
    Imap4StatusData status;
    ParseStatusData(response, head.rest, &status);
    uint32_t bits = 0;
    ParseFlagsData(response, head.rest, &bits, &mailbox.flag_keywords);
    Imap4FetchData fetch;
    if (ParseFetchData(response, head.rest, &fetch)) {
      for (const Imap4Section& s : fetch.sections) {
        if (s.streamed && !s.bytes.empty()) __builtin_trap();
        if (!s.streamed && !s.nil && s.bytes.size() != s.size) __builtin_trap();
      }
    }
    std::vector<uint32_t> numbers;
    ParseSearch(rest, &numbers);
    if (result.copy_uid && result.copy_uid->destination.Count() == 0) __builtin_trap();
  }
  return 0;
}
