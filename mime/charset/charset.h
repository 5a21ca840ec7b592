// The character-set converter library (target trvmlcnv): character sets known
// by their MIME names, made by CreateCharset, listed by EnumCharsets. Text
// inside the system is UTF-16 (WString); message text is 8-bit in a named set.
//
// Names: every name iconv knows works, plus the system's own names
// "us-ascii", "utf-8", "utf-16" (UTF-16 little-endian without byte-order mark,
// the internal form), "iso-8859-1", the aliases "utf8" and "utf16", and
// "imap4-utf-7" (the modified UTF-7 of IMAP mailbox names, RFC 3501 5.1.3).
// Names compare without regard to case.
//
// Fallback when text cannot be converted, so that it is still shown:
//  - decoding bytes whose character set is unknown: each valid UTF-8
//    sequence becomes its character and every other byte is taken as
//    ISO 8859-1 (so both UTF-8 and Latin-1 text read right);
//  - "us-ascii" is decoded the same way and never fails: undeclared 8-bit
//    text is common and this is the best guess for it;
//  - a byte sequence invalid in a known set becomes U+FFFD;
//  - a character the destination set cannot hold becomes "?";
//  - encoding to an unknown set writes UTF-8.
// Each of these makes the conversion report failure (false), except the
// "us-ascii" decoding; callers turn failure into 0xA0003003.
//
// Threads: all functions may be called from any thread. A CXmCharset or
// CXmConverter object is used by one thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "base/wide_string.h"

namespace trv {

// Flags words of the conversions.
inline constexpr uint32_t kConvertStrict = 1;  // stop at the first failure instead of replacing

class CXmCharset {
 public:
  virtual ~CXmCharset() = default;

  // The canonical MIME name ("utf-8", "iso-8859-1", ...), lower case for the
  // system's own names, else as given.
  virtual const std::string& Name() const = 0;
  // A name for people ("Western European (ISO)"); the MIME name when the set
  // is not in the library's table.
  virtual WString DisplayName() const = 0;

  // Whole-text conversions with the fallback rules above; false when anything
  // was replaced (or, with kConvertStrict, when conversion stopped early).
  virtual bool Decode(std::string_view bytes, WString* out, uint32_t flags = 0) const = 0;
  virtual bool Encode(WStringView text, std::string* out, uint32_t flags = 0) const = 0;
};

// A character set by name, or nullptr when neither the table nor iconv
// knows the name.
std::unique_ptr<CXmCharset> CreateCharset(std::string_view name);

// True when CreateCharset would succeed.
bool IsKnownCharset(std::string_view name);

// One character set of the library's table: its display name, its MIME name
// (16-bit and 8-bit) and iconv's name for it.
struct CharsetListing {
  WString display_name;
  WString mime_name;
  std::string mime_name8;
  std::string system_name;
};

// Calls `visit` once per listed character set, in table order, on the
// calling thread, until it returns false. The listing is valid during the
// call only.
void EnumCharsets(const std::function<bool(const CharsetListing&)>& visit);

// Releases the library's cached tables. Later calls rebuild them.
void DeInitCharsets();

}  // namespace trv
