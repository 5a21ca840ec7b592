#include "base/wide_string.h"

#include <cstdint>

#include "base/utf8.h"

namespace trv {

WString Utf8ToWide(std::string_view s) {
  WString out;
  DecodeUtf8(s, &out);  // replacements are the documented result
  return out;
}

std::string WideToUtf8(WStringView s) {
  std::string out;
  EncodeUtf8(s, &out);
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
