// The outbox of a service's storage: which waiting messages a service sends,
// and how a composed message is queued there.
//
// The sending service of a message is kept in its index record, never in its
// text: the first 16 bytes of the record's spare area hold the service's GUID
// (all zero: no mark). So the mark cannot reach a server, and moving the
// message to "Sent" carries it along. A message without a mark (put into the
// outbox by hand, or imported) is sent by the storage's first registered
// mail service, or by any service of the storage when none is registered.
//
// Threads: the sending run calls these on the service's worker; the command
// line queues from its own thread. The folder files lock themselves.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "base/guid.h"
#include "base/result.h"
#include "base/wide_string.h"
#include "store/message_record.h"

namespace trv {

class FolderFile;
class MailService;
class Storage;
struct ServiceSettings;

// The mark in the record's spare bytes.
void SetSendingService(MessageRecord* record, const Guid& service);
Guid SendingService(const MessageRecord& record);

// Appends `message_text` (any line ends; stored with CR LF) to the outbox of
// the service's storage, unsent (msgflag::kUnsent) and marked for `service`.
// The text keeps "BCC" and "X-Unsent" (the sending run leaves them out of
// what it transmits). `*key` (may be null) receives the message's key.
// Errors: rc::kFileMissing when the storage has no available outbox, else
// the folder file's code. The message is committed and flushed on return.
Result QueueForSending(MailService& service, std::string_view message_text, uint32_t* key = nullptr);

// Appends a draft to the "Drafts" folder of the service's storage, like
// QueueForSending (stored form, marked for `service`, read and unsent) with
// `flags` (priority bits) added. rc::kFileMissing when the storage has no
// available "Drafts".
Result StoreDraft(MailService& service, std::string_view message_text, uint16_t flags, uint32_t* key = nullptr);

// The "From" value of a message the account writes: "\"Real Name\" <address>",
// or the address alone when the account has no real name.
WString AccountFromField(const ServiceSettings& settings);

// One message a run will send.
struct OutgoingMessage {
  uint32_t key = 0;
  uint32_t size = 0;
  bool already_sent = false;  // msgflag::kSent: accepted before, only to be moved
};

// Walks `outbox` in index order and collects the messages `service` sends;
// `*total_bytes` receives the sum of their sizes. Loads the index first.
Result CollectOutgoing(MailService& service, FolderFile& outbox, std::vector<OutgoingMessage>* messages,
                       uint64_t* total_bytes);

// Marks an accepted message sent (msgflag::kSent), committed and flushed to
// the disk on return: from then on no run sends it again, even after a crash.
Result MarkSent(FolderFile& outbox, uint32_t key);

// Moves a message into `sent`: appended there marked sent and read, no
// longer unsent, its text without "X-Unsent" (it keeps "BCC" for the
// sender's eyes); then deleted from the outbox. A copy already in `sent`
// (same Message-ID, marked sent: a crash came between the two steps) is not
// appended again.
Result MoveToSent(FolderFile& outbox, FolderFile& sent, uint32_t key);

// Whether a record belongs to `service`; `unmarked_is_ours` says whether a
// record without a mark does (see above).
bool IsOutgoingFor(const MessageRecord& record, const Guid& service, bool unmarked_is_ours);

}  // namespace trv
