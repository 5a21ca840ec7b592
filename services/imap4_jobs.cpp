#include "services/imap4_jobs.h"

#include <algorithm>
#include <cmath>

#include "net/imap4_records.h"
#include "services/full_download.h"
#include "services/imap4_folder_sync.h"
#include "store/storage.h"

namespace trv {
namespace {

constexpr int32_t kWhole = 2147483647;

// The record bound to `folder`, searched from `node` down; null when none.
Imap4FolderSync* RecordOf(const Imap4FolderSync& node, const MailFolder* folder) {
  for (const auto& child : node.children) {
    if (child->local_folder == folder && child->id != 0) return child.get();
    if (Imap4FolderSync* found = RecordOf(*child, folder)) return found;
  }
  return nullptr;
}

// Whether a message stored under `stored` counts under the mailbox's
// `current` validity (0 on either side: not known, taken as equal).
bool SameValidity(uint32_t stored, uint32_t current) { return stored == 0 || current == 0 || stored == current; }

}  // namespace

Imap4LocalIndex::Imap4LocalIndex() = default;
Imap4LocalIndex::~Imap4LocalIndex() = default;

Result Imap4LocalIndex::Build(Storage& storage, std::vector<MailFolder*>* unreadable) {
  return Build(storage, PosixFileSystem::Instance(), unreadable);
}

Result Imap4LocalIndex::Build(Storage& storage, FileSystem& fs, std::vector<MailFolder*>* unreadable) {
  messages_.clear();
  deleted_.clear();
  records_.clear();
  changed_.clear();
  storage_ = &storage;
  std::vector<MailFolder*> folders;
  storage.ForEachFolder([&](MailFolder& folder) { folders.push_back(&folder); });
  for (MailFolder* folder : folders) {
    FolderFile* file = folder->file();
    if (file == nullptr || file->LoadIndex().failed()) {
      if (unreadable != nullptr) unreadable->push_back(folder);
      continue;
    }
    for (MessageRecord& m : file->Messages()) {
      if (m.imap_uid == 0 || m.server_folder == 0) continue;
      Put(Imap4LocalMessage{folder, std::move(m)});
    }
    auto record = std::make_unique<DeletedUids>(fs, file->path(), kImap4DeletedSuffix);
    if (Result r = record->Load(); r.failed()) return r;
    for (const auto& [text, date] : record->entries()) {
      uint32_t id = 0, uid = 0, validity = 0;
      if (ParseImap4DeletedKey(text, &id, &uid, &validity)) deleted_[{id, uid}] = DeletedEntry{folder, validity};
    }
    records_[folder] = std::move(record);
  }
  return rc::kOk;
}

const Imap4LocalMessage* Imap4LocalIndex::Find(uint32_t record_id, uint32_t uid) const {
  const auto it = messages_.find({record_id, uid});
  return it == messages_.end() ? nullptr : &it->second.front();
}

const Imap4LocalMessage* Imap4LocalIndex::FindIn(uint32_t record_id, uint32_t uid, const MailFolder* folder) const {
  const auto it = messages_.find({record_id, uid});
  if (it == messages_.end()) return nullptr;
  for (const Imap4LocalMessage& m : it->second) {
    if (m.folder == folder) return &m;
  }
  return nullptr;
}

void Imap4LocalIndex::Put(const Imap4LocalMessage& message) {
  if (message.record.imap_uid == 0 || message.record.server_folder == 0) return;
  std::vector<Imap4LocalMessage>& copies = messages_[{message.record.server_folder, message.record.imap_uid}];
  for (Imap4LocalMessage& m : copies) {
    if (m.folder == message.folder) {
      m = message;
      return;
    }
  }
  copies.push_back(message);
}

void Imap4LocalIndex::Erase(uint32_t record_id, uint32_t uid) { messages_.erase({record_id, uid}); }

bool Imap4LocalIndex::Deleted(uint32_t record_id, uint32_t uid) const {
  return deleted_.count({record_id, uid}) != 0;
}

bool Imap4LocalIndex::Deleted(uint32_t record_id, uint32_t uid, uint32_t validity) const {
  const auto it = deleted_.find({record_id, uid});
  return it != deleted_.end() && SameValidity(it->second.validity, validity);
}

void Imap4LocalIndex::ForgetDeleted(uint32_t record_id, uint32_t uid) {
  const auto it = deleted_.find({record_id, uid});
  if (it == deleted_.end()) return;
  MailFolder* folder = it->second.folder;
  const auto record = records_.find(folder);
  if (record != records_.end() && record->second->Remove(Imap4DeletedKey(record_id, uid, it->second.validity))) {
    if (std::find(changed_.begin(), changed_.end(), folder) == changed_.end()) changed_.push_back(folder);
  }
  deleted_.erase(it);
}

Result Imap4LocalIndex::RecordDeleted(MailFolder* folder, uint32_t record_id, uint32_t uid, uint32_t validity) {
  const auto record = records_.find(folder);
  if (record == records_.end()) return rc::kInvalidArg;
  record->second->Add(Imap4DeletedKey(record_id, uid, validity), DateNow());
  deleted_[{record_id, uid}] = DeletedEntry{folder, validity};
  return record->second->Save();
}

size_t Imap4LocalIndex::ForgetDeletedOtherThan(uint32_t record_id, uint32_t validity) {
  std::vector<uint32_t> uids;
  for (auto it = deleted_.lower_bound({record_id, 0}); it != deleted_.end() && it->first.first == record_id; ++it) {
    if (it->second.validity != validity) uids.push_back(it->first.second);
  }
  for (const uint32_t uid : uids) ForgetDeleted(record_id, uid);
  return uids.size();
}

void Imap4LocalIndex::ForgetDeletedNotIn(uint32_t record_id, const std::set<uint32_t>& listed) {
  std::vector<uint32_t> uids;
  for (auto it = deleted_.lower_bound({record_id, 0}); it != deleted_.end() && it->first.first == record_id; ++it) {
    if (listed.count(it->first.second) == 0) uids.push_back(it->first.second);
  }
  for (const uint32_t uid : uids) ForgetDeleted(record_id, uid);
}

std::vector<Imap4LocalMessage> Imap4LocalIndex::MessagesOf(uint32_t record_id) const {
  std::vector<Imap4LocalMessage> out;
  for (auto it = messages_.lower_bound({record_id, 0}); it != messages_.end() && it->first.first == record_id; ++it) {
    out.insert(out.end(), it->second.begin(), it->second.end());
  }
  return out;
}

Result Imap4LocalIndex::SaveDeleted() {
  Result first = rc::kOk;
  for (MailFolder* folder : changed_) {
    const auto record = records_.find(folder);
    if (record == records_.end()) continue;
    if (Result r = record->second->Save(); r.failed() && first.ok()) first = r;
  }
  changed_.clear();
  return first;
}

bool NeedsReload(const MessageRecord& local) {
  return (local.flags & msgflag::kPartial) && (local.flags & msgflag::kFullDownloadRequested);
}

bool ReconcileSeen(bool server_seen, bool* local_read, bool* stored_seen) {
  if (*local_read != *stored_seen) return true;  // changed here since the last synchronization
  *local_read = *stored_seen = server_seen;
  return false;
}

Result PlanImap4Jobs(const std::vector<Imap4ServerMessage>& list, const Imap4PlanInput& input,
                     const Imap4LocalIndex& local, std::vector<Imap4DownloadJob>* jobs,
                     std::vector<Imap4LocalMessage>* seen_updates, int64_t* total_bytes) {
  jobs->clear();
  seen_updates->clear();
  *total_bytes = 0;
  if (input.record == nullptr) return rc::kInvalidArg;
  const Imap4FolderSync& record = *input.record;
  const uint32_t validity = input.uid_validity != 0 ? input.uid_validity : record.uid_valid;
  const Imap4Limits& limits = input.limits;
  for (const Imap4ServerMessage& m : list) {
    if (m.uid == 0 || (m.flags & kImap4FlagDeleted)) continue;
    Imap4DownloadJob job;
    job.uid = m.uid;
    job.size = m.size;
    job.flags = m.flags;
    job.target = input.record;
    // The copy in this folder, when there is one, over copies made elsewhere.
    const Imap4LocalMessage* here = local.FindIn(record.id, m.uid, record.local_folder);
    if (here == nullptr) here = local.Find(record.id, m.uid);
    if (here != nullptr && !SameValidity(here->record.imap_uid_validity, validity)) here = nullptr;
    if (here != nullptr) {
      job.local_message = *here;
      const uint32_t before = here->record.flags;
      bool read = before & msgflag::kRead;
      bool stored = before & msgflag::kSyncedSeen;
      job.upload_seen = ReconcileSeen(m.flags & kImap4FlagSeen, &read, &stored);
      const uint32_t after = (before & ~(msgflag::kRead | msgflag::kSyncedSeen)) | (read ? msgflag::kRead : 0) |
                             (stored ? msgflag::kSyncedSeen : 0);
      if (after != before) {
        Imap4LocalMessage update = *here;
        update.record.flags = after;
        seen_updates->push_back(std::move(update));
        job.local_message->record.flags = after;
      }
      if (here->folder == record.local_folder) {
        // A reload the user asked for is held to the size limit, not to the age.
        job.download = job.resume = NeedsReload(here->record) && m.size < limits.load_max_size;
      } else {
        job.remove_from_server = true;
        if (input.tree != nullptr) job.copy_target = RecordOf(input.tree->root(), here->folder);
        job.copy_to_folder = job.copy_target != nullptr && (job.copy_target->sync & imap4sync::kUpload);
        if (!job.copy_to_folder) job.copy_target = nullptr;
      }
    } else if (local.Deleted(record.id, m.uid, validity)) {
      job.remove_from_server = true;
    } else {
      const double age = input.now - std::floor(m.internal_date) - 1;
      job.download = input.download && m.size < limits.load_max_size &&
                     (!input.new_only || m.uid >= input.stored_uid_next) &&
                     !(age > static_cast<double>(limits.load_last_days));
    }
    if (!job.download && !job.remove_from_server && !job.upload_seen) continue;
    if (job.download) {
      job.body_limit = job.local_message ? kWhole : limits.load_body_size;
      job.fetch_size = job.body_limit > job.size ? job.size
                                                 : static_cast<int32_t>(std::min<int64_t>(
                                                       int64_t{job.body_limit} + 800, kWhole));
      *total_bytes += job.size;
    }
    jobs->push_back(std::move(job));
  }
  return rc::kOk;
}

}  // namespace trv
