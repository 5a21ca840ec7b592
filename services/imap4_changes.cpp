// The changes a folder run makes on the server: seen state uploaded, moved
// messages copied to their new folder's mailbox, messages removed from the
// server, and the EXPUNGE that ends them.
#include <algorithm>
#include <tuple>

#include "services/imap4_run.h"
#include "services/sync_events.h"
#include "store/mail_folder.h"

namespace trv {
namespace {

constexpr uint32_t kSeenFlags = msgflag::kRead | msgflag::kSyncedSeen;

}  // namespace

Result Imap4Run::WriteSeenUpdates() {
  for (const Imap4LocalMessage& update : seen_updates_) {
    if (Stopped()) break;
    FolderFile* file = update.folder != nullptr ? update.folder->file() : nullptr;
    if (file == nullptr) continue;
    const uint32_t set = update.record.flags & kSeenFlags;
    if (Result r = file->SetFlags(update.record.key, set, kSeenFlags & ~set); r.failed()) {
      // Deleted here meanwhile: its state comes again with the next run.
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
  uint32_t uid = 0, validity = 0;
  auto& earlier = earlier_copies_[target.id];
  if (const auto found = earlier.find(ToLowerAscii(WideToUtf8(TrimView(m.record.message_id))));
      !m.record.message_id.empty() && found != earlier.end()) {
    std::tie(uid, validity) = found->second;
    earlier.erase(found);
    Log("Message " + std::to_string(job.uid) + " is already in " + WideToUtf8(target.ServerPath()) + " as UID " +
        std::to_string(uid));
  } else if (Result r = client_.Copy(job.uid, job.uid, target.ServerPath(), true); r.failed()) {
    return r;
  } else if (const auto& copied = client_.result().copy_uid; copied && copied->destination.Count() == 1) {
    uid = copied->destination.At(0);
    validity = copied->uid_validity;
  } else if (!m.record.message_id.empty()) {
    const Result found = FindUidByMessageId(target, m.record.message_id, &uid);
    validity = client_.mailbox().uid_validity.value_or(target.uid_valid);
    // The lookup selected the target: back to the folder under work.
    if (Result r = client_.Select(record.ServerPath()); r.failed()) return r;
    if (found.failed() && found != rc::kImap4No) return found;  // a refusal leaves the UID unknown
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

Result Imap4Run::FindEarlierCopies(Imap4FolderSync& record, const std::vector<Imap4DownloadJob>& jobs) {
  earlier_copies_.clear();
  std::map<uint32_t, Imap4FolderSync*> targets;
  for (const Imap4DownloadJob& job : jobs) {
    if (job.copy_to_folder && job.copy_target != nullptr) targets[job.copy_target->id] = job.copy_target;
  }
  if (targets.empty()) return rc::kOk;
  for (const auto& [id, target] : targets) {
    if (Result r = client_.Select(target->ServerPath()); r == rc::kImap4No) {
      continue;  // the copy will be refused as well
    } else if (r.failed()) {
      return r;
    }
    const uint32_t validity = client_.mailbox().uid_validity.value_or(target->uid_valid);
    std::vector<Imap4IdEntry> entries;
    if (client_.mailbox().exists.value_or(0) > 0) {
      if (Result r = FetchMessageIds(target->uid_next, &entries); r.failed()) return r;
    }
    auto& ids = earlier_copies_[id];
    for (const Imap4IdEntry& e : entries) {
      const Imap4LocalMessage* held = local_.Find(id, e.uid);
      if (!e.message_id.empty() && (held == nullptr || held->record.imap_uid_validity != validity)) {
        ids.emplace(e.message_id, std::make_pair(e.uid, validity));
      }
    }
  }
  return client_.Select(record.ServerPath());
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
    r = client_.UidExpunge(uid, uid);
    if (r == rc::kImap4No) {
      Fail(r);  // a warning: the EXPUNGE at the end takes it
      ++expunge_count_;
    } else if (r.failed()) {
      return r;
    }
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
  // A copy whose new key a killed run did not store is found, not made twice.
  if (r.ok() && !Stopped()) r = FindEarlierCopies(record, jobs);
  for (Imap4DownloadJob& job : jobs) {
    if (r.failed() || Stopped()) break;
    // Seen state first, so that a copy carries it.
    if (job.upload_seen && job.local_message) r = UploadSeen(job);
    if (r.ok() && job.copy_to_folder && job.copy_target != nullptr && job.local_message) {
      r = CopyToFolder(record, job);
      if (r == rc::kImap4No) {
        // The copy was refused (the mailbox went, say): the message stays
        // on the server, to be copied by a later run.
        Fail(r);
        r = rc::kOk;
        continue;
      }
    }
    if (r.ok() && job.remove_from_server) r = RemoveFromServer(record, job.uid, ++removed, removals);
  }
  if (r.ok() && !Stopped() && expunge_count_ > 0 && (record.sync & imap4sync::kDeleteOnServer)) {
    r = client_.Expunge();
    if (r.ok()) expunge_count_ = 0;
  }
  if (r.ok() && list_fetched_) {
    // Entries of messages the server no longer holds (expunged elsewhere,
    // or removed while their local copy lay unpaired) are done too. The
    // list leaves out messages marked deleted: those are done as well.
    std::set<uint32_t> listed;
    for (const Imap4ServerMessage& m : list_) listed.insert(m.uid);
    local_.ForgetDeletedNotIn(record.id, listed);
  }
  if (Result saved = local_.SaveDeleted(); saved.failed() && r.ok()) r = saved;
  return r;
}

}  // namespace trv
