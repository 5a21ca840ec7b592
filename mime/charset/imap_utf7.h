// Modified UTF-7 of IMAP mailbox names (RFC 3501 section 5.1.3): printable
// ASCII stands for itself except "&", which is written "&-"; every other run
// of characters is "&", the UTF-16 big-endian units in base64 with "," for
// "/" and no padding, then "-".
#pragma once

#include <string>
#include <string_view>

#include "base/wide_string.h"

namespace trv::cnv {

std::string ImapUtf7Encode(WStringView text);

// Decodes; a malformed shifted run (bad character, missing "-", odd bits
// left over) becomes U+FFFD and decoding goes on after it. Returns false
// when anything was malformed; in strict mode decoding then stops.
bool ImapUtf7Decode(std::string_view bytes, bool strict, WString* out);

}  // namespace trv::cnv
