#include "ui/image_size.h"

#include <algorithm>
#include <cstdint>

namespace trv {

namespace {

uint32_t Byte(std::string_view s, size_t i) { return static_cast<unsigned char>(s[i]); }
uint32_t Be16(std::string_view s, size_t i) { return Byte(s, i) << 8 | Byte(s, i + 1); }
uint32_t Be32(std::string_view s, size_t i) { return Be16(s, i) << 16 | Be16(s, i + 2); }
uint32_t Le16(std::string_view s, size_t i) { return Byte(s, i) | Byte(s, i + 1) << 8; }
uint32_t Le24(std::string_view s, size_t i) { return Le16(s, i) | Byte(s, i + 2) << 16; }
uint32_t Le32(std::string_view s, size_t i) { return Le16(s, i) | Le16(s, i + 2) << 16; }

bool Jpeg(std::string_view s, uint32_t* w, uint32_t* h) {
  size_t i = 2;
  while (i + 9 <= s.size()) {
    if (Byte(s, i) != 0xFF) return false;
    const uint32_t marker = Byte(s, i + 1);
    if (marker == 0xFF) {  // fill byte
      ++i;
      continue;
    }
    if (marker == 0xD8 || marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) {  // no length
      i += 2;
      continue;
    }
    // Start of frame: every SOFn except DHT (C4), JPG (C8) and DAC (CC).
    if (marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC) {
      *h = Be16(s, i + 5);
      *w = Be16(s, i + 7);
      return true;
    }
    i += 2 + Be16(s, i + 2);
  }
  return false;
}

bool WebP(std::string_view s, uint32_t* w, uint32_t* h) {
  const std::string_view chunk = s.substr(12, 4);
  if (chunk == "VP8 " && s.size() >= 30) {
    *w = Le16(s, 26) & 0x3FFF;
    *h = Le16(s, 28) & 0x3FFF;
    return true;
  }
  if (chunk == "VP8L" && s.size() >= 25) {
    const uint32_t bits = Le32(s, 21);
    *w = (bits & 0x3FFF) + 1;
    *h = (bits >> 14 & 0x3FFF) + 1;
    return true;
  }
  if (chunk == "VP8X" && s.size() >= 30) {
    *w = Le24(s, 24) + 1;
    *h = Le24(s, 27) + 1;
    return true;
  }
  return false;
}

}  // namespace

bool ReadImageSize(std::string_view s, int* width, int* height) {
  uint32_t w = 0;
  uint32_t h = 0;
  bool ok = false;
  if (s.size() >= 24 && s.starts_with("\x89PNG\r\n\x1a\n") && s.substr(12, 4) == "IHDR") {
    w = Be32(s, 16);
    h = Be32(s, 20);
    ok = true;
  } else if (s.size() >= 10 && (s.starts_with("GIF87a") || s.starts_with("GIF89a"))) {
    w = Le16(s, 6);
    h = Le16(s, 8);
    ok = true;
  } else if (s.size() >= 4 && Byte(s, 0) == 0xFF && Byte(s, 1) == 0xD8) {
    ok = Jpeg(s, &w, &h);
  } else if (s.size() >= 26 && s.starts_with("BM")) {
    w = Le32(s, 18);
    const int64_t stored = static_cast<int32_t>(Le32(s, 22));  // negative: stored top down
    h = static_cast<uint32_t>(std::min<int64_t>(stored < 0 ? -stored : stored, UINT32_MAX));
    ok = true;
  } else if (s.size() >= 16 && s.starts_with("RIFF") && s.substr(8, 4) == "WEBP") {
    ok = WebP(s, &w, &h);
  }
  if (!ok || w == 0 || h == 0 || w > 1000000 || h > 1000000) return false;
  *width = static_cast<int>(w);
  *height = static_cast<int>(h);
  return true;
}

}  // namespace trv
