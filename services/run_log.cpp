#include "services/run_log.h"

#include <cstdio>

#include "base/log_sink.h"

namespace trv {

std::string RunErrorLine(Result r, std::string_view account, std::string_view host, int port,
                         std::string_view last_reply, std::string_view refusal) {
  char code[16];
  std::snprintf(code, sizeof code, "0x%08X", r.code());
  std::string line = "Error: " + ResultText(r) + " (" + code + ")";
  line.append(" Account: ").append(account);
  line.append(" Host: ").append(host).append(" Port: ").append(std::to_string(port));
  if (!last_reply.empty()) line.append(" Last reply: ").append(last_reply);
  if (!refusal.empty()) line.append(" Certificate: ").append(refusal);
  return line;
}

void LogRunError(LogSink& log, Result r, std::string_view account, std::string_view host, int port,
                 std::string_view last_reply, std::string_view refusal) {
  log.Log(RunErrorLine(r, account, host, port, last_reply, refusal));
}

}  // namespace trv
