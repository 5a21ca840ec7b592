// RFC 2231 parameter values: continuations (name*0, name*1, ...), character
// set and language (name*=utf-8'en'%C3%A9t%C3%A9), percent-encoding.
#pragma once

#include <vector>

#include "mime/header_field.h"

namespace trv {

// Sections past this number are ignored.
inline constexpr int kMaxParameterSection = 999;

// Merges the extended and continued parameters of a field in place: every
// group of "name*", "name*N" and "name*N*" parameters becomes one parameter
// "name" with the decoded value and the language, at the position of the
// group's first member. Sections are joined in number order from 0 and stop
// at the first missing number. An extended value replaces a plain "name" of
// the same name. A missing or unknown charset decodes with the library's
// fallback. Returns false when a charset conversion failed.
bool MergeRfc2231Parameters(std::vector<CXmParameter>* params);

}  // namespace trv
