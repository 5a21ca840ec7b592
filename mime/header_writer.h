// Writing header fields: parameter quoting and folding.
#pragma once

#include <string>

#include "base/result.h"
#include "base/wide_string.h"
#include "mime/header_field.h"

namespace trv {

struct HeaderWriteOptions {
  // Characters from 128 up are converted to this set.
  std::string sending_charset = "us-ascii";
  // Write the converted bytes as they are instead of as encoded words
  // (the service setting "8BitInHeaders").
  bool allow_8bit = false;
};

// A physical line stays below this many characters, and below
// kMaxEncodedLine on lines that carry encoded words.
inline constexpr size_t kMaxHeaderLine = 76;
inline constexpr size_t kMaxEncodedLine = 75;

// A parameter value as it is written: unchanged when it has no control
// character, no character from 127 up and none of ()<>@,;:"/[]?= and space;
// else between double quotes, with a backslash before each double quote except
// one at the very start and one already after a backslash.
WString QuoteParameterValue(WStringView value);

// Appends the field and "\r\n" to `out`. A field with raw text is written as
// it stood. Otherwise the text is name, ": ", value, then "; name=value" per
// parameter, folded with "\r\n " after the last ";" of a line that would
// reach 76 characters (after its last blank when it has no ";"; an unbroken
// run longer than a line stays whole), never doubling a blank at a fold.
// Blank-separated words holding characters from 128 up are converted to the
// sending set and written as "Q" encoded words (or raw with allow_8bit), each
// word closed and the next begun on a new line before a line would reach 75
// characters; a character is never split between two words. A parameter
// value with such characters is written in the RFC 2231 form
// name*=charset''%XX. CR and LF in a value are written as blanks, so a value
// can never start a field of its own. A character the sending set cannot hold is written as
// "?" and the write returns 0xA0003003; everything is written either way.
Result WriteHeaderField(const CXmHeaderField& field, const HeaderWriteOptions& options, std::string* out);

}  // namespace trv
