#include "services/deleted_uids.h"

#include <cstdio>
#include <cstdlib>

#include "base/durable_write.h"
#include "base/wide_string.h"
#include "store/folder_file.h"

namespace trv {

Result DeletedUids::Load() {
  entries_.clear();
  if (!fs_.Exists(path_)) return rc::kOk;
  std::string text;
  if (Result r = fs_.ReadFile(path_, &text); r.failed()) return r;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(pos, end - pos);
    pos = end + 1;
    const size_t blank = line.find(' ');
    if (blank == std::string::npos || blank + 1 >= line.size()) continue;
    char* stop = nullptr;
    const double date = std::strtod(line.c_str(), &stop);
    if (stop != line.c_str() + blank) continue;
    entries_[line.substr(blank + 1)] = date;
  }
  return rc::kOk;
}

Result DeletedUids::Save() {
  if (entries_.empty()) return fs_.RemoveFile(path_);
  std::string text;
  char date[40];
  for (const auto& [uid, when] : entries_) {
    std::snprintf(date, sizeof date, "%.6f ", when);
    text += date;
    text += uid;
    text += '\n';
  }
  return WriteFileDurably(fs_, path_, text);
}

const double* DeletedUids::Find(std::string_view uid) const {
  const auto it = entries_.find(uid);
  return it == entries_.end() ? nullptr : &it->second;
}

bool DeletedUids::Remove(std::string_view uid) {
  const auto it = entries_.find(uid);
  if (it == entries_.end()) return false;
  entries_.erase(it);
  return true;
}

std::string Imap4DeletedKey(uint32_t record_id, uint32_t uid, uint32_t validity) {
  return std::to_string(record_id) + ':' + std::to_string(uid) + ':' + std::to_string(validity);
}

bool ParseImap4DeletedKey(std::string_view key, uint32_t* record_id, uint32_t* uid, uint32_t* validity) {
  uint32_t* fields[] = {record_id, uid, validity};
  size_t pos = 0;
  for (size_t i = 0; i < 3; ++i) {
    const size_t end = i < 2 ? key.find(':', pos) : key.size();
    if (end == std::string_view::npos || end == pos || end - pos > 10) return false;
    uint64_t value = 0;
    for (const char c : key.substr(pos, end - pos)) {
      if (c < '0' || c > '9') return false;
      value = value * 10 + static_cast<uint64_t>(c - '0');
    }
    if (value > UINT32_MAX) return false;
    *fields[i] = static_cast<uint32_t>(value);
    pos = end + 1;
  }
  return *record_id != 0 && *uid != 0;
}

Result DeleteReceivedMessages(FileSystem& fs, FolderFile& inbox, FolderFile& folder,
                              const std::vector<uint32_t>& keys) {
  DeletedUids record(fs, inbox.path());
  DeletedUids imap4(fs, folder.path(), kImap4DeletedSuffix);
  if (Result r = folder.LoadIndex(); r.failed()) return r;
  if (Result r = record.Load(); r.failed()) return r;
  if (Result r = imap4.Load(); r.failed()) return r;
  const size_t before = record.size();
  const size_t imap4_before = imap4.size();
  const double now = DateNow();
  for (const uint32_t key : keys) {
    const std::optional<MessageRecord> m = folder.FindMessage(key);
    if (!m) return rc::kInvalidArg;
    // POP3 messages by UIDL; an IMAP4 UID is no UIDL.
    if (!m->server_uid.empty() && m->imap_uid == 0) record.Add(WideToUtf8(m->server_uid), now);
    if (m->imap_uid != 0 && m->server_folder != 0) {
      imap4.Add(Imap4DeletedKey(m->server_folder, m->imap_uid, m->imap_uid_validity), now);
    }
  }
  if (record.size() != before) {
    if (Result r = record.Save(); r.failed()) return r;
  }
  if (imap4.size() != imap4_before) {
    if (Result r = imap4.Save(); r.failed()) return r;
  }
  return folder.Delete(keys);
}

}  // namespace trv
