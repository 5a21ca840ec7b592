// Address lists of "From", "To", "CC" and their kin (RFC 5322 3.4, with the
// obsolete forms of 4.4) parsed into display names and addresses.
#pragma once

#include <vector>

#include "base/wide_string.h"

namespace trv {

struct MailAddress {
  WString name;     // display name, encoded words decoded; may be empty
  WString address;  // the address itself ("user@example.org"); may lack a domain or be empty
  WString group;    // the name of the group the address was listed in, if any
};

// Understands: bare addresses; "Name <addr>"; quoted names with escapes;
// encoded words in names; "addr (Name)" (the comment becomes the name when
// there is no other); groups ("Team: a@x, b@y;"), members carrying the group
// name, empty groups giving nothing; routes ("<@relay:addr>", dropped); blanks
// and comments inside addresses ("a . b @ c"); a missing ">"; empty
// elements. A quoted local part keeps its quotes in the address. Never fails;
// text that is no address at all becomes a name without address. Linear time.
std::vector<MailAddress> ParseAddressList(WStringView text);

// "Name <addr>", the name quoted when it holds specials; the address alone when
// there is no name.
WString FormatAddress(const MailAddress& a);

}  // namespace trv
