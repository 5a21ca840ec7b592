// Asking for the rest of a partially loaded POP3 message: the message gets
// msgflag::kFullDownloadRequested, and the next receiving run of its
// service loads it again whole into the same local message (and clears
// both flags). Any thread (a folder file change).
#pragma once

#include <cstdint>

#include "base/result.h"
#include "store/folder_file.h"

namespace trv {

// rc::kInvalidArg for an unknown key or a message that is not partial.
inline Result RequestFullDownload(FolderFile& inbox, uint32_t key) {
  if (Result r = inbox.LoadIndex(); r.failed()) return r;
  const std::optional<MessageRecord> m = inbox.FindMessage(key);
  if (!m || !(m->flags & msgflag::kPartial)) return rc::kInvalidArg;
  return inbox.SetFlags(key, msgflag::kFullDownloadRequested, 0);
}

}  // namespace trv
