// Fires the automatic runs of both programs: one run of every service with
// SyncAtStartup when the scheduler starts, then a run of each service every
// SyncMinutes minutes (0 = none). A service whose previous run is still
// under way is skipped for that period (runs of one service never overlap).
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <thread>

#include "base/thread_annotations.h"

namespace trv {

class MailEngine;
class MailService;

class SyncScheduler {
 public:
  using Clock = std::chrono::steady_clock;

  explicit SyncScheduler(MailEngine& engine);
  ~SyncScheduler();  // Stop(false)
  SyncScheduler(const SyncScheduler&) = delete;
  SyncScheduler& operator=(const SyncScheduler&) = delete;

  // The start-up runs now, then a timer thread calls Tick every few seconds.
  void Start();
  // Ends the timer thread; with stop_runs, also Stop(false) on every service
  // and waits until their runs ended.
  void Stop(bool stop_runs);
  // Starts (send and receive) every service whose period has elapsed at
  // `now` and that is idle; returns how many were started. Public for tests.
  int Tick(Clock::time_point now);
};

}  // namespace trv
