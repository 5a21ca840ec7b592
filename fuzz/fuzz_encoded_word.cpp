// Encoded words, RFC 2231 parameters and address lists over arbitrary text.
#include <cstddef>
#include <cstdint>
#include <string>

#include "base/wide_string.h"
#include "mime/address_list.h"
#include "mime/encoded_word.h"
#include "mime/header_split.h"
#include "mime/rfc2231.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace trv;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const WString text = Utf8ToWide(bytes);
  WString out;
  DecodeEncodedWords(text, &out);
  // Text without "=?" has nothing to decode.
  if (text.find(u"=?") == WString::npos && out != text) __builtin_trap();
  ParseAddressList(text);
  CXmHeaderField field;
  SplitField(u"X: " + text, &field).Ignore();
  std::vector<CXmParameter> params = field.params();
  MergeRfc2231Parameters(&params);
  return 0;
}
