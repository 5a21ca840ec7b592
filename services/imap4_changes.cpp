// The changes a folder run makes on the server: seen state uploaded, moved
// messages copied to their new folder's mailbox, messages removed from the
// server, and the EXPUNGE that ends them.
#include <algorithm>

#include "services/imap4_run.h"
#include "services/sync_events.h"
#include "store/mail_folder.h"

namespace trv {
namespace {

constexpr uint32_t kSeenFlags = msgflag::kRead | msgflag::kSyncedSeen;

}  // namespace

Result Imap4Run::WriteSeenUpdates() {
  for (Imap4LocalMessage& update : seen_updates_) {
    if (Stopped()) break;
    FolderFile* file = update.folder != nullptr ? update.folder->file() : nullptr;
    if (file == nullptr) continue;
    const uint32_t set = update.record.flags & kSeenFlags;
    if (Result r = file->SetFlags(update.record.key, set, kSeenFlags & ~set); r.failed()) {
      // The message may have been deleted here meanwhile: its state comes again next run.
      if (r != rc::kInvalidArg) return r;
      continue;
    }
    local_.Put(update);
  }
  seen_updates_.clear();
  return rc::kOk;
}

Result Imap4Run::UploadSeen(Imap4DownloadJob& job) {
  Imap4LocalMessage& m = *job.local_message;
  const bool read = m.record.flags & msgflag::kRead;
  Result r = client_.Store(job.uid, job.uid, read ? 1 : 2, kImap4FlagSeen, true, true);
  if (r == rc::kImap4No) {
    Fail(r);  // a warning: the message went meanwhile
    return rc::kOk;
  }
  if (r.failed()) return r;
  FolderFile* file = m.folder != nullptr ? m.folder->file() : nullptr;
  if (file == nullptr) return rc::kOk;
  r = file->SetFlags(m.record.key, read ? msgflag::kSyncedSeen : 0, read ? 0 : msgflag::kSyncedSeen);
  if (r.failed() && r != rc::kInvalidArg) return r;
  m.record.flags = (m.record.flags & ~msgflag::kSyncedSeen) | (read ? msgflag::kSyncedSeen : 0);
  local_.Put(m);
  return rc::kOk;
}

Result Imap4Run::CopyToFolder(Imap4FolderSync& record, Imap4DownloadJob& job) {
  Imap4FolderSync& target = *job.copy_target;
  Imap4LocalMessage& m = *job.local_message;
  if (Result r = client_.Copy(job.uid, job.uid, target.ServerPath(), true); r.failed()) return r;
  uint32_t uid = 0, validity = 0;
  if (const auto& copied = client_.result().copy_uid; copied && copied->destination.Count() == 1) {
    uid = copied->destination.At(0);
    validity = copied->uid_validity;
  } else if (!m.record.message_id.empty()) {
    if (Result r = FindUidByMessageId(target, m.record.message_id, &uid); r.failed()) return r;
    validity = client_.mailbox().uid_validity.value_or(target.uid_valid);
    // The lookup selected the target: back to the folder under work.
    if (Result r = client_.Select(record.ServerPath()); r.failed()) return r;
  }
  if (uid == 0) {
    Log("Copied message " + std::to_string(job.uid) + " to " + WideToUtf8(target.ServerPath()) +
        ": its UID there is unknown, the folder's next run may download it again");
    return rc::kOk;
  }
  FolderFile* file = m.folder != nullptr ? m.folder->file() : nullptr;
  if (file == nullptr) return rc::kOk;
  local_.Erase(m.record.server_folder, m.record.imap_uid);
  m.record.imap_uid = uid;
  m.record.imap_uid_validity = validity;
  m.record.server_folder = target.id;
  if (Result r = file->UpdateRecord(m.record); r.failed() && r != rc::kInvalidArg) return r;
  local_.Put(m);
  return rc::kOk;
}

Result Imap4Run::RemoveFromServer(Imap4FolderSync& record, uint32_t uid, size_t index, size_t count) {
  service_.Report(kEventDeletingOnServer, {static_cast<int64_t>(index), static_cast<int64_t>(count)});
  Result r = client_.Store(uid, uid, 1, kImap4FlagDeleted, true, true);
  if (r == rc::kImap4No) {
    Fail(r);  // a warning: nothing left to remove
    local_.ForgetDeleted(record.id, uid);
    return rc::kOk;
  }
  if (r.failed()) return r;
  if ((record.sync & imap4sync::kDeleteOnServer) && (client_.capabilities() & kImap4CapUidPlus)) {
    if (r = client_.UidExpunge(uid, uid); r.failed()) return r;
  } else {
    ++expunge_count_;
  }
  local_.ForgetDeleted(record.id, uid);
  return rc::kOk;
}

Result Imap4Run::ApplyServerChanges(Imap4FolderSync& record, std::vector<Imap4DownloadJob>& jobs) {
  Result r = WriteSeenUpdates();
  const size_t removals = static_cast<size_t>(
      std::count_if(jobs.begin(), jobs.end(), [](const Imap4DownloadJob& j) { return j.remove_from_server; }));
  size_t removed = 0;
  for (Imap4DownloadJob& job : jobs) {
    if (r.failed() || Stopped()) break;
    // Seen state first, so that a copy carries it.
    if (job.upload_seen && job.local_message) r = UploadSeen(job);
    if (r.ok() && job.copy_to_folder && job.copy_target != nullptr && job.local_message) {
      r = CopyToFolder(record, job);
    }
    if (r.ok() && job.remove_from_server) r = RemoveFromServer(record, job.uid, ++removed, removals);
  }
  if (r.ok() && !Stopped() && expunge_count_ > 0 && (record.sync & imap4sync::kDeleteOnServer)) {
    r = client_.Expunge();
    if (r.ok()) expunge_count_ = 0;
  }
  if (Result saved = local_.SaveDeleted(); saved.failed() && r.ok()) r = saved;
  return r;
}

}  // namespace trv
