// The name patterns of the container's root listing: "*" matches any run of
// characters (none included), "?" exactly one, "\" makes the next character
// literal (a "\" at the very end matches a "\"), every other character
// matches itself, case counts. "\0*" thus matches the names beginning with "0".
#pragma once

#include "base/wide_string.h"

namespace trv {

bool MatchNamePattern(WStringView pattern, WStringView name);

// The literal characters the pattern starts with (up to its first "*" or "?"),
// escapes resolved: every matching name begins with them.
WString PatternLiteralPrefix(WStringView pattern);

}  // namespace trv
