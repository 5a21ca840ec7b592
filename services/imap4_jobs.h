// What an IMAP4 folder run does with each message of the server's list:
// download it (whole, partially, or again whole), reconcile its seen state,
// copy it to the mailbox of the folder the user moved it to, mark it deleted
// on the server. A pure function of the list, the storage's local messages
// (by the folder record and UID they came from), the record of messages
// deleted here, and the account's limits.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "base/result.h"
#include "services/deleted_uids.h"
#include "store/message_record.h"

namespace trv {

class FileSystem;
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
//
// UIDVALIDITY: the index holds messages of any validity, keyed by (record,
// UID) alone; each entry keeps the validity it was stored with
// (record.imap_uid_validity, and the deletion record's third field). The
// planner counts a local message or a deletion as the server's message only
// when that validity equals the mailbox's current one (see
// Imap4PlanInput::uid_validity), so a UID of an earlier validity never
// stands for a message it no longer names. After a change,
// Imap4Run::RematchAfterUidValidityChange gives matched messages their new
// UIDs and drops the deletion entries of the old validity.
//
// The deletion record: per folder file, "<folder file>" +
// kImap4DeletedSuffix, written by DeleteReceivedMessages
// (services/deleted_uids.h) when the user deletes for good a message that
// carries a UID, read here, and written back by SaveDeleted.
class Imap4LocalIndex {
 public:
  Imap4LocalIndex();
  ~Imap4LocalIndex();

  // Folders whose index cannot be read are left out (and named in
  // `unreadable`, may be null): their messages may be downloaded again,
  // never deleted for it. A deletion record that cannot be read is an
  // error (a message deleted here would come back). The two-argument form
  // reads the deletion records through PosixFileSystem.
  Result Build(Storage& storage, FileSystem& fs, std::vector<MailFolder*>* unreadable);
  Result Build(Storage& storage, std::vector<MailFolder*>* unreadable);

  // A message copied here keeps its key, so a key may have several local
  // copies: Find gives one, FindIn the one in `folder` (null when none).
  const Imap4LocalMessage* Find(uint32_t record_id, uint32_t uid) const;
  const Imap4LocalMessage* FindIn(uint32_t record_id, uint32_t uid, const MailFolder* folder) const;
  // Adds the message, or replaces the copy of its key in its folder.
  void Put(const Imap4LocalMessage& message);
  // Forgets every copy of the key.
  void Erase(uint32_t record_id, uint32_t uid);
  // Whether the user deleted that message here (and it may still be on
  // the server).
  bool Deleted(uint32_t record_id, uint32_t uid) const;
  // The same, only for an entry made under that UIDVALIDITY.
  bool Deleted(uint32_t record_id, uint32_t uid, uint32_t validity) const;
  // Forgets every deletion entry of the record made under another
  // UIDVALIDITY; the count forgotten.
  size_t ForgetDeletedOtherThan(uint32_t record_id, uint32_t validity);
  // Forgets the record's deletion entries whose UID `listed` (the whole
  // list of the mailbox) does not hold: the server no longer has them.
  void ForgetDeletedNotIn(uint32_t record_id, const std::set<uint32_t>& listed);
  // Every local message of the record, whatever its validity.
  std::vector<Imap4LocalMessage> MessagesOf(uint32_t record_id) const;
  // Drops the entry once the server no longer holds the message; written
  // back by SaveDeleted.
  void ForgetDeleted(uint32_t record_id, uint32_t uid);
  // A deletion entry written durably to `folder`'s record at once (the
  // folder must have been indexed by Build: rc::kInvalidArg otherwise).
  Result RecordDeleted(MailFolder* folder, uint32_t record_id, uint32_t uid, uint32_t validity);
  // An entry held by no folder's record (never written back): a deletion
  // learnt elsewhere during the run.
  void AddDeleted(uint32_t record_id, uint32_t uid, uint32_t validity) {
    deleted_[{record_id, uid}] = DeletedEntry{nullptr, validity};
  }
  Result SaveDeleted();

 private:
  struct DeletedEntry {
    MailFolder* folder = nullptr;  // the folder whose record holds it
    uint32_t validity = 0;
  };
  std::map<std::pair<uint32_t, uint32_t>, std::vector<Imap4LocalMessage>> messages_;
  std::map<std::pair<uint32_t, uint32_t>, DeletedEntry> deleted_;
  std::map<MailFolder*, std::unique_ptr<DeletedUids>> records_;  // every folder's deletion record
  std::vector<MailFolder*> changed_;  // records to write back
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
  // The mailbox's UIDVALIDITY from SELECT; 0 takes record->uid_valid. Local
  // messages and deletion entries of another validity are not this
  // mailbox's (a 0 here and in the record accepts any).
  uint32_t uid_validity = 0;
};

// A partially loaded message is loaded again (completed) only when the user
// asked for the rest (services/full_download.h): the job is then `resume`,
// held to LoadMaxSize but not to LoadLastDays.
bool NeedsReload(const MessageRecord& local);

// Seen state reconciled three ways (msgflag::kRead here, msgflag::kSyncedSeen
// for the state at the last synchronization, the server's flag): returns
// whether the local state must go to the server (upload_seen); otherwise
// updates *local_read and *stored_seen from the server when they differ.
bool ReconcileSeen(bool server_seen, bool* local_read, bool* stored_seen);

// The jobs in server order; `total_bytes` gets the sum of `size` over the
// jobs to download. Seen changes that come from the server (no job needed
// for them) are returned in `seen_updates` as local messages to rewrite.
// A message counts as here when a copy of its key (under the mailbox's
// validity) is in the record's local folder; else a copy in another folder
// means the user moved it (remove_from_server, and copy_to_folder when that
// folder's record uploads); else a deletion entry means remove_from_server.
// Entries marked \Deleted on the server are skipped. rc::kInvalidArg
// without a record.
Result PlanImap4Jobs(const std::vector<Imap4ServerMessage>& list, const Imap4PlanInput& input,
                     const Imap4LocalIndex& local, std::vector<Imap4DownloadJob>* jobs,
                     std::vector<Imap4LocalMessage>* seen_updates, int64_t* total_bytes);

}  // namespace trv
