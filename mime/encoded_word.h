// Decoding of RFC 2047 encoded words ("=?charset?B?...?=", "=?charset?Q?...?=")
// in header text that has already been turned into UTF-16.
#pragma once

#include "base/wide_string.h"

namespace trv {

// Longest charset name accepted inside an encoded word.
inline constexpr size_t kMaxEncodedWordCharset = 64;

// Replaces every well-formed encoded word by its text:
//  - "B" (base64, padding optional) and "Q" ("_" is a space, "=XX" a byte),
//    either case; a charset may carry an RFC 2231 language ("utf-8*en");
//  - encoded words are recognised even when text touches them (our own
//    header unfolding joins folded words), but never contain blanks;
//  - blanks between two adjacent encoded words are dropped;
//  - adjacent words in the same charset are joined as bytes before
//    conversion, so a character split between two words survives;
//  - a malformed word (no closing "?=", unknown encoding letter, non-ASCII
//    inside) stays as it stands.
// The charset conversion follows the library's fallback (charset.h): an
// unknown charset is read as UTF-8 where valid, else byte by byte as
// ISO 8859-1. Returns false when some conversion failed that way; *out holds
// the text either way. Runs in time linear in the input.
bool DecodeEncodedWords(WStringView text, WString* out);

// The same, ignoring the status.
WString DecodeHeaderText(WStringView text);

}  // namespace trv
