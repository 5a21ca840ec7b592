// Uploads by APPEND, the local deletion of messages gone from the server,
// the Message-ID lookup, and the re-matching of local copies after the
// server's UIDVALIDITY changed.
#include <algorithm>
#include <map>
#include <set>

#include "mime/stream.h"
#include "services/imap4_run.h"
#include "services/sync_events.h"
#include "store/mail_folder.h"

namespace trv {
namespace {

// The Message-ID of a header block (continuation lines joined), without its
// angle brackets, lower-cased: Message-IDs are compared without regard to
// case. Empty when there is none.
std::string MessageIdOf(std::string_view head) {
  constexpr std::string_view kName = "message-id:";
  for (size_t pos = 0; pos < head.size();) {
    size_t end = head.find('\n', pos);
    if (end == std::string_view::npos) end = head.size();
    if (end - pos >= kName.size() && EqualsNoCase(head.substr(pos, kName.size()), kName)) {
      std::string value(head.substr(pos + kName.size(), end - pos - kName.size()));
      while (end + 1 < head.size() && (head[end + 1] == ' ' || head[end + 1] == '\t')) {
        const size_t next = head.find('\n', end + 1);
        const size_t stop = next == std::string_view::npos ? head.size() : next;
        value.append(head.substr(end + 1, stop - end - 1));
        end = stop;
      }
      std::string_view id = TrimView(value);
      const size_t open = id.find('<');
      const size_t close = id.find('>', open == std::string_view::npos ? 0 : open);
      if (open != std::string_view::npos && close != std::string_view::npos) id = id.substr(open + 1, close - open - 1);
      return ToLowerAscii(TrimView(id));
    }
    pos = end + 1;
  }
  return {};
}

std::string WantedId(WStringView message_id) {
  std::string id = WideToUtf8(TrimView(message_id));
  if (id.size() >= 2 && id.front() == '<' && id.back() == '>') id = id.substr(1, id.size() - 2);
  return ToLowerAscii(id);
}

// The IMAP4 flags an upload carries for a local message's flags.
uint32_t UploadFlags(uint32_t flags) {
  return (flags & msgflag::kRead ? kImap4FlagSeen : 0) | (flags & msgflag::kAnswered ? kImap4FlagAnswered : 0) |
         (flags & msgflag::kFlagged ? kImap4FlagFlagged : 0) | (flags & msgflag::kDraft ? kImap4FlagDraft : 0);
}

// BODY.PEEK rather than BODY: looking for a message must not mark the
// messages it reads as seen.
constexpr std::string_view kIdItems = "UID RFC822.SIZE BODY.PEEK[HEADER.FIELDS (MESSAGE-ID)]";

}  // namespace

Result Imap4Run::FetchMessageIds(uint32_t first_uid, std::vector<Imap4IdEntry>* entries) {
  entries->clear();
  Result r = client_.Fetch(first_uid == 0 ? 1 : first_uid, CImap4Client::kAll, kIdItems, true);
  if (r == rc::kImap4No) return rc::kOk;  // no message in that range
  if (r.failed()) return r;
  for (const Imap4FetchData& data : client_.result().fetch) {
    // "first:*" also names the last message when every UID is below first.
    if (!data.uid || *data.uid < first_uid) continue;
    const Imap4Section* head = data.Section("HEADER.FIELDS (MESSAGE-ID)");
    entries->push_back({*data.uid, data.size ? static_cast<uint32_t>(std::min<uint64_t>(*data.size, UINT32_MAX)) : 0,
                        head != nullptr ? MessageIdOf(head->bytes) : std::string()});
  }
  return rc::kOk;
}

Result Imap4Run::StillOnServer(const std::vector<uint32_t>& uids, std::set<uint32_t>* present) {
  present->clear();
  constexpr size_t kPerCommand = 500;  // keeps the command line short
  for (size_t i = 0; i < uids.size(); i += kPerCommand) {
    std::string set;
    for (size_t j = i; j < std::min(uids.size(), i + kPerCommand); ++j) set += std::to_string(uids[j]) + ',';
    set.pop_back();
    std::string tag;
    if (Result r = client_.Begin("UID FETCH " + set + " (UID)", &tag); r.failed()) return r;
    if (Result r = client_.Finish(tag); r.failed()) return r;
    for (const Imap4FetchData& data : client_.result().fetch) {
      if (data.uid) present->insert(*data.uid);
    }
  }
  return rc::kOk;
}

Result Imap4Run::FindUidByMessageId(Imap4FolderSync& target, WStringView message_id, uint32_t* uid) {
  *uid = 0;
  const std::string wanted = WantedId(message_id);
  if (wanted.empty()) return rc::kOk;
  if (client_.mailbox().raw.empty() || client_.mailbox().name != target.ServerPath()) {
    if (Result r = client_.Select(target.ServerPath()); r.failed()) return r;
  }
  std::vector<Imap4IdEntry> entries;
  if (Result r = FetchMessageIds(target.uid_next, &entries); r.failed()) return r;
  for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
    if (it->message_id == wanted) {
      *uid = it->uid;
      break;
    }
  }
  // Only the folder under work moves its uidNext on: another mailbox may
  // hold new messages below its UIDNEXT that its own run has not yet seen,
  // and a DownloadNew folder would never fetch them.
  if (*uid != 0 && &target == record_) target.uid_next = client_.mailbox().uid_next.value_or(*uid + 1);
  return rc::kOk;
}

