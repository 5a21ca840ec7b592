// Wide (UTF-16) and 8-bit text. Text inside the engine is std::u16string;
// bytes at the edges (files, wire, log) are std::string. The helpers here are
// the strict Unicode transforms the foundations need (file names, log lines);
// message text in named character sets goes through the converter library.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace trv {

using WString = std::u16string;
using WStringView = std::u16string_view;

// UTF-8 to UTF-16 through base/utf8.h: each maximal ill-formed subpart
// becomes one U+FFFD; never fails.
WString Utf8ToWide(std::string_view s);
// UTF-16 to UTF-8 through base/utf8.h. Unpaired surrogates become U+FFFD;
// never fails.
std::string WideToUtf8(WStringView s);

// Each byte taken as one character (ISO 8859-1).
WString Latin1ToWide(std::string_view s);
// Characters up to 0xFF as one byte each; others become '?'.
std::string WideToLatin1(WStringView s);

// Convenience for literals and ASCII-only texts.
inline WString W(std::string_view ascii) { return Latin1ToWide(ascii); }

// File names: UTF-8 on this platform.
std::filesystem::path WideToPath(WStringView s);
WString PathToWide(const std::filesystem::path& p);

// ASCII case folding and comparison; other characters compare exactly.
char16_t ToLowerAscii(char16_t c);
char ToLowerAscii(char c);
std::string ToLowerAscii(std::string_view s);
WString ToLowerAscii(WStringView s);
std::string ToUpperAscii(std::string_view s);
bool EqualsNoCase(std::string_view a, std::string_view b);
bool EqualsNoCase(WStringView a, WStringView b);
bool StartsWithNoCase(std::string_view s, std::string_view prefix);
bool StartsWithNoCase(WStringView s, WStringView prefix);

// Removes blanks (space, TAB, CR, LF) at both ends.
std::string_view TrimView(std::string_view s);
WStringView TrimView(WStringView s);

}  // namespace trv
