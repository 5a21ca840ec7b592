// Header blocks: parse (two reading charsets), read from a stream, the views
// a list shows, dates, and writing back. Written fields that came from the
// input are copied raw, so a second parse of the output must keep them all.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "mime/header.h"
#include "mime/message_dates.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace trv;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  for (const char* charset : {"us-ascii", "utf-8"}) {
    CXmHeader h;
    h.Parse(text, charset).Ignore();
    h.DisplayText(field::kSubject);
    h.Addresses(field::kFrom);
    h.Addresses(field::kTo);
    h.Boundary();
    GetMessageDates(h);
    std::string out;
    HeaderWriteOptions options;
    options.sending_charset = "utf-8";
    h.Write(&out, options).Ignore();
    // Parsed fields are written as they stood; a changed one through the writer.
    if (!h.empty()) {
      CXmHeaderField* first = h.Find(WString(h.fields()[0].name()));
      first->set_value(first->value());
      std::string again;
      h.Write(&again, options).Ignore();
    }
  }
  CXmViewStream in(text);
  CXmLineReader reader(in, 64);
  CXmHeader h;
  h.Read(reader, "iso-8859-1").Ignore();
  return 0;
}
