#include "mime/message_dates.h"

#include "mime/rfc822_date.h"

namespace trv {

WStringView ReceivedDateText(WStringView received) {
  const size_t semi = received.rfind(u';');
  return semi == WStringView::npos ? received : received.substr(semi + 1);
}

namespace {
bool ReadReceived(const CXmHeader& header, const CXmHeaderField* f, double* value) {
  if (!f) return false;
  return ReadDate(ReceivedDateText(header.UnfoldedText(*f)), value);
}
}  // namespace

MessageDates GetMessageDates(const CXmHeader& header) {
  MessageDates d;
  const CXmHeaderField* date = header.Find(field::kDate);
  bool ok = date && ReadDate(header.UnfoldedText(*date), &d.sent);
  if (!ok) ok = ReadReceived(header, header.FindLast(field::kReceived), &d.sent);
  if (!ok) d.sent = CurrentDate();

  if (!ReadReceived(header, header.Find(field::kReceived), &d.received)) d.received = CurrentDate();
  if (d.received == kNoDate) d.received = d.sent;
  return d;
}

}  // namespace trv
