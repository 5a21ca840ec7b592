// What a person does to messages, as the command line and the window both
// do it: delete (into the storage's "Deleted", or for good from "Deleted"
// itself) and mark read or unread.
//
// Threads: the interface thread (or the command line's), as long as the
// folders are not deleted meanwhile (store/mail_folder.h); the folder
// files lock themselves.
#pragma once

#include <cstdint>
#include <vector>

#include "base/file_system.h"
#include "base/result.h"
#include "store/mail_folder.h"

namespace trv {

// Deleting from "Deleted" deletes for good; from any other folder it moves.
inline bool DeletesForGood(const MailFolder& folder) { return folder.kind() == kFolderDeleted; }

// Deletes the messages of `keys` from `folder` for good. Messages received
// by POP3 or IMAP4 are remembered as deleted with the storage's Inbox
// (services/deleted_uids.h), so that the next run neither downloads them
// again nor forgets the server's delete rules. An unknown key is
// rc::kInvalidArg and nothing is deleted.
Result DeleteMessagesForGood(FileSystem& fs, MailFolder& folder, const std::vector<uint32_t>& keys);

// Moves the messages into their storage's "Deleted" folder; *deleted
// (optional) gets that folder. rc::kFileMissing when the storage has no
// usable "Deleted" (nothing is moved); else MoveMessages' codes.
Result MoveToDeleted(MailFolder& folder, const std::vector<uint32_t>& keys, MailFolder** deleted);

// Marks the messages read or unread; the change is flagged for the next
// upload to the server. Messages already in that state are left alone;
// *changed (optional) counts the others. Stops at the first failure, after
// the messages before it were marked; an unknown key is skipped.
Result MarkMessagesRead(FolderFile& file, const std::vector<uint32_t>& keys, bool read, size_t* changed);

}  // namespace trv
