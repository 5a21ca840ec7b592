#include "base/utf8.h"

namespace trv {

namespace {

bool IsHighSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsLowSurrogate(char32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

}  // namespace

Utf8Sequence ReadUtf8Sequence(std::string_view bytes) {
  const auto* p = reinterpret_cast<const uint8_t*>(bytes.data());
  const size_t n = bytes.size();
  const uint8_t b = p[0];
  if (b < 0x80) return {Utf8Status::kValid, b, 1};
  // Length, payload of the lead byte, and the range of the second byte
  // (RFC 3629 section 4: it excludes overlong forms, surrogates and values
  // beyond U+10FFFF); later bytes are always 80..BF.
  size_t len;
  char32_t cp;
  uint8_t lo = 0x80, hi = 0xBF;
  if (b >= 0xC2 && b <= 0xDF) {
    len = 2; cp = b & 0x1F;
  } else if (b >= 0xE0 && b <= 0xEF) {
    len = 3; cp = b & 0x0F;
    if (b == 0xE0) lo = 0xA0;
    if (b == 0xED) hi = 0x9F;
  } else if (b >= 0xF0 && b <= 0xF4) {
    len = 4; cp = b & 0x07;
    if (b == 0xF0) lo = 0x90;
    if (b == 0xF4) hi = 0x8F;
  } else {
    return {};  // 80..C1, F5..FF start nothing
  }
  for (size_t k = 1; k < len; ++k) {
    if (k >= n) return {Utf8Status::kTruncated, kReplacementCharacter, k};
    const uint8_t c = p[k];
    if (c < lo || c > hi) return {Utf8Status::kIllFormed, kReplacementCharacter, k};
    cp = cp << 6 | (c & 0x3F);
    lo = 0x80;
    hi = 0xBF;
  }
  return {Utf8Status::kValid, cp, len};
}

void AppendUtf16(char32_t cp, std::u16string* out) {
  if (cp >= 0x10000) {
    cp -= 0x10000;
    out->push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
    out->push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
  } else {
    out->push_back(static_cast<char16_t>(cp));
  }
}

void AppendUtf8(char32_t cp, std::string* out) {
  if (cp < 0x80) {
    out->push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out->push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out->push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

bool DecodeUtf8(std::string_view bytes, std::u16string* out) {
  out->reserve(out->size() + bytes.size());
  bool clean = true;
  while (!bytes.empty()) {
    const Utf8Sequence seq = ReadUtf8Sequence(bytes);
    clean = clean && seq.status == Utf8Status::kValid;
    AppendUtf16(seq.code_point, out);
    bytes.remove_prefix(seq.length);
  }
  return clean;
}

bool EncodeUtf8(std::u16string_view text, std::string* out) {
  out->reserve(out->size() + text.size());
  bool clean = true;
  for (size_t i = 0; i < text.size(); ++i) {
    char32_t c = text[i];
    if (IsHighSurrogate(c) && i + 1 < text.size() && IsLowSurrogate(text[i + 1])) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    } else if (IsHighSurrogate(c) || IsLowSurrogate(c)) {
      c = kReplacementCharacter;
      clean = false;
    }
    AppendUtf8(c, out);
  }
  return clean;
}

}  // namespace trv
