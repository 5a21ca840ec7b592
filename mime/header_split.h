// Splitting one decoded header field ("Name: value; p1=v1; p2=v2") into its
// name, value, comments and parameters.
#pragma once

#include <cstddef>

#include "base/result.h"
#include "base/wide_string.h"
#include "mime/header_field.h"

namespace trv {

// Parameters past this many in one field are dropped (status 0xA0003000).
inline constexpr size_t kMaxParameterCount = 128;

// The name is what mime/field_line.h takes as a field name (blanks before
// the ":" dropped); a line that rule refuses keeps everything before its
// first ":" as the name. After the ":" the text is read character by
// character:
//  - ";" starts a new parameter, "=" ends a parameter's name (later "=" are
//    data);
//  - "(" starts a comment up to its matching ")" (nesting, "\" escapes); its
//    text goes to comment(), brackets removed, several comments joined by a
//    space;
//  - a double quote not after a backslash starts a quoted string up to the
//    next double quote not after a backslash, taken without its quotes (a
//    backslash before a double quote or a backslash inside it is dropped);
//  - a blank is kept only after a character other than blank, "@" or ".",
//    and a "." or "@" removes a blank before it; blanks at the start and end
//    of the value and of each parameter name and value are dropped;
//  - every other character is taken as it is.
// Parameters without a name are dropped. Text without ":" becomes the name
// alone and gives 0xA0003000; so does dropping parameters past the limit.
Result SplitField(WStringView text, CXmHeaderField* field);

// A media type value "type/subtype", each side trimmed and in lower case;
// without "/" the subtype is empty.
void SplitMediaType(WStringView value, WString* type, WString* subtype);

}  // namespace trv
