// A log sink that keeps its lines, for tests that check what was logged.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/log_sink.h"

namespace trv::test {

class RecordingLog final : public LogSink {
 public:
  void Log(std::string_view text, int) override { lines.emplace_back(text); }
  std::vector<std::string> lines;
};

}  // namespace trv::test
