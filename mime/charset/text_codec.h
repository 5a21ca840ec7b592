// Incremental text codecs inside trvmlcnv: bytes in a named set to UTF-16 and
// back, fed in pieces (a multi-byte sequence may be split between pieces).
// Not for use outside the library; the public face is CXmCharset and
// CXmConverter.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "base/wide_string.h"

namespace trv::cnv {

class TextDecoder {
 public:
  virtual ~TextDecoder() = default;
  // Appends the characters of `bytes` to `out`. An incomplete sequence at the
  // end is kept for the next call unless `last`. Returns false once anything
  // had to be replaced; in strict mode it then stops and drops the rest.
  virtual bool Decode(std::string_view bytes, bool last, WString* out) = 0;
};

class TextEncoder {
 public:
  virtual ~TextEncoder() = default;
  // Appends the bytes of `text` to `out`; a high surrogate at the end is kept
  // for the next call unless `last`. Same return rule as the decoder.
  virtual bool Encode(WStringView text, bool last, std::string* out) = 0;
};

enum class CodecKind {
  kIconv,     // through iconv with `system_name`
  kAscii,     // "us-ascii": lenient decoding, ASCII encoding
  kUtf8,      // built in: the commonest sets are converted without iconv
  kLatin1,    // built in: ISO 8859-1
  kUtf16,     // the internal form: UTF-16LE, a leading byte-order mark honoured when read
  kImapUtf7,  // modified UTF-7 of IMAP mailbox names
  kUnknown,   // not known: fallback decoding, UTF-8 encoding, both report failure
};

struct CharsetId {
  CodecKind kind = CodecKind::kUnknown;
  std::string mime_name;    // canonical MIME name
  std::string system_name;  // iconv's name
};

// Resolves a name through the table, its aliases and iconv. Cached.
CharsetId Resolve(std::string_view name);
void ClearResolveCache();

std::unique_ptr<TextDecoder> MakeDecoder(const CharsetId& id, bool strict);
std::unique_ptr<TextEncoder> MakeEncoder(const CharsetId& id, bool strict);

// The fallback decoding of unknown bytes (valid UTF-8, else each byte as
// ISO 8859-1), whole text at once.
WString FallbackDecode(std::string_view bytes);

// Whole-text helpers over the incremental codecs.
bool DecodeAll(const CharsetId& id, std::string_view bytes, bool strict, WString* out);
bool EncodeAll(const CharsetId& id, WStringView text, bool strict, std::string* out);

}  // namespace trv::cnv
