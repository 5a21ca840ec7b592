// The record of messages the user deleted here from a POP3 inbox while the
// server may still hold them: their UIDs and the dates of the deletions, so
// that a run never downloads them again and deletes them on the server by
// the account's rules. Kept next to the inbox's folder file, as
// "<folder file>.deleted": one line per entry, "<date> <uid>" (the date in
// record units, days since 30 Dec 1899), written whole and durably (0600)
// on every change.
//
// IMAP4 keeps a record of the same form next to the folder file the message
// was deleted from, "<folder file>" + kImap4DeletedSuffix, one entry per
// message, keyed "<record id>:<UID>:<UIDVALIDITY>" (Imap4DeletedKey): the
// folder record the UID belongs to (services/imap4_folder_sync.h) and the
// validity it was given under. The IMAP4 run reads every folder's record
// (services/imap4_jobs.h) and forgets an entry once the server no longer
// holds the message.
//
// How a deletion gets here: an explicit call, DeleteReceivedMessages, which
// whoever deletes for good messages of a storage that receives (POP3 or
// IMAP4) uses instead of FolderFile's Delete (the command line's rm does,
// from any folder: a message moved out of the inbox keeps its UID). A
// message that is only moved, into "Deleted" or elsewhere, needs no entry:
// the run finds it in the storage's folders. The record is written before
// the messages are deleted, so a crash in between leaves a local copy that is
// also recorded (it is not downloaded again, and goes on the server by the
// rules), never a message that the next run downloads again.
//
// Threads: an object belongs to one thread. The run reads the file at its
// start and writes it after its deletes; a deletion by the interface during
// a run may be overwritten by the run's write (the entry is then missing
// and that message is downloaded again: nothing is lost).
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/file_system.h"
#include "base/result.h"

namespace trv {

class FolderFile;

inline constexpr const char* kImap4DeletedSuffix = ".imap4-deleted";

// "<record id>:<uid>:<validity>" in decimal; Parse gives false for text
// that is not of that form.
std::string Imap4DeletedKey(uint32_t record_id, uint32_t uid, uint32_t validity);
bool ParseImap4DeletedKey(std::string_view key, uint32_t* record_id, uint32_t* uid, uint32_t* validity);

class DeletedUids {
 public:
  // The POP3 record (".deleted") or, with kImap4DeletedSuffix, IMAP4's.
  DeletedUids(FileSystem& fs, std::filesystem::path folder_file, const char* suffix = ".deleted")
      : fs_(fs), path_(std::move(folder_file) += suffix) {}

  // Reads the file; a missing file is an empty record. Lines that do not
  // parse are skipped.
  Result Load();
  // Writes the record durably; an empty record removes the file.
  Result Save();

  // The deletion date of `uid`, or nullptr.
  const double* Find(std::string_view uid) const;
  void Add(std::string_view uid, double date) { entries_[std::string(uid)] = date; }
  bool Remove(std::string_view uid);
  size_t size() const { return entries_.size(); }
  const std::map<std::string, double, std::less<>>& entries() const { return entries_; }
  const std::filesystem::path& path() const { return path_; }

 private:
  FileSystem& fs_;
  std::filesystem::path path_;
  std::map<std::string, double, std::less<>> entries_;
};

// Deletes messages of `folder` (the inbox or another folder of its storage)
// for good: records the POP3 UIDs of those that have one with the inbox,
// and the IMAP4 keys of those that carry an IMAP4 UID with `folder`
// (durably, first; nothing is written when none has), then
// FolderFile::Delete. Codes: rc::kInvalidArg for an unknown key (nothing
// recorded or deleted), the record's write failure (nothing deleted), or
// Delete's.
Result DeleteReceivedMessages(FileSystem& fs, FolderFile& inbox, FolderFile& folder,
                              const std::vector<uint32_t>& keys);
inline Result DeleteReceivedMessages(FileSystem& fs, FolderFile& inbox, const std::vector<uint32_t>& keys) {
  return DeleteReceivedMessages(fs, inbox, inbox, keys);
}

}  // namespace trv
