// The address book: the addresses of stored mail, for completing the address
// fields of the compose window. It is read from the "From", "To" and "CC"
// strings of every folder's index records (never from message streams):
// one entry per address (compared without regard to case) with the display
// name seen most often, ranked by how often the address was seen, where an
// address written to from "Sent" or "Outbox" (or on a message marked sent)
// counts kSentWeight times.
//
// Built on first use and built again on the first use after a change: a
// folder added or removed, or a message appended or deleted in any folder
// (told by each folder file's next key and message count, so checking costs
// one look per folder). Folder indexes not yet read are read then. At most
// kMaxAddresses addresses are kept (the first met); names per address are
// bounded too.
//
// Threads: interface thread (it walks the storages' folder trees). The
// engine outlives the book.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "base/wide_string.h"

namespace trv {

class MailEngine;
class FolderFile;
struct MessageRecord;

struct BookEntry {
  WString name;  // the display name seen most often; may be empty
  WString address;
  uint32_t score = 0;  // times seen, sent-to counting kSentWeight
};

// Counting addresses into entries: the part of the book that knows no engine.
class AddressTally {
 public:
  static constexpr size_t kMaxAddresses = 20000;
  static constexpr size_t kMaxNamesPerAddress = 8;
  static constexpr uint32_t kSentWeight = 3;

  // Counts the addresses of a record's sender and recipient strings; `sent`:
  // a message we sent (its sender is ours and not counted, its recipients
  // count kSentWeight).
  void Add(const MessageRecord& record, bool sent);
  // Counts every address of an address list text `weight` times.
  void AddList(WStringView list, uint32_t weight);

  // The entries, best score first (then by address).
  std::vector<BookEntry> Entries() const;

 private:
  struct Counted {
    WString address;
    uint32_t score = 0;
    std::map<WString, uint32_t> names;
  };
  std::map<WString, Counted> by_key_;  // by lower-case address
};

class AddressBook {
 public:
  explicit AddressBook(MailEngine& engine) : engine_(engine) {}

  // Entries whose address, or any word of whose name or address, starts with
  // `prefix` (without regard to case), best first, at most `limit`. An empty
  // (or blank) prefix matches nothing. Rebuilds first when the mail changed.
  std::vector<BookEntry> Complete(WStringView prefix, size_t limit);
  // All entries, best first (rebuilt first when the mail changed).
  const std::vector<BookEntry>& entries();
  // How many times the book was built (a rebuild is what changes cost).
  uint64_t builds() const { return builds_; }

 private:
  struct FolderMark {
    const FolderFile* file;
    uint32_t next_key;
    uint32_t messages;
    friend bool operator==(const FolderMark&, const FolderMark&) = default;
  };
  std::vector<FolderMark> Marks() const;
  void Rebuild();

  MailEngine& engine_;
  bool built_ = false;
  uint64_t builds_ = 0;
  std::vector<FolderMark> marks_;
  std::vector<BookEntry> entries_;
};

}  // namespace trv
