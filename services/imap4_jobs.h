// What an IMAP4 folder run does with each message of the server's list:
// download it (whole, partially, or again whole), reconcile its seen state,
// copy it to the mailbox of the folder the user moved it to, mark it deleted
// on the server. A pure function of the list, the storage's local messages
// (by the folder record and UID they came from), the record of messages
// deleted here, and the account's limits.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "base/result.h"
#include "store/message_record.h"

namespace trv {

class MailFolder;
class Storage;
struct Imap4FolderSync;
class Imap4FolderTree;

// One message of UID FETCH "UID FLAGS RFC822.SIZE INTERNALDATE", complete
// (entries with a missing item are dropped before planning).
struct Imap4ServerMessage {
  uint32_t uid = 0;
  uint32_t flags = 0;         // kImap4Flag* bits: 8 seen, 4 deleted
  int32_t size = 0;           // RFC822.SIZE, clamped to INT32_MAX
  double internal_date = 0;   // date value (days since 30 Dec 1899, UTC)
};

// A local message that came from the server: where it is now.
struct Imap4LocalMessage {
  MailFolder* folder = nullptr;
  MessageRecord record;
};

// Every message of the storage that carries a UID, by (server_folder, UID),
// and the storage's record of messages deleted here that carried one. Built
// once per run (every folder's index loaded), kept current by the run as it
// adds, moves and deletes.
class Imap4LocalIndex {
 public:
  // Folders whose index cannot be read are left out (and named in
  // `unreadable`, may be null): their messages may be downloaded again,
  // never deleted for it.
  Result Build(Storage& storage, std::vector<MailFolder*>* unreadable);

  const Imap4LocalMessage* Find(uint32_t record_id, uint32_t uid) const;
  void Put(const Imap4LocalMessage& message);
  void Erase(uint32_t record_id, uint32_t uid);
  // Whether the user deleted that message here (and it may still be on
  // the server).
  bool Deleted(uint32_t record_id, uint32_t uid) const;
  // Drops the entry once the server no longer holds the message; written
  // back by SaveDeleted.
  void ForgetDeleted(uint32_t record_id, uint32_t uid);
  Result SaveDeleted();

 private:
  std::map<std::pair<uint32_t, uint32_t>, Imap4LocalMessage> messages_;
  std::map<std::pair<uint32_t, uint32_t>, MailFolder*> deleted_;  // the folder whose record holds it
  Storage* storage_ = nullptr;
};

struct Imap4DownloadJob {
  uint32_t uid = 0;
  int32_t size = 0;
  int32_t fetch_size = 0;
  int32_t body_limit = 0;   // INT32_MAX: whole (a re-download); else LoadBodySize
  uint32_t flags = 0;       // the server's flags
  Imap4FolderSync* target = nullptr;
  std::optional<Imap4LocalMessage> local_message;
  bool download = false;
  bool remove_from_server = false;
  bool copy_to_folder = false;   // to copy_target's mailbox, before the removal
  bool upload_seen = false;
  Imap4FolderSync* copy_target = nullptr;  // the record of the folder the message was moved to
  // A partial local copy completed with the bytes it lacks (held = its size).
  bool resume = false;
};

struct Imap4Limits {
  int32_t load_max_size = 2147483647;
  int32_t load_last_days = 2147483647;
  int32_t load_body_size = 2048;
};

struct Imap4PlanInput {
  Imap4FolderSync* record = nullptr;
  const Imap4FolderTree* tree = nullptr;  // to find the record of another folder
  bool download = false;
  bool new_only = false;
  uint32_t stored_uid_next = 0;
  Imap4Limits limits;
  double now = 0;
};

// A partially loaded message is loaded again (completed) only when the user
// asked for the rest (services/full_download.h).
bool NeedsReload(const MessageRecord& local);

// Seen state reconciled three ways (msgflag::kRead here, msgflag::kSyncedSeen
// for the state at the last synchronization, the server's flag): returns
// whether the local state must go to the server (upload_seen); otherwise
// updates *local_read and *stored_seen from the server when they differ.
bool ReconcileSeen(bool server_seen, bool* local_read, bool* stored_seen);

// The jobs in server order; `total_bytes` gets the sum of `size` over the
// jobs to download. Seen changes that come from the server (no job needed
// for them) are returned in `seen_updates` as local messages to rewrite.
Result PlanImap4Jobs(const std::vector<Imap4ServerMessage>& list, const Imap4PlanInput& input,
                     const Imap4LocalIndex& local, std::vector<Imap4DownloadJob>* jobs,
                     std::vector<Imap4LocalMessage>* seen_updates, int64_t* total_bytes);

}  // namespace trv
