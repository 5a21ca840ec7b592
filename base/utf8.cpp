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

// Both whole-text forms write through a pointer into a string sized for the
// worst case (a byte never gives more than one UTF-16 unit; a unit never
// more than three bytes) and copy runs of ASCII without a call: listing a
// folder converts every sender and subject this way.
bool DecodeUtf8(std::string_view bytes, std::u16string* out) {
  const size_t start = out->size();
  out->resize(start + bytes.size());
  char16_t* w = out->data() + start;
  const auto* p = reinterpret_cast<const uint8_t*>(bytes.data());
  const size_t n = bytes.size();
  bool clean = true;
  for (size_t i = 0; i < n;) {
    if (p[i] < 0x80) {
      *w++ = p[i++];
      continue;
    }
    const Utf8Sequence seq = ReadUtf8Sequence(bytes.substr(i));
    clean = clean && seq.status == Utf8Status::kValid;
    char32_t cp = seq.code_point;
    if (cp >= 0x10000) {
      cp -= 0x10000;
      *w++ = static_cast<char16_t>(0xD800 + (cp >> 10));
      *w++ = static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
    } else {
      *w++ = static_cast<char16_t>(cp);
    }
    i += seq.length;
  }
  out->resize(static_cast<size_t>(w - out->data()));
  return clean;
}

bool EncodeUtf8(std::u16string_view text, std::string* out) {
  const size_t start = out->size();
  out->resize(start + 3 * text.size());
  char* w = out->data() + start;
  bool clean = true;
  for (size_t i = 0; i < text.size(); ++i) {
    char32_t c = text[i];
    if (c < 0x80) {
      *w++ = static_cast<char>(c);
      continue;
    }
    if (IsHighSurrogate(c) && i + 1 < text.size() && IsLowSurrogate(text[i + 1])) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    } else if (IsHighSurrogate(c) || IsLowSurrogate(c)) {
      c = kReplacementCharacter;
      clean = false;
    }
    if (c < 0x800) {
      *w++ = static_cast<char>(0xC0 | (c >> 6));
    } else if (c < 0x10000) {
      *w++ = static_cast<char>(0xE0 | (c >> 12));
      *w++ = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    } else {
      *w++ = static_cast<char>(0xF0 | (c >> 18));
      *w++ = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      *w++ = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    }
    *w++ = static_cast<char>(0x80 | (c & 0x3F));
  }
  out->resize(static_cast<size_t>(w - out->data()));
  return clean;
}

}  // namespace trv
