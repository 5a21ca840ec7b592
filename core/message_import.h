// Putting messages into a folder file: the index record of a message, taken
// from its text (everything a folder listing shows, store/message_record.h,
// comes from the header block once, when the message is stored, so that
// listing never opens the message), and the importer that stores messages
// from files, mbox files and downloads in batches.
//
// Threads: the record functions are pure (any thread); an importer is used
// by one thread at a time, under the folder file's own rules.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "base/wide_string.h"
#include "mime/header.h"
#include "mime/line_source.h"
#include "mime/mbox.h"
#include "mime/message_text.h"
#include "store/folder_file.h"
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

// A batch is stored when it holds this many messages or bytes.
inline constexpr size_t kImportBatchMessages = 2000;
inline constexpr size_t kImportBatchBytes = 8u << 20;

// Collects messages and appends them to a folder file a batch at a time, each
// batch one transaction (FolderFile::AppendMany): a failure loses the batch
// it hit and keeps every batch stored before it.
// Lifetime: `file` outlives the importer. Messages not yet flushed when the
// importer goes are dropped: call Flush first.
class MessageImporter {
 public:
  explicit MessageImporter(FolderFile& file) : file_(file) {}

  // Queues a message given with any line ends: it is stored in its stored
  // form (mime/message_text.h ToStoredForm) with RecordFromMessage's record;
  // a "Status" field holding "R" (mbox) marks it read. Stores the batch when
  // it is full: that store's code.
  Result Add(std::string_view text);
  // Stores what is queued; its code (the queue is emptied either way).
  Result Flush();

  // Messages stored so far (committed).
  size_t stored() const { return stored_; }

 private:
  FolderFile& file_;
  std::vector<std::string> texts_;
  std::vector<MessageRecord> records_;
  size_t bytes_ = 0;
  size_t stored_ = 0;
};

// What an import decides about its input, for the caller to say.
enum class ImportEvent {
  kStored,          // a message was queued for storing
  kBrokenEnvelope,  // an mbox "From " line without sender and date: it starts a message all the same
  kEmptyEntry,      // an mbox entry without text: skipped
  kNoHeader,        // text that starts with no header field: stored after an empty header (no subject)
  kEmptyHeader,     // text that starts with an empty line: stored as it is (no subject)
};
// `entry` is the mbox entry the event is about (its envelope and line), or
// nullptr for a single message.
using ImportObserver = std::function<void(ImportEvent event, const MboxMessage* entry)>;

// Reads one input from `source` into `importer`: an mbox file or a single
// message, told apart by their first bytes (mime/message_text.h
// ClassifyInput; `*kind` says which). Not mail (kNotMail): nothing is read
// or queued, and the code is kOk. `observer` (may be empty) is called on
// this thread for each event, kStored after the others of that message.
// Returns the first failing code of reading or storing, kOk otherwise; what
// is queued is not flushed here.
Result ImportMailInput(LineSource& source, MessageImporter& importer, InputKind* kind,
                       const ImportObserver& observer = {});

}  // namespace trv
