// How `show` presents a message. --raw is the stored text byte for byte
// (cmd_messages.cpp); the other modes are here, one function each, so that
// the message rendering (part tree, decoded body, the reading view's HTML)
// plugs in without touching the command:
//   default   main headers decoded, then the decoded text body
//   --html    the reading view's HTML
//   --parts   the part tree
// Until the part tree lands, the default mode prints the main headers and
// says on standard error that the body cannot be shown yet; --html and
// --parts say they are not available and fail.
#pragma once

#include <string>

#include "app/cli/cli.h"

namespace trv::cli {

// `text` is the whole stored message; `what` names it for messages
// ("Local Folders/Inbox/0000001A"). Each returns the exit status.
int ShowDefault(CliContext& ctx, const std::string& what, const std::string& text);
int ShowHtml(CliContext& ctx, const std::string& what, const std::string& text);
int ShowParts(CliContext& ctx, const std::string& what, const std::string& text);

}  // namespace trv::cli
