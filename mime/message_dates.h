// The dates a message is shown and sorted by, from its header.
#pragma once

#include "base/date_value.h"
#include "mime/header.h"

namespace trv {

struct MessageDates {
  double sent = kNoDate;      // UTC date values (base/date_value.h)
  double received = kNoDate;
};

// sent: the "Date" field; when it is missing or unreadable, the date after the
// last ";" of the last "Received" field (the one nearest the body); else now.
// received: the date after the last ";" of the first "Received" field (the
// topmost); when missing or unreadable, now. A received date of 0 takes the
// sent date.
MessageDates GetMessageDates(const CXmHeader& header);

// The date part of a "Received" value: the text after its last ";" (all of
// it when there is no ";").
WStringView ReceivedDateText(WStringView received);

}  // namespace trv
