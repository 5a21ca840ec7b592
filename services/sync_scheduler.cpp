#include "services/sync_scheduler.h"

#include <vector>

#include "services/mail_service.h"
#include "services/service_registry.h"

namespace trv {

SyncScheduler::SyncScheduler(MailEngine& engine) : engine_(engine) {}

SyncScheduler::~SyncScheduler() { Stop(false); }

void SyncScheduler::Start(bool startup_runs) {
  if (startup_runs) StartupRuns(Clock::now());
  if (timer_.joinable()) return;
  timer_ = std::thread([this] { TimerMain(); });
}

void SyncScheduler::Stop(bool stop_runs) {
  {
    MutexLock lock(mu_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (timer_.joinable()) timer_.join();
  {
    MutexLock lock(mu_);
    stopping_ = false;
  }
  if (!stop_runs) return;
  const std::vector<MailService*> services = MailServices(engine_);
  for (MailService* service : services) service->Stop(false);
  for (MailService* service : services) service->WaitIdle();
}

void SyncScheduler::TimerMain() {
  for (;;) {
    {
      MutexLock lock(mu_);
      if (!stopping_) wake_.wait_for(mu_, kTickInterval);
      if (stopping_) return;
    }
    Tick(Clock::now());
  }
}

int SyncScheduler::StartupRuns(Clock::time_point now) {
  int started = 0;
  for (MailService* service : MailServices(engine_)) {
    const ServiceSettings s = service->settings();
    if (s.sync_minutes > 0) {
      MutexLock lock(mu_);
      periods_[s.guid] = {s.sync_minutes, now + std::chrono::minutes(s.sync_minutes)};
    }
    if (!s.sync_at_startup || !s.synchronize || service->running()) continue;
    service->Start(true, true).Ignore();  // a run's errors are its own (pending_error)
    ++started;
  }
  return started;
}

int SyncScheduler::Tick(Clock::time_point now) {
  std::vector<MailService*> due;
  const std::vector<MailService*> services = MailServices(engine_);
  {
    MutexLock lock(mu_);
    std::map<Guid, Period> kept;
    for (MailService* service : services) {
      const ServiceSettings s = service->settings();
      if (s.sync_minutes <= 0) continue;
      const auto period = std::chrono::minutes(s.sync_minutes);
      Period p = periods_.contains(s.guid) ? periods_[s.guid] : Period{};
      if (p.minutes != s.sync_minutes) {
        p = {s.sync_minutes, now + period};
      } else if (now >= p.due) {
        while (p.due <= now) p.due += period;
        // A busy service skips this period rather than queueing a run.
        if (!service->running()) due.push_back(service);
      }
      kept[s.guid] = p;
    }
    periods_ = std::move(kept);
  }
  for (MailService* service : due) service->Start(true, true).Ignore();  // as above
  return static_cast<int>(due.size());
}

}  // namespace trv
