// Writes a socket's protocol lines to a log sink (the activity log) as "S "
// and "R " lines. What arrives is already filtered and masked by the
// socket's log mask (net/mail_socket.h), so this adds nothing of its own.
//
// Threads: told on the socket's thread; the sink must accept lines from it.
#pragma once

#include <string_view>

#include "base/log_sink.h"
#include "net/mail_socket.h"

namespace trv {

class LineLog final : public LineListener {
 public:
  explicit LineLog(LogSink& sink) : sink_(sink) {}

  void OnLine(CMailSocket&, LineDirection direction, uint32_t, std::string_view line) override {
    sink_.Log(line, direction == kLineSent ? kLogSent : kLogReceived);
  }

 private:
  LogSink& sink_;
};

}  // namespace trv
