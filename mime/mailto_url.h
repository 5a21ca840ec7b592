// "mailto:" addresses (RFC 6068) read into the fields of a new message.
//
// "mailto:a@x,b@y?cc=c@z&subject=Hi&body=Line%0D%0ALine" gives the To list
// "a@x, b@y", the CC list, the subject and the body. Header names are
// compared without regard to case; "to", "cc" and "bcc" given more than once
// (or "to" beside the path) are joined into one list; "subject" and "body"
// keep their last value; other header names are ignored. Percent escapes are
// decoded to bytes and the bytes read as UTF-8 (ill-formed ones become
// U+FFFD). A "+" stays a plus. Line ends in the body become "\n".
//
// Odd input never fails the parse: a "%" not followed by two hexadecimal
// digits is kept as it stands, and an escaped NUL ("%00") is dropped; either
// sets `odd_escapes`, so that the caller can say the address was not clean.
//
// Threads: pure functions; any thread.
#pragma once

#include <string_view>

#include "base/result.h"
#include "base/wide_string.h"

namespace trv {

struct MailtoFields {
  WString to, cc, bcc, subject, body;
  bool odd_escapes = false;
};

// rc::kInvalidArg when `url` does not begin with "mailto:" (any case);
// otherwise rc::kOk and the fields.
Result ParseMailtoUrl(std::string_view url, MailtoFields* fields);

}  // namespace trv
