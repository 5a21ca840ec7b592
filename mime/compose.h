// Composition: building the part tree of an outgoing or draft message from
// what the user composed (one or two text bodies, inline items, attachments),
// copying the address fields over, and stamping a new message.
//
// Structure (RebuildMessage):
//   attachments          -> a "multipart/mixed" root;
//   inline items         -> "multipart/related" (inside "mixed" when there is one);
//   two text bodies      -> "multipart/alternative" (inside the innermost container);
//   the text bodies go into the innermost container; a lone text body with
//   nothing else is the root itself. Inline items go into "related",
//   attachments into "mixed".
// So text + HTML + a picture + an attachment gives mixed(related(alternative(
// plain, html), picture), attachment).
//
// Text bodies are written in the sending character set ("us-ascii" when none
// is given); when the text, the subject or an address field does not fit it,
// UTF-8 is used instead and the report says so. Line ends become CR LF. A text
// with a line longer than 998 bytes is sent quoted-printable unless an
// encoding is named. Attachments and inline items are sent in base64, so that
// their bytes come back unchanged.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "base/date_value.h"
#include "base/result.h"
#include "base/wide_string.h"
#include "mime/message_flags.h"
#include "mime/message_stamp.h"
#include "mime/mime_message.h"
#include "mime/mime_types.h"

namespace trv {

struct ComposedText {
  WString text;
  bool html = false;  // subtype "html", else "plain"
};

// An inline item or an attachment.
struct ComposedItem {
  std::filesystem::path path;  // content read from this file when the message is written,
  std::string data;            // or these bytes when `path` is empty
  WString file_name;           // the name sent; the file's own name when empty
  std::string content_type;    // empty: from the file name
  WString content_id;          // inline items: "<id>" or "id"; made when empty
};

struct ComposedParts {
  std::vector<ComposedText> bodies;  // one, or two alternatives (plain, html)
  std::vector<ComposedItem> inline_items;
  std::vector<ComposedItem> attachments;
};

struct ComposeOptions {
  std::string sending_charset;  // empty: "us-ascii"
  std::string body_encoding;    // named encoding of text bodies; empty: automatic
  // The message is saved unsent (a draft or the outbox): "BCC" and "X-Unsent"
  // are copied to the rebuilt message.
  bool save_unsent = false;
  StampSource* stamp = nullptr;     // nullptr: SystemStamp()
  const MimeTypes* types = nullptr;  // nullptr: MimeTypes::System()
};

struct ComposeReport {
  std::string charset;              // the character set text bodies and headers are written in
  bool charset_changed = false;     // the sending set could not hold the text: UTF-8 instead
  std::vector<WString> content_ids; // of the inline items, in order, with angle brackets
  std::filesystem::path failed_file;  // the item file that could not be read
  // Header options to write the message with (the character set above).
  HeaderWriteOptions header_options() const;
};

// Builds the structure above from `parts` and makes it the message's tree,
// copying from the old root header, in order: "Sender", "Reply-To", "From",
// "To", "CC", "BCC" (only when saving unsent), "Subject", "X-Unsent" (only
// when saving unsent), "X-Priority", "In-Reply-To", "References", and "Date"
// (a new one when the old header has none). On failure (an item file that
// cannot be read) the old tree stays and the file is named in the report.
Result RebuildMessage(CXmMimeMessage* message, const ComposedParts& parts, const ComposeOptions& options,
                      ComposeReport* report);

// A whole new message as the compose window produces it.
struct ComposedMessage {
  WString from;
  WString sender;
  WString reply_to;
  WString to;
  WString cc;
  WString bcc;
  WString subject;
  WString in_reply_to;
  WString references;
  double date = kNoDate;  // kNoDate: now
  Priority priority = Priority::kNormal;
  // Still to be sent (the outbox) or a draft: "X-Unsent: 1", "BCC" kept. The
  // sending path writes the message with MimeWriteOptions::for_transport,
  // which leaves both out.
  bool unsent = true;
  ComposedParts parts;
};

// Fills `message` with a new message: the fields, RebuildMessage, the
// priority, the new-message stamp ("Date", "Message-ID", "MIME-Version"),
// "X-Mailer". `*flags` receives the priority and unsent bits for the record.
Result ComposeMessage(const ComposedMessage& composed, const ComposeOptions& options, CXmMimeMessage* message,
                      uint16_t* flags, ComposeReport* report);

// "Tarvo Mail" and the version, the value of "X-Mailer".
WString MailerName();

// Moves "MIME-Version" and the "Content-" fields behind all others, keeping
// their order (the usual look of a message header).
void MoveContentFieldsLast(CXmHeader* header);

}  // namespace trv
