// Hexadecimal digits: the escapes of quoted-printable, encoded words and
// RFC 2231 values, message keys, and digests written as text.
#pragma once

#include <string>
#include <string_view>

#include "base/wide_string.h"  // HexDigitValue

namespace trv {

inline constexpr char kUpperHexDigits[] = "0123456789ABCDEF";

// Appends `mark` and the byte as two upper-case digits: "=3D", "%20".
inline void AppendHexEscape(char mark, unsigned char b, std::string* out) {
  out->push_back(mark);
  out->push_back(kUpperHexDigits[b >> 4]);
  out->push_back(kUpperHexDigits[b & 15]);
}

// The bytes in lower-case hexadecimal, two digits a byte.
inline std::string LowerHex(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(bytes.size() * 2);
  for (unsigned char b : bytes) {
    hex.push_back(kDigits[b >> 4]);
    hex.push_back(kDigits[b & 15]);
  }
  return hex;
}

}  // namespace trv
