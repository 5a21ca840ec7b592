// The renderings of a message that `trvmail-cli show` prints: UTF-8 text with
// "\n" line ends, built here so that the program only prints them.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"
#include "mime/mime_message.h"
#include "ui/message_view.h"

namespace trv {

// The size of a part's content once its transfer encoding is undone: the
// size of the file an attachment is saved as (of what could be decoded, for
// a damaged encoding). Decodes base64 and quoted-printable bodies to count.
uint64_t DecodedSize(const CXmMessagePart& part);

// "From:", "To:", "CC:", "Subject:" and "Date:" lines, each only when the
// message has the field, with encoded words decoded and folds undone.
std::string RenderMainHeaders(const CXmMimeMessage& message);

// The main headers, an empty line, then the text the reading view shows:
// plain text as it is, HTML as its plain-text reading, a line of dashes
// between two text items, "[picture ...]" for pictures, and an
// "[attachment ...]" line for each attachment (its size once decoded: the
// size of the saved file). `*status` (optional) receives
// the view's decoding status.
std::string RenderMessageText(const CXmMimeMessage& message, const MessageViewOptions& options = {},
                              Result* status = nullptr);

// The reading view's HTML as a document of its own: a doctype, a
// "<META charset=\"utf-8\">" (the text is UTF-8), and after a rule the
// attachment lines of RenderMessageText.
std::string RenderMessageHtml(const CXmMimeMessage& message, const MessageViewOptions& options = {},
                              Result* status = nullptr);

// The part tree, one line per part, indented two blanks per level:
//   content type, then for a container the number of its children, for a
//   single part its stored size in bytes, its transfer encoding ("7bit" when
//   the part names none), the charset
//   of a text part, the file name, the disposition and the Content-ID when
//   there are any; the class name is not shown.
std::string RenderPartTree(const CXmMimeMessage& message);

}  // namespace trv
