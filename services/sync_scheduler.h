// Fires the automatic runs of both programs: one run of every service with
// SyncAtStartup when the scheduler starts, then a run of each service every
// SyncMinutes minutes (0 = none). A service whose previous run is still
// under way is skipped for that period (runs of one service never overlap).
// Synchronize = 0 leaves a service out of the start-up runs; its periodic
// runs follow SyncMinutes alone. A service's period starts when the
// scheduler first sees it (or sees a changed SyncMinutes); periods missed
// while the program slept are not made up.
//
// Threads: Start and Stop on the interface thread; the timer thread walks
// the engine's services, so stop the scheduler before removing a service
// (services/service_registry.h RemoveService) and start it again after.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <thread>

#include "base/guid.h"
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

  // The start-up runs now (unless !startup_runs), then a timer thread calls
  // Tick every few seconds.
  void Start(bool startup_runs = true) EXCLUDES(mu_);
  // Ends the timer thread; with stop_runs, also Stop(false) on every service
  // and waits until their runs ended.
  void Stop(bool stop_runs) EXCLUDES(mu_);
  // Starts (send and receive) every service whose period has elapsed at
  // `now` and that is idle; returns how many were started. Public for tests.
  int Tick(Clock::time_point now) EXCLUDES(mu_);
  // The start-up runs alone (Start calls it) and the periods begun at
  // `now`; returns how many runs were started. Public for tests and for
  // the start-up runs without the timer.
  int StartupRuns(Clock::time_point now) EXCLUDES(mu_);

  static constexpr std::chrono::seconds kTickInterval{5};

 private:
  struct Period {
    int32_t minutes = 0;
    Clock::time_point due;
  };

  void TimerMain() EXCLUDES(mu_);

  MailEngine& engine_;
  Mutex mu_;
  std::condition_variable_any wake_;
  bool stopping_ GUARDED_BY(mu_) = false;
  std::map<Guid, Period> periods_ GUARDED_BY(mu_);  // by service GUID
  std::thread timer_;  // interface thread only
};

}  // namespace trv
