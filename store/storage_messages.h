// Copying and moving messages between folders (of one storage or of two).
//
// A move appends the messages to the destination first and deletes them
// from the source after that append has been committed, so a crash between
// the two leaves a message twice, never nowhere. Work goes in batches of at
// most kTransferBatchBytes of message text, each one append transaction
// (and, for a move, one delete transaction); a failure stops at its batch,
// after the earlier batches are done.
//
// Threads: any thread, as long as neither folder is deleted meanwhile (see
// store/mail_folder.h); the folder files lock themselves.
#pragma once

#include <cstdint>
#include <vector>

#include "base/result.h"
#include "store/mail_folder.h"

namespace trv {

inline constexpr size_t kTransferBatchBytes = 8u << 20;

// Copies the messages of `keys` (in that order) from `from` to `to`, records
// and texts alike; `new_keys` (optional) receives their keys in `to`. An
// unknown or repeated key is rc::kInvalidArg before anything is copied; an unavailable
// folder is rc::kFileMissing.
Result CopyMessages(MailFolder& from, const std::vector<uint32_t>& keys, MailFolder& to,
                    std::vector<uint32_t>* new_keys);

// As CopyMessages, then deletes them from `from`. Moving within one folder
// is rc::kInvalidArg.
Result MoveMessages(MailFolder& from, const std::vector<uint32_t>& keys, MailFolder& to,
                    std::vector<uint32_t>* new_keys);

}  // namespace trv
