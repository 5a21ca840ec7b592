// Replies and forwards: a ComposedMessage (mime/compose.h) made from a parsed
// original, ready for the compose window.
//
//  - Reply: to the original's "Reply-To", else its "From" (else, for a
//    message we sent ourselves, its "To").
//  - Reply to all: the same, plus the original's "To" (in To) and "CC" (in
//    Cc), without our own addresses and without an address twice (compared
//    without regard to case).
//  - Forward: no recipients; the original's text inline below a banner line
//    and its main header lines; its attachments carried as attachment items
//    holding their decoded bytes.
// Subjects get "Re: " or "Fwd: " once: leading prefixes of the same kind
// ("Re:", "RE:", "Re[2]:", "Fw:", "Fwd:", any case) are replaced by one.
// In-Reply-To is the original's Message-ID; References the original's
// References (or its In-Reply-To when it has none) followed by its
// Message-ID, at most kMaxReferences ids (the first and the latest kept).
// Names and subjects have their encoded words decoded.
//
// The quoted text is taken as given (ReplyOptions::text); OriginalText
// gives the original's plain text, or the plain-text reading of an
// HTML-only original.
//
// Threads: pure functions of the message; the message must still be able to
// read its bodies (forwarded attachments are decoded from its source).
#pragma once

#include <cstddef>
#include <vector>

#include "base/result.h"
#include "base/wide_string.h"
#include "mime/compose.h"
#include "mime/mime_message.h"

namespace trv {

enum class ReplyKind { kReply, kReplyAll, kForward };

inline constexpr size_t kMaxReferences = 20;

struct ReplyOptions {
  // Our own addresses (the account's e-mail and reply addresses), never
  // replied to by Reply to all.
  std::vector<WString> own_addresses;
  // The original's text as plain text, lines ending in "\n" or "\r\n".
  WString text;
  // "%1" the original's date, "%2" its sender's name (else address).
  WString attribution = u"On %1, %2 wrote:";
  WString forward_banner = u"-------- Original message --------";
};

// The body to quote: the first plain-text body shown of the message (*html
// false), else the first HTML body (*html true) as its plain-text reading
// (mime/html_text.h); false when there is none. A damaged body gives what
// could be read.
bool OriginalText(const CXmMimeMessage& original, WString* text, bool* html);

// Fills *out (recipients, subject, In-Reply-To, References, one plain-text
// body, for a forward the attachments). A failed read of an attachment is
// returned after everything else was filled (that attachment left out).
Result BuildReply(const CXmMimeMessage& original, ReplyKind kind, const ReplyOptions& options, ComposedMessage* out);

// The subject of the reply or forward of a message with `subject`.
WString ReplySubject(WStringView subject, ReplyKind kind);
// The References value of a reply: ids from `references` (or `in_reply_to`
// when that has none), then `message_id`, without repeats, bounded.
WString ReplyReferences(WStringView references, WStringView in_reply_to, WStringView message_id);
// Every line of `text` with "> " before it ("\n" line ends out).
WString QuoteText(WStringView text);

}  // namespace trv
