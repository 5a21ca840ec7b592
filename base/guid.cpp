#include "base/guid.h"

#include <sys/random.h>

#include <cstdio>
#include <random>

#include "base/hex_digits.h"

namespace trv {

Guid Guid::NewRandom() {
  Guid g;
  size_t got = 0;
  while (got < g.bytes.size()) {
    ssize_t n = getrandom(g.bytes.data() + got, g.bytes.size() - got, 0);
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  if (got < g.bytes.size()) {
    std::random_device rd;
    for (auto& b : g.bytes) b = static_cast<uint8_t>(rd());
  }
  // Version 4 in the high nibble of Data3, variant 10 in Data4[0].
  g.bytes[7] = static_cast<uint8_t>((g.bytes[7] & 0x0F) | 0x40);
  g.bytes[8] = static_cast<uint8_t>((g.bytes[8] & 0x3F) | 0x80);
  return g;
}

uint32_t Guid::data1() const {
  return uint32_t(bytes[0]) | uint32_t(bytes[1]) << 8 | uint32_t(bytes[2]) << 16 | uint32_t(bytes[3]) << 24;
}
uint16_t Guid::data2() const { return static_cast<uint16_t>(bytes[4] | bytes[5] << 8); }
uint16_t Guid::data3() const { return static_cast<uint16_t>(bytes[6] | bytes[7] << 8); }

bool Guid::IsNil() const {
  for (uint8_t b : bytes) {
    if (b) return false;
  }
  return true;
}

namespace {
std::string Format(const Guid& g, bool upper) {
  char buf[40];
  std::snprintf(buf, sizeof buf,
                upper ? "{%.8X-%.4X-%.4X-%.2X%.2X-%.2X%.2X%.2X%.2X%.2X%.2X}"
                      : "{%.8x-%.4x-%.4x-%.2x%.2x-%.2x%.2x%.2x%.2x%.2x%.2x}",
                g.data1(), g.data2(), g.data3(), g.bytes[8], g.bytes[9], g.bytes[10], g.bytes[11],
                g.bytes[12], g.bytes[13], g.bytes[14], g.bytes[15]);
  return buf;
}

template <typename View>
std::optional<Guid> ParseImpl(View t) {
  if (t.size() != 38 || t[0] != '{' || t[9] != '-' || t[14] != '-' || t[19] != '-' || t[24] != '-' ||
      t[37] != '}') {
    return std::nullopt;
  }
  // Hex digits as they appear in the text, 32 of them.
  uint8_t digits[32];
  int k = 0;
  for (size_t i = 1; i < 37; ++i) {
    if (i == 9 || i == 14 || i == 19 || i == 24) continue;
    const int v = HexDigitValue(static_cast<char32_t>(t[i]));
    if (v < 0) return std::nullopt;
    digits[k++] = static_cast<uint8_t>(v);
  }
  auto byte_at = [&](int pos) { return static_cast<uint8_t>(digits[pos] << 4 | digits[pos + 1]); };
  Guid g;
  // Data1, Data2 and Data3 are written most significant first but stored little-endian.
  for (int i = 0; i < 4; ++i) g.bytes[i] = byte_at(6 - 2 * i);
  g.bytes[4] = byte_at(10);
  g.bytes[5] = byte_at(8);
  g.bytes[6] = byte_at(14);
  g.bytes[7] = byte_at(12);
  for (int i = 0; i < 8; ++i) g.bytes[8 + i] = byte_at(16 + 2 * i);
  return g;
}
}  // namespace

std::string Guid::ToRegistryString() const { return Format(*this, true); }
WString Guid::ToRegistryWString() const { return Latin1ToWide(Format(*this, true)); }
std::string Guid::ToLowerString() const { return Format(*this, false); }

std::optional<Guid> Guid::Parse(std::string_view text) { return ParseImpl(text); }
std::optional<Guid> Guid::Parse(WStringView text) { return ParseImpl(text); }

}  // namespace trv
