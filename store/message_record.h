// One message's record in a folder file's "/Index": an 80-byte fixed part and
// seven length-prefixed wide strings, laid out in store/RECORD-LAYOUT.md. A
// record carries everything a folder listing shows, so listing a folder never
// opens a message stream.
#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

#include "base/wide_string.h"

namespace trv {

// Record flags (offset 4).
inline constexpr uint32_t kRecordReference = 0x1;     // a reference entry, no message stream
inline constexpr uint32_t kRecordDeleted = 0x8000;    // any value above 32767 means deleted
inline constexpr uint32_t kRecordDeletedAbove = 32767;

// Message flags (offset 8). Priority and unsent use the values of the
// composer's flag word (2 low, 4 high, 32 unsent).
namespace msgflag {
inline constexpr uint32_t kRead = 0x0001;
inline constexpr uint32_t kPriorityLow = 0x0002;
inline constexpr uint32_t kPriorityHigh = 0x0004;
inline constexpr uint32_t kPartial = 0x0008;          // only part of the message was downloaded
inline constexpr uint32_t kSent = 0x0010;
inline constexpr uint32_t kUnsent = 0x0020;           // composed, still to be sent (or a draft)
inline constexpr uint32_t kAnswered = 0x0040;
inline constexpr uint32_t kForwarded = 0x0080;
inline constexpr uint32_t kFlagged = 0x0100;
inline constexpr uint32_t kDeletedOnServer = 0x0200;  // marked deleted on the server, not expunged
inline constexpr uint32_t kHasAttachments = 0x0400;
inline constexpr uint32_t kDraft = 0x0800;
inline constexpr uint32_t kReadChanged = 0x1000;      // read state changed here, not yet uploaded
inline constexpr uint32_t kFullDownloadRequested = 0x2000;  // partial: the user asked for the rest
inline constexpr uint32_t kSyncedSeen = 0x4000;       // IMAP4: seen on the server at the last synchronization
inline constexpr uint32_t kNeedsHeaderRefresh = 0x8000;  // rebuilt by a repair from the stream alone
}  // namespace msgflag

inline constexpr uint32_t kRecordFixedSize = 80;
inline constexpr uint32_t kRecordStringCount = 7;
inline constexpr uint32_t kMinRecordSize = kRecordFixedSize + 4 * kRecordStringCount;  // 108
// Records read from a file larger than this are taken as damage.
inline constexpr uint32_t kMaxRecordSize = 1u << 20;
// Strings longer than this are cut when a record is written (a listing needs
// no more; a long recipient list stays complete in the message itself).
inline constexpr size_t kMaxRecordStringUnits = 16384;

struct MessageRecord {
  uint32_t key = 0;             // names the stream ("%.8X"); never 0 in a stored record
  uint32_t flags = 0;           // msgflag bits
  double sent_date = 0;         // the message's Date, days since 30 Dec 1899 UTC; 0 = none
  double received_date = 0;    // when it arrived here, same unit
  uint32_t size = 0;            // bytes of the stored message stream
  uint32_t server_size = 0;     // size on the server (more than `size` when partial); 0 = unknown
  uint32_t imap_uid = 0;        // IMAP4 UID; 0 = none
  uint32_t imap_uid_validity = 0;
  uint32_t server_folder = 0;   // which server folder record the UID belongs to
  std::array<uint8_t, 28> spare{};  // offsets 52..79, kept as read
  WString subject;              // string 1
  WString from;                 // string 2: sender list as in the header
  WString to;                   // string 3
  WString cc;                   // string 4
  WString message_id;           // string 5, without angle brackets
  WString server_uid;           // string 6: POP3 UIDL value

  bool is_read() const { return flags & msgflag::kRead; }

  friend bool operator==(const MessageRecord&, const MessageRecord&) = default;
};

// A reference entry (record flag bit 0): no message stream of its own; only
// the fixed part and strings 5 and 6 are kept.
struct ReferenceEntry {
  std::array<uint8_t, kRecordFixedSize> fixed{};
  WString string5;
  WString string6;

  uint32_t key() const;
  friend bool operator==(const ReferenceEntry&, const ReferenceEntry&) = default;
};

// The fields of the fixed part from offset 8 on, then strings 1 to 6, in
// their order on disk: the one place that order is written down.
template <typename Record, typename Visit>
void ForEachFixedField(Record& r, Visit&& visit) {
  visit(r.flags);
  visit(r.key);
  visit(r.sent_date);
  visit(r.received_date);
  visit(r.size);
  visit(r.server_size);
  visit(r.imap_uid);
  visit(r.imap_uid_validity);
  visit(r.server_folder);
  visit(r.spare);
}
template <typename Record, typename Visit>
void ForEachRecordString(Record& r, Visit&& visit) {
  for (auto* s : {&r.subject, &r.from, &r.to, &r.cc, &r.message_id, &r.server_uid}) visit(*s);
}

// The whole record: fixed part with the length at offset 0 and
// `record_flags` at offset 4, strings 1 to 6, an empty string 7.
std::string EncodeMessageRecord(const MessageRecord& record, uint32_t record_flags = 0);

// "%.8X" of a key: the name of its message stream.
WString MessageStreamName(uint32_t key);
// The key a stream name stands for: exactly 8 upper-case hexadecimal digits,
// not 0. False for anything else.
bool KeyFromStreamName(WStringView name, uint32_t* key);

// Dates as the records keep them.
inline double DateFromUnixSeconds(int64_t seconds) { return 25569.0 + static_cast<double>(seconds) / 86400.0; }
inline double DateNow() { return DateFromUnixSeconds(static_cast<int64_t>(std::time(nullptr))); }

}  // namespace trv
