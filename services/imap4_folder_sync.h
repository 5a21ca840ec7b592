// The folder synchronization records of an IMAP4 account: one per server
// mailbox known to the service, in a tree that follows the server's
// hierarchy, each pairing the mailbox with a local folder of the service's
// storage and carrying the options by which it is synchronized.
//
// Persistence: one settings section per record, named
//   "Folder." + service GUID (as in "Service.{...}") + "." + the record's id
// in eight lower-case hexadecimal digits, with the keys in this order:
// Name, ServerName (only when it differs from Name), Sp, Local, Server (only
// when it differs from Local), Raw (only when it differs from Server), Sync,
// UIDNext, UIDValid, Attr. The tree is rebuilt from the server paths and
// separators when the sections are read. The settings file has signed 32-bit
// integers only: UIDNext and UIDValid are written as the int32 of the same
// bit pattern (4294967295 reads -1 in the file) and read back as uint32.
//
// The id is also what a local message keeps in its record's
// `server_folder` (with `imap_uid` and `imap_uid_validity`): it names the
// record a message's UID belongs to and never changes for the life of the
// record. Ids are unique within the service and never 0.
//
// Threads: the records belong to the service's run while one is under way
// and to the interface thread otherwise (the command line's folder-sync
// edits them between runs); Imap4Service holds the lock that keeps the two
// apart (Imap4Service::folders_mutex()).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/guid.h"
#include "base/result.h"
#include "base/wide_string.h"

namespace trv {

class MailFolder;
class Settings;
class Storage;
struct Imap4ListEntry;

// Options bits of Imap4FolderSync::sync.
namespace imap4sync {
inline constexpr uint32_t kUpload = 1;
inline constexpr uint32_t kDownloadNew = 2;  // with kDownload: only UIDs at or above uidNext
inline constexpr uint32_t kDownload = 4;
inline constexpr uint32_t kDeleteOnLocal = 8;
inline constexpr uint32_t kDeleteOnServer = 16;
// What a mailbox found by the folder-list refresh gets.
inline constexpr uint32_t kDefault = kDownload | kUpload | kDeleteOnLocal | kDeleteOnServer;
}  // namespace imap4sync

// Bits of Imap4FolderSync::attr above the kImap4Attr* bits of LIST: the
// special-use attributes, taken from the entry's attribute words.
namespace imap4attr {
inline constexpr uint32_t kSent = 0x10000;    // "\Sent"
inline constexpr uint32_t kDrafts = 0x20000;  // "\Drafts"
inline constexpr uint32_t kTrash = 0x40000;   // "\Trash"
}  // namespace imap4attr

// "Download, DownloadNew, Upload, DeleteOnLocal, DeleteOnServer, " for the
// set bits in that order (each name followed by ", "); "" for none.
std::string SyncOptionsText(uint32_t sync);

struct Imap4FolderSync {
  uint32_t id = 0;          // 0 only for the root placeholder
  WString name;             // display name
  WString server_name;      // the mailbox's own name on the server when it differs from name
  WString separator;        // hierarchy separator from LIST ("" for none)
  WString local;            // path of the paired local folder below the storage ("Inbox", "Work/2026")
  WString server;           // full server path (decoded) when it differs from local
  std::string raw;          // the server's encoded name when it differs from server
  uint32_t sync = 0;        // imap4sync bits; 0 = not synchronized
  uint32_t uid_next = 0;
  uint32_t uid_valid = 0;
  uint32_t attr = 0;        // kImap4Attr* bits from LIST
  MailFolder* local_folder = nullptr;  // bound local folder; null when not bound
  Imap4FolderSync* parent = nullptr;
  std::vector<std::unique_ptr<Imap4FolderSync>> children;

  bool is_root() const { return parent == nullptr; }
  // The decoded full server path (server, else local).
  const WString& ServerPath() const { return server.empty() ? local : server; }
  // The encoded name to send (raw, else the encoding of ServerPath()).
  std::string WireName() const;
};

class Imap4FolderTree {
 public:
  Imap4FolderTree();

  Imap4FolderSync& root() { return *root_; }
  const Imap4FolderSync& root() const { return *root_; }

  // Every record but the root, parents before children, in tree order.
  void ForEach(const std::function<void(Imap4FolderSync&)>& visit);
  Imap4FolderSync* FindById(uint32_t id);
  // By decoded server path, ASCII case ignored for "INBOX" only (as IMAP does).
  Imap4FolderSync* FindByServerPath(WStringView path);
  // By local path ("Inbox", "A/B"), ASCII case ignored.
  Imap4FolderSync* FindByLocal(WStringView local);

  // Replaces the tree with the sections "Folder.<service>.*". Sections
  // that do not parse are skipped (and logged by the caller if wanted).
  Result Load(Settings& settings, const Guid& service);
  // Writes one section per record and deletes the service's sections of
  // records no longer in the tree. Does not flush the settings file.
  Result Save(Settings& settings, const Guid& service) const;
  // Deletes every "Folder.<service>.*" section (the account is removed).
  static Result DeleteAll(Settings& settings, const Guid& service);

  // The folder-list refresh: entries of LIST under the root path and of
  // "INBOX*". A mailbox not yet known gets a record (options
  // imap4sync::kDefault, or 0 for \Noselect); attributes and separators of
  // known ones are updated. Records whose mailbox is no longer listed are
  // kept (their messages stay; a later run may find the mailbox again).
  // `added` (may be null) receives the new records.
  void Merge(const std::vector<Imap4ListEntry>& entries, WStringView root_path,
             std::vector<Imap4FolderSync*>* added);

  // Pairs every record with a local folder of `storage` (\Noselect ones
  // too: their folders hold their children's): the folder at `local` when
  // it exists and no other record holds it; for a new record INBOX goes to
  // "Inbox", and \Sent, \Drafts, \Trash (or the names "Sent", "Drafts",
  // "Trash", "Deleted", ...) to the special folders; other mailboxes get a
  // folder of their own path, created as needed (names the store refuses
  // are changed into ones it takes). Records whose folder cannot be found
  // or made stay unbound and are skipped by the run. Sets `local` (and
  // `server`, `name`, `server_name`) of the records it binds anew. Takes
  // the storage's tree mutex itself; call it without holding it. The first
  // error of a folder creation, after trying every record.
  Result Bind(Storage& storage);

 private:
  // Hangs the records under the root or their parents by server path, in
  // the order given (imap4_folder_sync.cpp).
  void Rebuild(std::vector<std::unique_ptr<Imap4FolderSync>> records);
  // Every record, in tree order, taken out of the tree.
  std::vector<std::unique_ptr<Imap4FolderSync>> TakeAll();
  uint32_t NextId();

  std::unique_ptr<Imap4FolderSync> root_;
};

}  // namespace trv
