// A folder's listing as the list command prints it, made from the index
// records alone: listing a folder never opens a message stream.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "store/folder_file.h"
#include "store/message_record.h"

namespace trv::cli {

// [{"key","date","from","subject","size","read","partial"}] of a folder file
// whose index is loaded, on one line. "key" is "%.8X", "date" the sent date
// in ISO 8601 UTC ("2024-03-04T10:00:00Z") or null when the message has none.
// Handed to `write` a piece at a time, taking the records one by one, so
// that a folder of 100,000 messages is not held twice.
void WriteListingJson(const FolderFile& file, const std::function<void(std::string_view)>& write);

// One object of that array, appended to `*out`; with "folder" (the folder's
// path) first when `folder` is not empty.
void AppendRecordJson(const MessageRecord& r, std::string* out, std::string_view folder = {});

// An aligned table: KEY, DATE (local time), FROM, SUBJECT, SIZE, MARKS.
std::string ListingText(const std::vector<MessageRecord>& records);

// "2024-03-04T10:00:00Z"; empty for no date.
std::string IsoDateUtc(double date);

}  // namespace trv::cli
