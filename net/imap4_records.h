// Typed results of IMAP4 responses, as the synchronization consumes them:
// mailbox list entries, STATUS items, per-message FETCH data, the selected
// mailbox's data, response codes and the record of one command. The parser
// (net/imap4_parser.h) fills them; CImap4Client hands them out.
//
// Numbers are 32-bit unsigned as on the wire; a number that does not fit
// makes its response malformed. std::nullopt means "not in the response".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/wide_string.h"

namespace trv {

// Capability bits (each word compared without regard to case). Every word
// is also kept as received: Imap4Capabilities::Has.
inline constexpr uint32_t kImap4CapRev1 = 1;           // "IMAP4rev1"
inline constexpr uint32_t kImap4CapLoginDisabled = 2;  // "LOGINDISABLED"
inline constexpr uint32_t kImap4CapAuthLogin = 4;      // "AUTH=LOGIN"
inline constexpr uint32_t kImap4CapStartTls = 8;       // "STARTTLS"
inline constexpr uint32_t kImap4CapUidPlus = 16;       // "UIDPLUS"

// Message flag bits, in the order a flag list is written. \Recent is read
// but never sent.
inline constexpr uint32_t kImap4FlagAnswered = 1;  // "\Answered"
inline constexpr uint32_t kImap4FlagFlagged = 2;   // "\Flagged"
inline constexpr uint32_t kImap4FlagDeleted = 4;   // "\Deleted"
inline constexpr uint32_t kImap4FlagSeen = 8;      // "\Seen"
inline constexpr uint32_t kImap4FlagDraft = 16;    // "\Draft"
inline constexpr uint32_t kImap4FlagAny = 32;      // "\*" (PERMANENTFLAGS: new keywords allowed)
inline constexpr uint32_t kImap4FlagRecent = 64;   // "\Recent"

// LIST and LSUB attribute bits.
inline constexpr uint32_t kImap4AttrNoSelect = 1;       // "\NoSelect"
inline constexpr uint32_t kImap4AttrNoInferiors = 2;    // "\NoInferiors"
inline constexpr uint32_t kImap4AttrMarked = 4;         // "\Marked"
inline constexpr uint32_t kImap4AttrUnMarked = 8;       // "\UnMarked"
inline constexpr uint32_t kImap4AttrHasChildren = 16;   // "\HasChildren"
inline constexpr uint32_t kImap4AttrHasNoChildren = 32; // "\HasNoChildren"

// STATUS item bits, in the order the items are sent.
inline constexpr uint32_t kImap4StatusMessages = 1;
inline constexpr uint32_t kImap4StatusUnseen = 2;
inline constexpr uint32_t kImap4StatusRecent = 4;
inline constexpr uint32_t kImap4StatusUidNext = 8;
inline constexpr uint32_t kImap4StatusUidValidity = 16;

// Response code bits (Imap4CommandResult::codes), for the codes that carry
// no data of their own or whose presence matters.
inline constexpr uint32_t kImap4CodeTryCreate = 1;
inline constexpr uint32_t kImap4CodeBadCharset = 2;
inline constexpr uint32_t kImap4CodeParse = 4;
inline constexpr uint32_t kImap4CodeAlert = 8;
inline constexpr uint32_t kImap4CodeReadOnly = 16;
inline constexpr uint32_t kImap4CodeReadWrite = 32;
inline constexpr uint32_t kImap4CodeCopyUid = 64;
inline constexpr uint32_t kImap4CodeAppendUid = 128;

// The capability words as received, and the bits above.
struct Imap4Capabilities {
  bool known = false;  // false until a CAPABILITY response (or code) was read
  uint32_t bits = 0;
  std::vector<std::string> words;
  // Whether the word ("IDLE", "MOVE", "LITERAL+") was announced, any case.
  bool Has(std::string_view word) const;
};

// One LIST or LSUB entry.
struct Imap4ListEntry {
  uint32_t attributes = 0;               // kImap4Attr* bits
  std::vector<std::string> attribute_words;  // every attribute as received, known ones too
  std::string separator;                 // "" when the server says NIL (a flat namespace)
  std::string raw;                       // the mailbox name as on the wire (modified UTF-7)
  WString name;                          // decoded; U+FFFD where raw does not decode
  bool name_valid = true;                // false: raw is not valid modified UTF-7 (e.g. 8-bit bytes)
};

// One STATUS response.
struct Imap4StatusData {
  std::string raw;
  WString name;
  std::optional<uint32_t> messages, recent, uid_next, uid_validity, unseen;
};

// One body section of a FETCH response: BODY[...] (and BODY.PEEK answers),
// BINARY-free. RFC822 is given as section "", RFC822.HEADER as "HEADER" and
// RFC822.TEXT as "TEXT".
struct Imap4Section {
  std::string item;      // the item as received, e.g. "BODY[HEADER]<0>" or "RFC822.HEADER"
  std::string name;      // between the brackets, upper-cased: "", "HEADER", "HEADER.FIELDS (MESSAGE-ID)", "1.TEXT"
  std::optional<uint32_t> origin;  // <N> of a partial answer
  uint64_t size = 0;     // bytes of the value (the literal's announced size, or the quoted string's)
  bool nil = false;      // the server sent NIL
  bool streamed = false; // the literal hook took the bytes; `bytes` is empty
  std::string bytes;     // the value, unless streamed
};

// The data of one "* n FETCH (...)" response.
struct Imap4FetchData {
  uint32_t number = 0;  // message sequence number, from 1
  std::optional<uint32_t> uid;
  std::optional<uint32_t> flags;       // kImap4Flag* bits; keywords below
  std::vector<std::string> keywords;   // flags that are not among the bits, as received
  std::optional<uint64_t> size;        // RFC822.SIZE
  std::string internal_date;           // as received, "" when absent
  double internal_date_value = 0.0;    // UTC date value (base/date_value.h), 0 when absent or unreadable
  std::vector<Imap4Section> sections;
  // The first section whose name equals `name` (case-insensitive), or null.
  const Imap4Section* Section(std::string_view name) const;
};

// A UID set of COPYUID or APPENDUID, kept as ranges (a set such as
// "1:4294967295" is never expanded).
struct Imap4UidRange {
  uint32_t first = 0;
  uint32_t last = 0;  // >= first
};
struct Imap4UidSet {
  std::vector<Imap4UidRange> ranges;
  // The n-th UID of the set in order (from 0), or 0 when the set is shorter.
  uint32_t At(uint64_t n) const;
  uint64_t Count() const;
};

// COPYUID (source and destination) or APPENDUID (destination only).
struct Imap4UidPlusData {
  uint32_t uid_validity = 0;
  Imap4UidSet source;       // COPYUID only
  Imap4UidSet destination;
};

// What is known of the selected mailbox; reset by SELECT, EXAMINE and
// CLOSE, so no data of one mailbox shows in another's.
struct Imap4MailboxData {
  std::string raw;  // the selected mailbox as sent; "" when none
  WString name;
  std::optional<uint32_t> exists, recent, uid_validity, uid_next, unseen;
  std::optional<uint32_t> flags;             // FLAGS bits
  std::vector<std::string> flag_keywords;    // FLAGS words that are not bits
  std::optional<uint32_t> permanent_flags;   // PERMANENTFLAGS bits (kImap4FlagAny for "\*")
  std::vector<std::string> permanent_keywords;
  std::optional<bool> read_only;             // READ-ONLY / READ-WRITE of the tagged answer
};

// Tagged or untagged status of a response line.
enum class Imap4Status { kNone, kOk, kNo, kBad, kBye, kPreauth };

// Everything one command brought back. Untagged data read while the command
// was the oldest outstanding one is filed under it (servers answer in order;
// IMAP4 does not say which command untagged data belongs to).
struct Imap4CommandResult {
  std::string tag;
  Imap4Status status = Imap4Status::kNone;  // of the tagged answer
  std::string text;             // the tagged line as received
  uint32_t codes = 0;           // kImap4Code* bits seen in this command's status lines
  std::vector<std::string> alerts;  // the text of each ALERT
  std::optional<Imap4UidPlusData> copy_uid;    // COPYUID
  std::optional<Imap4UidPlusData> append_uid;  // APPENDUID
  std::vector<Imap4ListEntry> list;      // LIST and LSUB entries
  std::vector<Imap4StatusData> status_items;
  std::vector<Imap4FetchData> fetch;     // only when no FETCH listener is set
  std::vector<uint32_t> search;          // SEARCH numbers
  std::vector<uint32_t> expunged;        // EXPUNGE numbers, in order
  bool malformed = false;                // some untagged response did not parse
};

}  // namespace trv
