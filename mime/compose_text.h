// A composed message as text, and a stored message (a draft) read back into
// what the compose window edits.
//
// Threads: one thread at a time per message; no shared state.
#pragma once

#include <string>

#include "base/result.h"
#include "mime/compose.h"

namespace trv {

// ComposeMessage, then the message written with the report's header options:
// the text to store (CR LF line ends). On failure `*text` is left empty and
// the report names a file that could not be read.
Result ComposeMessageText(const ComposedMessage& composed, const ComposeOptions& options, std::string* text,
                          uint16_t* flags, ComposeReport* report);

// The fields and parts of a parsed message: the address fields, subject,
// In-Reply-To, References and priority; the first "text/plain" body that is
// no attachment (a message with only an HTML body gives that as an "html"
// body); every attachment, and every other part with a Content-ID that is
// no attachment as an inline item, each with its decoded bytes in `data`,
// its file name, type and Content-ID. `unsent` follows "X-Unsent". The
// first part that cannot be decoded is its error (the fields are filled).
Result ComposedFromMessage(const CXmMimeMessage& message, ComposedMessage* composed);

}  // namespace trv
