// The index record of a message, taken from its text: everything a folder
// listing shows (store/message_record.h) comes from the header block once,
// when the message is stored, so that listing never opens the message.
//
// Threads: pure functions; any thread.
#pragma once

#include <string_view>

#include "base/wide_string.h"
#include "mime/header.h"
#include "store/message_record.h"

namespace trv {

// Fills the listing fields of `record` from the header block at the start of
// `text` (the whole message, or only its start; parsing stops at the empty
// line that ends the header). The text is a stored message, lines ending in
// CR LF.
//   subject        "Subject", encoded words decoded
//   from, to, cc   the addresses of every "From", "To", "CC" field as
//                  "Name <addr>" (mime/address_list.h), joined by ", "
//   message_id     "Message-ID" without its angle brackets
//   sent_date      mime/message_dates.h
//   received_date  mime/message_dates.h; with `keep_received` it is changed
//                  only when a "Received" field exists
//   flags          priority from "X-Priority" (its first character after
//                  trimming: below 3 high, above 3 low, 3 or no digit
//                  normal); unsent for "X-Unsent: 1"; has-attachments for a
//                  "multipart/mixed" message. Other flags are kept.
// These are mime/message_facts.h ReadHeaderFacts, mapped onto the record.
// Key, size, read state and the server fields are left as they are. Never
// fails: text without a header gives empty strings and, for both dates,
// what mime/message_dates.h gives then (the current time).
void FillRecordFromHead(std::string_view text, MessageRecord* record, bool keep_received = false);

// A record for a message about to be stored: FillRecordFromHead and the size.
MessageRecord RecordFromMessage(std::string_view text);

// The folder files' rebuild hook (FolderFileOptions::rebuilder): fills a
// record that a repair made for a message stream alone. The stream's time
// stays the received date unless a "Received" field gives one, and is the
// sent date too when there is neither "Date" nor "Received"; "needs header
// refresh" is cleared when the head held a header field.
void RebuildRecordFromHead(std::string_view head, MessageRecord* record);

}  // namespace trv
