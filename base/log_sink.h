// Where the layers below the application core write their log lines: an
// interface that the activity log implements, so the store, the transport and
// the protocol clients report without knowing the log file.
#pragma once

#include <string_view>

namespace trv {

// Log levels and their prefixes.
enum LogLevel : int {
  kLogEvent = 0,     // "- " engine, storage and folder events
  kLogSent = 1,      // "S " a protocol line sent to a server
  kLogReceived = 2,  // "R " a protocol line received from a server
  kLogPlain = 3,     // no prefix
};

// Where lower layers write their log lines; the engine's log is one.
class LogSink {
 public:
  virtual ~LogSink() = default;
  virtual void Log(std::string_view text, int level = kLogEvent) = 0;
};

// A sink that drops everything (tests, tools without a log).
class NullLogSink final : public LogSink {
 public:
  void Log(std::string_view, int) override {}
};

}  // namespace trv
