// How `show` presents a message. --raw is the stored text byte for byte
// (cmd_messages.cpp); the other modes are here:
//   default   main headers decoded, then the decoded text body
//   --html    the reading view's HTML
//   --parts   the part tree
// The message is parsed straight from its folder file through ranged reads,
// so a message with a large attachment is never held whole in memory.
#pragma once

#include <cstdint>
#include <string>

#include "app/cli/cli.h"
#include "store/folder_file.h"

namespace trv::cli {

enum class ShowMode { kText, kHtml, kParts };

// Shows message `key` of `file`; `what` names it for messages
// ("Local Folders/Inbox/0000001A"). Returns the exit status. Damage found
// while reading the message is described on standard error; what could be
// read is still shown.
int ShowMessage(CliContext& ctx, const std::string& what, FolderFile& file, uint32_t key, ShowMode mode);

}  // namespace trv::cli
