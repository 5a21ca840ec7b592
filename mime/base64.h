// Base64 of RFC 2045 ("A"-"Z", "a"-"z", "0"-"9", "+", "/", "=" padding) over
// whole buffers, made by the stream filters of mime/codec_streams.h.
#pragma once

#include <string>
#include <string_view>

namespace trv {

// Encodes the bytes; with line_width > 0 a "\r\n" follows every line_width
// output characters (not after the last line).
std::string Base64Encode(std::string_view bytes, int line_width = 0);

// Decodes, ignoring every character outside the alphabet (line ends, blanks,
// garbage) and stopping at the first "=". A trailing group of 2 or 3 symbols
// yields its whole bytes. Returns false when anything other than line ends
// and blanks was skipped or a lone trailing symbol was dropped; the output
// holds what could be decoded either way.
bool Base64Decode(std::string_view text, std::string& out);

}  // namespace trv
