#include "mime/quoted_printable.h"

#include "base/hex_digits.h"

namespace trv {

void QpEncodeBytes(std::string_view bytes, std::string* out) {
  for (unsigned char b : bytes) {
    if (QpEncodedLength(b) == 1) {
      out->push_back(static_cast<char>(b));
    } else {
      AppendHexEscape('=', b, out);
    }
  }
}

Result QpEncodeRun(const char* bytes, int length, CXmStream& out) {
  if (length <= 0) return rc::kOk;
  std::string encoded;
  QpEncodeBytes(std::string_view(bytes, static_cast<size_t>(length)), &encoded);
  return out.Write(encoded);
}

int HeaderWordCost(unsigned char b) {
  if (b >= 33 && b <= 60) return 1;
  if (b < 62 || b >= 127 || b == '?' || b == '_' || b == '=') return 3;
  return 1;
}

void EncodeHeaderWord(std::string_view text, size_t* index, int budget, std::string* out) {
  int count = 3;
  while (*index < text.size()) {
    const auto b = static_cast<unsigned char>(text[*index]);
    const int cost = HeaderWordCost(b);
    if (cost == 1) {
      out->push_back(static_cast<char>(b));
    } else {
      AppendHexEscape('=', b, out);
    }
    count += cost;
    ++*index;
    if (count > budget) break;
  }
}

}  // namespace trv
