// The text a sending run hands to the SMTP client's Data, made from a stored
// outbox message (CR LF line ends), and the header cut it is made with.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

namespace trv {

// `text` without the header fields named in `lower_case_names` (compared
// without regard to letter case), continuation lines included. Only the
// header block, up to its empty line, is looked at.
std::string WithoutHeaderFields(std::string_view text, std::initializer_list<std::string_view> lower_case_names);

// The stored message as it goes out:
//  - without "BCC", "Resent-BCC" and "X-Unsent";
//  - every line that begins with "." gets a second "." in front (the client
//    itself doubles only lines holding a lone "."; the server removes one dot
//    from every line that begins with one);
//  - one final CR LF is dropped, since the client's terminator begins with
//    CR LF: the server then keeps the text byte for byte.
std::string OutgoingText(std::string_view stored);

}  // namespace trv
