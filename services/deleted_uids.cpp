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

Result DeleteReceivedMessages(FileSystem& fs, FolderFile& inbox, FolderFile& folder,
                              const std::vector<uint32_t>& keys) {
  DeletedUids record(fs, inbox.path());
  if (Result r = folder.LoadIndex(); r.failed()) return r;
  if (Result r = record.Load(); r.failed()) return r;
  const size_t before = record.size();
  const double now = DateNow();
  for (const uint32_t key : keys) {
    const std::optional<MessageRecord> m = folder.FindMessage(key);
    if (!m) return rc::kInvalidArg;
    // Only POP3 messages: an IMAP4 UID is no UIDL.
    if (!m->server_uid.empty() && m->imap_uid == 0) record.Add(WideToUtf8(m->server_uid), now);
  }
  if (record.size() != before) {
    if (Result r = record.Save(); r.failed()) return r;
  }
  return folder.Delete(keys);
}

}  // namespace trv
