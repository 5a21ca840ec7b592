// When a receiving run commits the messages it has appended so far: every
// few hundred messages, every 16 MiB, or half a second after the batch's
// first message. Few disk flushes, and a killed run loses little (what was
// not committed is fetched again).
#pragma once

#include <chrono>
#include <cstddef>

namespace trv {

inline bool DownloadBatchDue(size_t messages, size_t bytes, std::chrono::steady_clock::time_point first) {
  using namespace std::chrono_literals;
  return messages >= 500 || bytes >= (16u << 20) || (messages > 0 && std::chrono::steady_clock::now() - first >= 500ms);
}

}  // namespace trv
