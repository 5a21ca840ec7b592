// Hexadecimal digits: the escapes of quoted-printable, encoded words and
// RFC 2231 values, message keys, and digests written as text.
#pragma once

#include <string>
#include <string_view>

namespace trv {

inline constexpr char kUpperHexDigits[] = "0123456789ABCDEF";
inline constexpr char kLowerHexDigits[] = "0123456789abcdef";

// The value of a hexadecimal digit (either case); -1 for any other character.
// Takes char32_t so that 8-bit callers pass the byte as unsigned char and
// UTF-16 callers pass the unit as it is.
constexpr int HexDigitValue(char32_t c) {
  if (c >= U'0' && c <= U'9') return static_cast<int>(c - U'0');
  if (c >= U'a' && c <= U'f') return static_cast<int>(c - U'a' + 10);
  if (c >= U'A' && c <= U'F') return static_cast<int>(c - U'A' + 10);
  return -1;
}

// Appends `mark` and the byte as two upper-case digits: "=3D", "%20".
inline void AppendHexEscape(char mark, unsigned char b, std::string* out) {
  out->push_back(mark);
  out->push_back(kUpperHexDigits[b >> 4]);
  out->push_back(kUpperHexDigits[b & 15]);
}

// The bytes in lower-case hexadecimal, two digits a byte.
inline std::string LowerHex(std::string_view bytes) {
  std::string hex;
  hex.reserve(bytes.size() * 2);
  for (unsigned char b : bytes) {
    hex.push_back(kLowerHexDigits[b >> 4]);
    hex.push_back(kLowerHexDigits[b & 15]);
  }
  return hex;
}

}  // namespace trv
