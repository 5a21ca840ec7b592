// Lines the runs write to the activity log beyond the protocol lines.
#pragma once

#include <string>
#include <string_view>

#include "base/result.h"

namespace trv {

class LogSink;

// The line that ends a run in an error, naming the account, the server, its
// last reply and the code:
//   "Error: <result text> (0x80C40001) Account: Work Host: mail.example.org Port: 993 Last reply: <reply>"
// (" Last reply: ..." only when there is one). The reply is the server's own
// text; a password never reaches it (the clients mask their lines).
// `refusal`, a refused certificate's text (services/run_trust.h), follows as
// " Certificate: <text>" when not empty.
std::string RunErrorLine(Result r, std::string_view account, std::string_view host, int port,
                         std::string_view last_reply, std::string_view refusal = {});
void LogRunError(LogSink& log, Result r, std::string_view account, std::string_view host, int port,
                 std::string_view last_reply, std::string_view refusal = {});

}  // namespace trv