Result Imap4Run::AdoptEarlierUploads(Imap4FolderSync& record) {
  FolderFile* file = record.local_folder != nullptr ? record.local_folder->file() : nullptr;
  if (file == nullptr || exists_ == 0) return rc::kOk;
  if (Result r = file->LoadIndex(); r.failed()) return r;
  // By Message-ID: messages made here, and messages moved here from
  // another record's mailbox (still keyed there until copied).
  // A copy made here (its original still in the source record's folder)
  // is no move and stays keyed as it is.
  auto moved = [&](const MessageRecord& m) {
    const Imap4FolderSync* source = folders_ != nullptr ? folders_->FindById(m.server_folder) : nullptr;
    return source != nullptr && local_.FindIn(m.server_folder, m.imap_uid, source->local_folder) == nullptr;
  };
  std::map<std::string, MessageRecord> waiting;
  for (MessageRecord& m : file->Messages()) {
    if (!m.message_id.empty() && (m.imap_uid == 0 || (m.server_folder != record.id && moved(m)))) {
      waiting.emplace(WantedId(m.message_id), std::move(m));
    }
  }
  if (waiting.empty()) return rc::kOk;
  // An upload whose answer was lost (a run killed after APPEND) is above
  // the stored uidNext, which is stored only when a folder run ends. So one
  // FETCH from there finds it, and it is cheap: it reads only the messages
  // that arrived since the last whole run of this folder, and of them only
  // the Message-ID field; it is sent only when messages wait for upload. A
  // UID already held here is another message's with the same Message-ID.
  std::vector<Imap4IdEntry> entries;
  if (Result r = FetchMessageIds(record.uid_next, &entries); r.failed()) return r;
  const uint32_t validity = uid_validity_ != 0 ? uid_validity_ : record.uid_valid;
  for (const Imap4IdEntry& e : entries) {
    const auto it = waiting.find(e.message_id);
    if (e.message_id.empty() || it == waiting.end()) continue;
    if (const Imap4LocalMessage* held = local_.Find(record.id, e.uid);
        held != nullptr && held->record.imap_uid_validity == validity) {
      continue;
    }
    MessageRecord& m = it->second;
    if (m.imap_uid != 0) {
      // Copied here by a run killed before it stored the new key: the
      // source mailbox's copy goes as if deleted here (recorded first).
      if (Result r = local_.RecordDeleted(record.local_folder, m.server_folder, m.imap_uid, m.imap_uid_validity);
          r.failed()) {
        return r;
      }
      local_.Erase(m.server_folder, m.imap_uid);
    }
    m.imap_uid = e.uid;
    m.imap_uid_validity = validity;
    m.server_folder = record.id;
    m.flags = (m.flags & ~msgflag::kSyncedSeen) | (m.flags & msgflag::kRead ? msgflag::kSyncedSeen : 0);
    if (Result r = file->UpdateRecord(m); r.failed()) return r;
    local_.Put({record.local_folder, m});
    Log("Message " + std::to_string(m.key) + " is already on the server as UID " + std::to_string(e.uid));
    waiting.erase(it);
  }
  return rc::kOk;
}

