// A folder's listing as the list command prints it, made from the index
// records alone: listing a folder never opens a message stream.
#pragma once

#include <string>
#include <vector>

#include "store/message_record.h"

namespace trv::cli {

// [{"key","date","from","subject","size","read","partial"}], one line.
// "key" is "%.8X", "date" the sent date in ISO 8601 UTC
// ("2024-03-04T10:00:00Z") or null when the message has none.
std::string ListingJson(const std::vector<MessageRecord>& records);

// An aligned table: KEY, DATE (local time), FROM, SUBJECT, SIZE, MARKS.
std::string ListingText(const std::vector<MessageRecord>& records);

// "2024-03-04T10:00:00Z"; empty for no date.
std::string IsoDateUtc(double date);

}  // namespace trv::cli
