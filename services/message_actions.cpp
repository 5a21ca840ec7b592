#include "services/message_actions.h"

#include <optional>

#include "services/deleted_uids.h"
#include "store/storage.h"
#include "store/storage_messages.h"

namespace trv {

Result DeleteMessagesForGood(FileSystem& fs, MailFolder& folder, const std::vector<uint32_t>& keys) {
  if (!folder.available()) return rc::kFileMissing;
  MailFolder* inbox = folder.storage().SpecialFolder(kFolderInbox);
  return inbox != nullptr && inbox->available() ? DeleteReceivedMessages(fs, *inbox->file(), *folder.file(), keys)
                                                : folder.file()->Delete(keys);
}

Result MoveToDeleted(MailFolder& folder, const std::vector<uint32_t>& keys, MailFolder** deleted) {
  MailFolder* to = folder.storage().SpecialFolder(kFolderDeleted);
  if (deleted != nullptr) *deleted = to;
  if (to == nullptr || !to->available()) return rc::kFileMissing;
  return MoveMessages(folder, keys, *to, nullptr);
}

Result MarkMessagesRead(FolderFile& file, const std::vector<uint32_t>& keys, bool read, size_t* changed) {
  if (changed != nullptr) *changed = 0;
  for (uint32_t key : keys) {
    const std::optional<MessageRecord> record = file.FindMessage(key);
    if (!record || record->is_read() == read) continue;
    const Result r = read ? file.SetFlags(key, msgflag::kRead | msgflag::kReadChanged, 0)
                          : file.SetFlags(key, msgflag::kReadChanged, msgflag::kRead);
    if (r.failed()) return r;
    if (changed != nullptr) ++*changed;
  }
  return rc::kOk;
}

}  // namespace trv
