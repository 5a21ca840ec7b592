#include "services/outbox.h"

#include <algorithm>
#include <optional>
#include <string>

#include "core/message_import.h"
#include "mime/message_text.h"
#include "services/mail_service.h"
#include "services/outgoing_text.h"
#include "store/folder_file.h"
#include "store/mail_folder.h"
#include "store/storage.h"

namespace trv {

namespace {

// Whether a record without a mark belongs to `service`: it does when the
// service is the first mail service registered with its storage, or when
// none is registered.
bool UnmarkedIsOurs(MailService& service) {
  for (StorageService* s : service.storage().services()) {
    if (auto* mail = dynamic_cast<MailService*>(s)) return mail == &service;
  }
  return true;
}

}  // namespace

void SetSendingService(MessageRecord* record, const Guid& service) {
  std::copy(service.bytes.begin(), service.bytes.end(), record->spare.begin());
}

Guid SendingService(const MessageRecord& record) {
  Guid g;
  std::copy_n(record.spare.begin(), g.bytes.size(), g.bytes.begin());
  return g;
}

bool IsOutgoingFor(const MessageRecord& record, const Guid& service, bool unmarked_is_ours) {
  const Guid mark = SendingService(record);
  return mark.IsNil() ? unmarked_is_ours : mark == service;
}

Result QueueForSending(MailService& service, std::string_view message_text, uint32_t* key) {
  MailFolder* outbox = service.storage().SpecialFolder(kFolderOutbox);
  if (!outbox || !outbox->file()) return rc::kFileMissing;
  const std::string text = ToStoredForm(message_text);
  MessageRecord record = RecordFromMessage(text);
  // Written here, so read; waiting to be sent.
  record.flags = (record.flags | msgflag::kUnsent | msgflag::kRead) & ~msgflag::kSent;
  SetSendingService(&record, service.settings().guid);
  uint32_t appended = 0;
  Result r = outbox->file()->Append(record, text, &appended);
  if (key) *key = r.ok() ? appended : 0;
  return r;
}

Result StoreDraft(MailService& service, std::string_view message_text, uint16_t flags, uint32_t* key) {
  MailFolder* drafts = service.storage().SpecialFolder(kFolderDrafts);
  if (!drafts || !drafts->available()) return rc::kFileMissing;
  const std::string text = ToStoredForm(message_text);
  MessageRecord record = RecordFromMessage(text);
  record.flags |= flags | msgflag::kUnsent | msgflag::kRead;
  SetSendingService(&record, service.settings().guid);
  uint32_t appended = 0;
  const Result r = drafts->file()->Append(record, text, &appended);
  if (key) *key = r.ok() ? appended : 0;
  return r;
}

WString AccountFromField(const ServiceSettings& s) {
  return s.user_real_name.empty() ? s.email_address : u"\"" + s.user_real_name + u"\" <" + s.email_address + u">";
}

Result CollectOutgoing(MailService& service, FolderFile& outbox, std::vector<OutgoingMessage>* messages,
                       uint64_t* total_bytes) {
  messages->clear();
  *total_bytes = 0;
  if (Result r = outbox.LoadIndex(); r.failed()) return r;
  const Guid id = service.settings().guid;
  const bool unmarked_is_ours = UnmarkedIsOurs(service);
  for (const MessageRecord& record : outbox.Messages()) {
    if (!IsOutgoingFor(record, id, unmarked_is_ours)) continue;
    messages->push_back({record.key, record.size, (record.flags & msgflag::kSent) != 0});
    *total_bytes += record.size;
  }
  return rc::kOk;
}

Result MarkSent(FolderFile& outbox, uint32_t key) { return outbox.SetFlags(key, msgflag::kSent, 0); }

Result MoveToSent(FolderFile& outbox, FolderFile& sent, uint32_t key) {
  const std::optional<MessageRecord> found = outbox.FindMessage(key);
  if (!found) return rc::kInvalidArg;
  MessageRecord record = *found;
  record.flags = (record.flags | msgflag::kSent | msgflag::kRead) & ~msgflag::kUnsent;
  bool copied = false;
  if (!record.message_id.empty()) {
    if (Result r = sent.LoadIndex(); r.failed()) return r;
    for (const MessageRecord& other : sent.Messages()) {
      copied = copied || (other.message_id == record.message_id && (other.flags & msgflag::kSent) &&
                          SendingService(other) == SendingService(record));
    }
  }
  if (!copied) {
    std::string text;
    if (Result r = outbox.ReadMessage(key, &text); r.failed()) return r;
    uint32_t new_key = 0;
    if (Result r = sent.Append(record, WithoutHeaderFields(text, {"x-unsent"}), &new_key); r.failed()) return r;
  }
  return outbox.Delete({key});
}

}  // namespace trv