Result Imap4Run::UploadAndDeleteLocal(Imap4FolderSync& record, bool upload, bool delete_local) {
  FolderFile* file = record.local_folder != nullptr ? record.local_folder->file() : nullptr;
  if (file == nullptr) return rc::kOk;
  if (Result r = file->LoadIndex(); r.failed()) return r;
  const uint32_t validity = uid_validity_ != 0 ? uid_validity_ : record.uid_valid;
  std::set<uint32_t> listed;
  for (const Imap4ServerMessage& m : list_) listed.insert(m.uid);
  std::vector<MessageRecord> queue;
  std::vector<uint32_t> unlisted;
  std::map<uint32_t, uint32_t> keys;  // UID -> local key of the unlisted
  for (MessageRecord& m : file->Messages()) {
    if (m.imap_uid == 0) {
      if (upload) queue.push_back(std::move(m));
    } else if (delete_local && list_fetched_ && m.server_folder == record.id && m.imap_uid_validity == validity &&
               listed.count(m.imap_uid) == 0) {
      // Only against a whole list fetched in this run: never for want of one.
      unlisted.push_back(m.imap_uid);
      keys[m.imap_uid] = m.key;
    }
  }
  if (!unlisted.empty()) {
    // list_ leaves out messages with a missing item or the deleted flag, so
    // a message goes here only once the server confirms its UID is gone.
    std::set<uint32_t> present;  // an empty mailbox holds none of them
    if (Result r = exists_ == 0 ? rc::kOk : StillOnServer(unlisted, &present); r == rc::kImap4No) {
      Fail(r);  // a warning; nothing is deleted here for it
      unlisted.clear();
    } else if (r.failed()) {
      return r;
    }
    std::vector<uint32_t> gone;
    for (const uint32_t uid : unlisted) {
      if (present.count(uid) == 0) gone.push_back(keys[uid]);
    }
    if (!gone.empty()) {
      if (Result r = file->Delete(gone); r.failed()) return r;
      for (const uint32_t uid : unlisted) {
        if (present.count(uid) == 0) local_.Erase(record.id, uid);
      }
      Log("Deleted " + std::to_string(gone.size()) + " local messages no longer on the server");
    }
  }
  if (queue.empty() || Stopped()) {
    if (!Stopped()) service_.Report(kEventFolderUploaded, {0}, WideToUtf8(record.name));
    return rc::kOk;
  }

  const bool uid_plus = client_.capabilities() & kImap4CapUidPlus;
  int64_t uploaded = 0;
  for (size_t i = 0; i < queue.size() && !Stopped(); ++i) {
    MessageRecord& m = queue[i];
    service_.Report(kEventUploading, {static_cast<int64_t>(i + 1), static_cast<int64_t>(queue.size())});
    const std::string id = WantedId(m.message_id);
    // Without a Message-ID only APPENDUID can tell the new UID; without
    // it the message would go up again on every run.
    if (id.empty() && !uid_plus) {
      Log("Message " + std::to_string(m.key) + " has no Message-ID and the server gives no UIDs: not uploaded");
      continue;
    }
    uint32_t uid = 0, uid_validity = validity;
    std::string text;
    if (Result r = file->ReadMessage(m.key, &text); r.failed()) return r;
    CXmMemoryStream stream(std::move(text));
    const double date = m.received_date != 0 ? m.received_date : m.sent_date;
    if (Result r = client_.Append(record.ServerPath(), UploadFlags(m.flags), date, &stream, 0); r.failed()) {
      return r;
    }
    ++uploaded;
    if (const auto& appended = client_.result().append_uid; appended && appended->destination.Count() == 1) {
      uid = appended->destination.At(0);
      uid_validity = appended->uid_validity;
    } else if (!id.empty()) {
      if (Result r = FindUidByMessageId(record, m.message_id, &uid); r.failed()) return r;
    }
    if (uid == 0) {
      Log("Uploaded message " + std::to_string(m.key) + ": its UID is unknown");
      continue;
    }
    // The key is stored at once: a run killed after this point never
    // uploads the message again.
    m.imap_uid = uid;
    m.imap_uid_validity = uid_validity;
    m.server_folder = record.id;
    m.flags = (m.flags & ~msgflag::kSyncedSeen) | (m.flags & msgflag::kRead ? msgflag::kSyncedSeen : 0);
    if (Result r = file->UpdateRecord(m); r.failed()) return r;
    local_.Put({record.local_folder, m});
  }
  if (Stopped()) return rc::kOk;
  // The new UIDNEXT, to be stored with the record.
  if (Result r = client_.Select(record.ServerPath()); r.failed()) return r;
  const Imap4MailboxData& box = client_.mailbox();
  exists_ = box.exists.value_or(exists_);
  uid_next_ = box.uid_next.value_or(uid_next_);
  uid_validity_ = box.uid_validity.value_or(uid_validity_);
  service_.Report(kEventFolderUploaded, {uploaded}, WideToUtf8(record.name));
  return rc::kOk;
}

