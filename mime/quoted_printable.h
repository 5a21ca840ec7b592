// The quoted-printable byte rule and the "Q" word encoding of header fields.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "base/result.h"
#include "mime/stream.h"

namespace trv {

// Quoted-printable byte rule (RFC 2045 6.7): space and 33..126 except "="
// stand for themselves; every other byte (including "=", TAB, CR, LF and all
// bytes from 127 up) is "=" and two upper-case hexadecimal digits. No line
// breaks are inserted and line ends get no special treatment; breaking into
// lines is the encoder stream's work (CXmQpEncoder).
void QpEncodeBytes(std::string_view bytes, std::string* out);
// The same for a run given by pointer and length, written to a stream; a
// length of zero or less writes nothing.
Result QpEncodeRun(const char* bytes, int length, CXmStream& out);

// The length the byte rule gives one byte: 1 or 3.
inline int QpEncodedLength(unsigned char b) {
  return (b == 32 || (b >= 33 && b <= 126 && b != 61)) ? 1 : 3;
}

// Header word encoding ("Q", RFC 2047 4.2, as the header writer uses it):
// appends the encoding of text[*index...] to `out`, advancing *index, until the
// running count (which starts at 3 for the closing "?=") exceeds `budget` or
// the text ends. 33..60 and 62..126 stand for themselves (count 1) except "?"
// and "_"; everything else, space included, is "=%02X" (count 3). The byte that
// crosses the budget has been written already, so for a hard limit pass the
// limit minus 3. Nothing is written when *index is at or past the end.
void EncodeHeaderWord(std::string_view text, size_t* index, int budget, std::string* out);

// The count one byte adds in the header word encoding: 1 or 3.
int HeaderWordCost(unsigned char b);

}  // namespace trv
