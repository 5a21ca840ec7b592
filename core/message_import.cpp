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

}  // namespace trv