Result Imap4Run::RematchAfterUidValidityChange(Imap4FolderSync& record) {
  const uint32_t validity = uid_validity_;
  Log("UIDVALIDITY of " + WideToUtf8(record.ServerPath()) + " changed from " + std::to_string(record.uid_valid) +
      " to " + std::to_string(validity) + ": matching local messages by Message-ID and size");
  std::vector<Imap4IdEntry> entries;
  if (exists_ > 0) {
    if (Result r = FetchMessageIds(1, &entries); r.failed()) return r;
  }
  std::multimap<std::string, const Imap4IdEntry*> by_id;
  for (const Imap4IdEntry& e : entries) {
    if (!e.message_id.empty()) by_id.emplace(e.message_id, &e);
  }
  std::set<uint32_t> taken;
  std::map<uint32_t, uint32_t> renamed;  // old UID -> new
  size_t matched = 0, kept = 0;
  std::vector<Imap4LocalMessage> old = local_.MessagesOf(record.id);
  // All old keys out first: a new UID may be another message's old one.
  for (const Imap4LocalMessage& m : old) {
    if (m.record.imap_uid_validity != validity) local_.Erase(record.id, m.record.imap_uid);
  }
  for (Imap4LocalMessage& m : old) {
    if (m.record.imap_uid_validity == validity) continue;
    // Copies of one message share its old UID and take the same new one.
    uint32_t uid = renamed.count(m.record.imap_uid) ? renamed[m.record.imap_uid] : 0;
    const auto [first, last] = by_id.equal_range(WantedId(m.record.message_id));
    for (auto it = first; it != last && uid == 0 && !m.record.message_id.empty(); ++it) {
      const Imap4IdEntry& e = *it->second;
      if (taken.count(e.uid) == 0 && (m.record.server_size == 0 || e.size == m.record.server_size)) {
        uid = e.uid;
        break;
      }
    }
    FolderFile* file = m.folder != nullptr ? m.folder->file() : nullptr;
    if (uid != 0) {
      taken.insert(uid);
      renamed[m.record.imap_uid] = uid;
      m.record.imap_uid = uid;
      m.record.imap_uid_validity = validity;
      ++matched;
    } else {
      // Kept with its text; without a UID it goes up again if its folder uploads.
      m.record.imap_uid = m.record.imap_uid_validity = m.record.server_folder = 0;
      ++kept;
    }
    if (file != nullptr) {
      if (Result r = file->UpdateRecord(m.record); r.failed() && r != rc::kInvalidArg) return r;
    }
    local_.Put(m);
  }
  const size_t forgotten = local_.ForgetDeletedOtherThan(record.id, validity);
  if (Result r = local_.SaveDeleted(); r.failed()) return r;
  record.uid_valid = validity;
  record.uid_next = 0;  // UIDs of the old validity say nothing about which messages are new
  Log("UIDVALIDITY change: " + std::to_string(matched) + " local messages matched, " + std::to_string(kept) +
      " kept without a UID" +
      (forgotten ? ", " + std::to_string(forgotten) + " deletions made here forgotten" : std::string()));
  return rc::kOk;
}

}  // namespace trv
