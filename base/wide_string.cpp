#include "base/wide_string.h"

#include <cstdint>

namespace trv {

namespace {
constexpr char16_t kReplacement = 0xFFFD;

void AppendCodePoint(WString& out, uint32_t cp) {
  if (cp >= 0x10000) {
    cp -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
  } else {
    out.push_back(static_cast<char16_t>(cp));
  }
}

void AppendUtf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}
}  // namespace

WString Utf8ToWide(std::string_view s) {
  WString out;
  out.reserve(s.size());
  size_t i = 0;
  const size_t n = s.size();
  while (i < n) {
    const uint8_t b = static_cast<uint8_t>(s[i]);
    if (b < 0x80) {
      out.push_back(b);
      ++i;
      continue;
    }
    int len;
    uint32_t cp;
    uint32_t min;
    if ((b & 0xE0) == 0xC0) {
      len = 2; cp = b & 0x1F; min = 0x80;
    } else if ((b & 0xF0) == 0xE0) {
      len = 3; cp = b & 0x0F; min = 0x800;
    } else if ((b & 0xF8) == 0xF0) {
      len = 4; cp = b & 0x07; min = 0x10000;
    } else {
      out.push_back(kReplacement);
      ++i;
      continue;
    }
    int k = 1;
    for (; k < len && i + k < n; ++k) {
      const uint8_t c = static_cast<uint8_t>(s[i + k]);
      if ((c & 0xC0) != 0x80) break;
      cp = (cp << 6) | (c & 0x3F);
    }
    if (k < len || cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
      out.push_back(kReplacement);
      i += k;  // skip the lead byte and the continuation bytes that were seen
      continue;
    }
    AppendCodePoint(out, cp);
    i += len;
  }
  return out;
}

std::string WideToUtf8(WStringView s) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    uint32_t c = s[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < s.size() && s[i + 1] >= 0xDC00 && s[i + 1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (s[i + 1] - 0xDC00);
      ++i;
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = kReplacement;
    }
    AppendUtf8(out, c);
  }
  return out;
}

WString Latin1ToWide(std::string_view s) {
  WString out(s.size(), u'\0');
  for (size_t i = 0; i < s.size(); ++i) out[i] = static_cast<uint8_t>(s[i]);
  return out;
}

std::string WideToLatin1(WStringView s) {
  std::string out(s.size(), '\0');
  for (size_t i = 0; i < s.size(); ++i) out[i] = s[i] <= 0xFF ? static_cast<char>(s[i]) : '?';
  return out;
}

std::filesystem::path WideToPath(WStringView s) { return std::filesystem::path(WideToUtf8(s)); }

WString PathToWide(const std::filesystem::path& p) { return Utf8ToWide(p.string()); }

char16_t ToLowerAscii(char16_t c) { return (c >= u'A' && c <= u'Z') ? c + 32 : c; }
char ToLowerAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

std::string ToLowerAscii(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = ToLowerAscii(c);
  return out;
}

WString ToLowerAscii(WStringView s) {
  WString out(s);
  for (char16_t& c : out) c = ToLowerAscii(c);
  return out;
}

std::string ToUpperAscii(std::string_view s) {
  std::string out(s);
  for (char& c : out) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
  }
  return out;
}

bool EqualsNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (ToLowerAscii(a[i]) != ToLowerAscii(b[i])) return false;
  }
  return true;
}

bool EqualsNoCase(WStringView a, WStringView b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (ToLowerAscii(a[i]) != ToLowerAscii(b[i])) return false;
  }
  return true;
}

bool StartsWithNoCase(std::string_view s, std::string_view prefix) {
  return s.size() >= prefix.size() && EqualsNoCase(s.substr(0, prefix.size()), prefix);
}

bool StartsWithNoCase(WStringView s, WStringView prefix) {
  return s.size() >= prefix.size() && EqualsNoCase(s.substr(0, prefix.size()), prefix);
}

namespace {
template <typename C>
bool IsBlank(C c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}
template <typename View>
View Trim(View s) {
  size_t b = 0, e = s.size();
  while (b < e && IsBlank(s[b])) ++b;
  while (e > b && IsBlank(s[e - 1])) --e;
  return s.substr(b, e - b);
}
}  // namespace

std::string_view TrimView(std::string_view s) { return Trim(s); }
WStringView TrimView(WStringView s) { return Trim(s); }

}  // namespace trv
