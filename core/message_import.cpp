#include "core/message_import.h"

#include "mime/header.h"
#include "mime/message_dates.h"

namespace trv {

namespace {

// The identifier between the first "<" and the ">" after it; the trimmed text
// when there are no brackets.
WString MessageIdText(const CXmHeader& header) {
  const CXmHeaderField* f = header.Find(field::kMessageId);
  if (f == nullptr) return {};
  const WString text = header.UnfoldedText(*f);
  const size_t open = text.find(u'<');
  if (open == WString::npos) return WString(TrimView(WStringView(text)));
  const size_t close = text.find(u'>', open + 1);
  return WString(TrimView(WStringView(text).substr(open + 1, close == WString::npos ? WString::npos : close - open - 1)));
}

// 1 to 5 from the first digit of "X-Priority"; 3 when there is none.
int PriorityOf(const CXmHeader& header) {
  const CXmHeaderField* f = header.Find(u"X-Priority");
  if (f == nullptr) return 3;
  for (char16_t c : header.UnfoldedText(*f)) {
    if (c >= u'0' && c <= u'9') return c - u'0';
  }
  return 3;
}

void ParseHead(std::string_view text, CXmHeader* header) {
  // Undeclared 8-bit header text is read as UTF-8 where it is valid and as
  // Latin-1 elsewhere ("us-ascii" decoding never fails).
  header->Parse(text, "us-ascii").Ignore();  // a damaged field still gives what it can
}

void Fill(const CXmHeader& header, MessageRecord* record, bool keep_received) {
  record->subject = header.DisplayText(field::kSubject);
  record->from = AddressListText(header, field::kFrom);
  record->to = AddressListText(header, field::kTo);
  record->cc = AddressListText(header, field::kCc);
  record->message_id = MessageIdText(header);

  const MessageDates dates = GetMessageDates(header);
  record->sent_date = dates.sent;
  if (!keep_received || header.Find(field::kReceived) != nullptr) record->received_date = dates.received;

  record->flags &= ~(msgflag::kPriorityHigh | msgflag::kPriorityLow | msgflag::kUnsent);
  const int priority = PriorityOf(header);
  if (priority < 3) record->flags |= msgflag::kPriorityHigh;
  if (priority > 3) record->flags |= msgflag::kPriorityLow;
  if (TrimView(WStringView(header.GetValue(u"X-Unsent"))) == u"1") record->flags |= msgflag::kUnsent;
}

}  // namespace

WString AddressListText(const CXmHeader& header, WStringView name) {
  WString text;
  for (const MailAddress& a : header.Addresses(name)) {
    if (a.name.empty() && a.address.empty()) continue;
    if (!text.empty()) text += u", ";
    text += FormatAddress(a);
  }
  return text;
}

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
