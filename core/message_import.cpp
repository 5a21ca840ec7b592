#include "core/message_import.h"

#include "mime/header.h"
#include "mime/message_facts.h"

namespace trv {

static_assert(kFlagPriorityLow == msgflag::kPriorityLow && kFlagPriorityHigh == msgflag::kPriorityHigh &&
                  kFlagUnsent == msgflag::kUnsent,
              "the record keeps the composer's flag values");

namespace {

void ParseHead(std::string_view text, CXmHeader* header) {
  // Undeclared 8-bit header text is read as UTF-8 where it is valid and as
  // Latin-1 elsewhere ("us-ascii" decoding never fails).
  header->Parse(text, "us-ascii").Ignore();  // a damaged field still gives what it can
}

void Fill(const CXmHeader& header, MessageRecord* record, bool keep_received) {
  const MessageFacts facts = ReadHeaderFacts(header);
  record->subject = facts.subject;
  record->from = facts.from;
  record->to = facts.to;
  record->cc = facts.cc;
  record->message_id = facts.message_id;
  record->sent_date = facts.sent_date;
  if (!keep_received || header.Find(field::kReceived) != nullptr) record->received_date = facts.received_date;

  // The composer's flag values are the record's (store/RECORD-LAYOUT.md).
  record->flags &= ~(msgflag::kPriorityHigh | msgflag::kPriorityLow | msgflag::kUnsent | msgflag::kHasAttachments);
  record->flags |= facts.flags();
  if (facts.has_attachments) record->flags |= msgflag::kHasAttachments;
}

}  // namespace

void FillRecordFromHead(std::string_view text, MessageRecord* record, bool keep_received) {
  CXmHeader header;
  ParseHead(text, &header);
  Fill(header, record, keep_received);
}

MessageRecord RecordFromMessage(std::string_view text) {
  MessageRecord record;
  FillRecordFromHead(text, &record);
  record.size = static_cast<uint32_t>(text.size());
  return record;
}

void RebuildRecordFromHead(std::string_view head, MessageRecord* record) {
  CXmHeader header;
  ParseHead(head, &header);
  if (header.empty()) return;
  const double stream_time = record->received_date;
  Fill(header, record, true);
  if (header.Find(field::kDate) == nullptr && header.Find(field::kReceived) == nullptr) {
    record->sent_date = stream_time;
  }
  record->flags &= ~msgflag::kNeedsHeaderRefresh;
}

Result MessageImporter::Add(std::string_view text) {
  std::string stored = ToStoredForm(text);
  MessageRecord record = RecordFromMessage(stored);
  if (RawHeaderValue(stored, "Status").find('R') != std::string_view::npos) record.flags |= msgflag::kRead;
  bytes_ += stored.size();
  records_.push_back(std::move(record));
  texts_.push_back(std::move(stored));
  return bytes_ >= kImportBatchBytes || texts_.size() >= kImportBatchMessages ? Flush() : rc::kOk;
}

Result MessageImporter::Flush() {
  if (texts_.empty()) return rc::kOk;
  std::vector<NewMessage> batch;
  batch.reserve(texts_.size());
  for (size_t i = 0; i < texts_.size(); ++i) batch.push_back({records_[i], texts_[i]});
  const Result r = file_.AppendMany(batch, nullptr);
  if (r.ok()) stored_ += texts_.size();
  texts_.clear();
  records_.clear();
  bytes_ = 0;
  return r;
}

namespace {

void Tell(const ImportObserver& observer, ImportEvent event, const MboxMessage* entry) {
  if (observer) observer(event, entry);
}

Result AddOne(MessageImporter& importer, std::string_view text, const MboxMessage* entry,
              const ImportObserver& observer) {
  switch (HeaderStateOf(text)) {
    case HeaderState::kHeader:
      break;
    case HeaderState::kEmptyHeader:
      Tell(observer, ImportEvent::kEmptyHeader, entry);
      break;
    case HeaderState::kNoHeader:
      Tell(observer, ImportEvent::kNoHeader, entry);
      break;
  }
  if (Result r = importer.Add(text); r.failed()) return r;
  Tell(observer, ImportEvent::kStored, entry);
  return rc::kOk;
}

}  // namespace

Result ImportMailInput(LineSource& source, MessageImporter& importer, InputKind* kind,
                       const ImportObserver& observer) {
  *kind = InputKind::kNotMail;
  std::string_view head;
  if (Result r = source.Peek(kClassifyBytes, &head); r.failed()) return r;
  *kind = ClassifyInput(head);
  if (*kind == InputKind::kMessage) {
    std::string text;
    if (Result r = source.ReadRest(&text); r.failed()) return r;
    return AddOne(importer, text, nullptr, observer);
  }
  if (*kind != InputKind::kMbox) return rc::kOk;
  MboxReader reader(source);
  MboxMessage m;
  for (;;) {
    bool got = false;
    if (Result r = reader.Next(&m, &got); r.failed()) return r;
    if (!got) return rc::kOk;
    if (m.broken_envelope) Tell(observer, ImportEvent::kBrokenEnvelope, &m);
    if (m.text.empty()) {
      Tell(observer, ImportEvent::kEmptyEntry, &m);
      continue;
    }
    if (Result r = AddOne(importer, m.text, &m, observer); r.failed()) return r;
  }
}

}  // namespace trv
