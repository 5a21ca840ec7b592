// The worker of a service (run order, a second Start, stops, a throwing
// run) and the scheduler's start-up and periodic runs.
#include <gtest/gtest.h>

#include <semaphore>
#include <stdexcept>
#include <thread>

#include "net/mail_socket.h"
#include "services/sync_scheduler.h"
#include "tests/services/service_fixture.h"
#include "tests/support/script_server.h"

namespace trv {
namespace {

using namespace std::chrono_literals;
using test::TestService;
using M = SmtpAuthMode;
const std::vector<int> kEnd = {kEventRunFinished};

class ServiceWorkerTest : public test::ServiceEngineTest {
 protected:
  TestService& Add(M mode = M::kNotRequired, int minutes = 0, bool startup = true, bool synchronize = true) {
    auto owned = std::make_unique<TestService>(*engine_, local());
    ServiceSettings s;
    s.guid = Guid::NewRandom();
    s.smtp_authentication = mode;
    std::tie(s.sync_minutes, s.sync_at_startup, s.synchronize) = std::tuple(minutes, startup, synchronize);
    owned->SetSettings(s);
    TestService& service = *owned;
    EXPECT_EQ(local().AddService(&service), rc::kOk);
    engine_->AddService(std::move(owned));
    return service;
  }
  // A run held in on_receive until `release`; `entered` says it got there.
  std::binary_semaphore entered{0}, release{0};
  Result Hold() {
    entered.release();
    release.acquire();
    return rc::kOk;
  }
};

TEST_F(ServiceWorkerTest, RunOrderAndASecondStart) {
  const struct { M mode; bool outgoing, send, receive; const char* calls; } cases[] = {
      {M::kNotRequired, true, true, true, " send receive"}, {M::kCredentials, false, true, true, " receive"},
      {M::kNotRequired, false, true, false, ""},            {M::kAfterIncoming, true, true, false, " connect send"},
      {M::kAfterIncoming, true, true, true, " receive send"}, {M::kAfterIncoming, false, true, true, " receive"},
  };
  for (const auto& c : cases) {
    TestService& service = Add(c.mode);
    service.outgoing = c.outgoing;
    ASSERT_EQ(service.Start(c.send, c.receive), rc::kOk);
    service.WaitIdle();
    EXPECT_EQ(service.calls(), c.calls) << SmtpAuthModeName(c.mode) << c.send << c.receive;
    EXPECT_EQ(service.events, kEnd);
  }
  EXPECT_EQ(LogCount("- Synchronization done\r\n"), 5u);

  TestService& service = Add();
  service.on_receive = [&] { return Hold(); };
  ASSERT_EQ(service.Start(false, true), rc::kOk);
  entered.acquire();
  ASSERT_EQ(service.Start(true, true), rc::kOk);  // queues nothing
  EXPECT_EQ(service.events, kEnd);
  release.release();
  service.WaitIdle();
  EXPECT_EQ(service.calls(), " receive");
  EXPECT_EQ(service.events.size(), 2u);
}

TEST_F(ServiceWorkerTest, StopsAndFailures) {
  TestService& service = Add();
  // A hard stop aborts the connection under a blocked read (time-out 60 s).
  test::ScriptServer silent(Script().Silence());
  Result read;
  service.on_receive = [&] {
    CMailSocket socket;
    Result r = socket.Connect("127.0.0.1", silent.port());
    service.SetCurrentClient(&socket);
    entered.release();
    std::string line;
    if (r.ok()) r = read = socket.ReadLine(&line);
    service.SetCurrentClient(nullptr);
    return r;
  };
  ASSERT_EQ(service.Start(false, true), rc::kOk);
  entered.acquire();
  std::this_thread::sleep_for(50ms);  // into the read
  const auto stopped = std::chrono::steady_clock::now();
  service.Stop(true);
  service.WaitIdle();
  EXPECT_LT(std::chrono::steady_clock::now() - stopped, 10s);
  EXPECT_TRUE(read.failed());

  // A throwing run is logged and ends as usual; the next run clears the error.
  service.on_send = []() -> Result { throw std::runtime_error("boom"); };
  service.events.clear();
  ASSERT_EQ(service.Start(true, false), rc::kOk);
  service.WaitIdle();
  EXPECT_EQ(LogCount("- *** Fatal Error: boom\r\n"), 1u);
  EXPECT_EQ(service.events, kEnd);
  EXPECT_TRUE(service.pending_error().failed());
  service.on_send = nullptr;
  ASSERT_EQ(service.Start(true, false), rc::kOk);
  service.WaitIdle();
  EXPECT_TRUE(service.pending_error().ok());

  // Stop(false) is seen at the run's next check; Shutdown ends a run as terminated, without event 1000.
  service.on_receive = [&] {
    entered.release();
    while (!service.interrupted()) std::this_thread::sleep_for(1ms);
    return rc::kAbort;
  };
  for (bool shutdown : {false, true}) {
    service.events.clear();
    ASSERT_EQ(service.Start(false, true), rc::kOk);
    entered.acquire();
    shutdown ? service.Shutdown() : service.Stop(false);
    service.WaitIdle();
    EXPECT_EQ(service.events, shutdown ? std::vector<int>{} : kEnd);
    EXPECT_TRUE(service.pending_error().ok());  // a cancel is not an error
  }
  EXPECT_EQ(LogCount("- Synchronization done\r\n"), 4u);
  EXPECT_EQ(LogCount("- Synchronization terminated by user\r\n"), 1u);
  EXPECT_EQ(service.Start(false, true), rc::kOk);  // after Shutdown: only the end is reported
  EXPECT_EQ(service.events, kEnd);
}

TEST_F(ServiceWorkerTest, SchedulerStartupAndPeriods) {
  TestService& periodic = Add(M::kNotRequired, 10);
  TestService& no_startup = Add(M::kNotRequired, 0, false);
  TestService& not_synchronized = Add(M::kNotRequired, 0, true, false);
  periodic.outgoing = false;
  SyncScheduler scheduler(*engine_);
  const auto t0 = SyncScheduler::Clock::time_point{} + 1000h;
  EXPECT_EQ(scheduler.StartupRuns(t0), 1);
  periodic.WaitIdle();
  EXPECT_EQ(scheduler.Tick(t0 + 9min), 0);
  EXPECT_EQ(scheduler.Tick(t0 + 10min), 1);
  periodic.WaitIdle();
  periodic.on_receive = [&] { return Hold(); };
  EXPECT_EQ(scheduler.Tick(t0 + 20min), 1);
  entered.acquire();
  EXPECT_EQ(scheduler.Tick(t0 + 30min), 0);  // busy: this period is skipped
  release.release();
  periodic.WaitIdle();
  periodic.on_receive = nullptr;
  EXPECT_EQ(scheduler.Tick(t0 + 35min), 0);
  EXPECT_EQ(scheduler.Tick(t0 + 40min), 1);
  periodic.WaitIdle();
  scheduler.Start();  // the start-up runs again, and the timer
  periodic.WaitIdle();  // a stop before the run began would skip its receiving
  scheduler.Stop(true);
  EXPECT_FALSE(periodic.running());
  EXPECT_EQ(periodic.calls(), " receive receive receive receive receive");
  EXPECT_EQ(no_startup.calls() + not_synchronized.calls(), "");
}

}  // namespace
}  // namespace trv
