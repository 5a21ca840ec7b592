// The worker thread of a service (run order, a second Start, stops, a
// throwing run) and the scheduler's start-up and periodic runs.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <stdexcept>
#include <thread>

#include "net/mail_socket.h"
#include "services/sync_scheduler.h"
#include "tests/services/service_fixture.h"

namespace trv {
namespace {

using namespace std::chrono_literals;
using test::TestService;

// Holds a run until opened; `entered` tells the run got there.
struct Gate {
  std::mutex mu;
  std::condition_variable cv;
  bool open = false, entered = false;
  Result Hold() {
    std::unique_lock lock(mu);
    entered = true;
    cv.notify_all();
    cv.wait(lock, [&] { return open; });
    return rc::kOk;
  }
  void AwaitEntered() {
    std::unique_lock lock(mu);
    cv.wait(lock, [&] { return entered; });
  }
  void Open() {
    std::lock_guard lock(mu);
    open = true;
    cv.notify_all();
  }
};

class ServiceWorkerTest : public test::ServiceEngineTest {
 protected:
  TestService& Add(SmtpAuthMode mode = SmtpAuthMode::kNotRequired, int minutes = 0, bool startup = true,
                   bool synchronize = true) {
    auto owned = std::make_unique<TestService>(*engine_, local());
    ServiceSettings s;
    s.guid = Guid::NewRandom();
    s.smtp_authentication = mode;
    s.sync_minutes = minutes;
    s.sync_at_startup = startup;
    s.synchronize = synchronize;
    owned->SetSettings(s);
    TestService& service = *owned;
    EXPECT_EQ(local().AddService(&service), rc::kOk);
    engine_->AddService(std::move(owned));
    return service;
  }
  size_t LogCount(const std::string& text) {
    const std::string log = File("TarvoMail.log");
    size_t n = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++n;
    return n;
  }
};

TEST_F(ServiceWorkerTest, RunOrder) {
  using M = SmtpAuthMode;
  struct Case { M mode; bool outgoing, send, receive; const char* calls; };
  const Case cases[] = {
      {M::kNotRequired, true, true, true, "send receive"}, {M::kCredentials, false, true, true, "receive"},
      {M::kNotRequired, false, true, false, ""},           {M::kAfterIncoming, true, true, false, "connect send"},
      {M::kAfterIncoming, true, true, true, "receive send"}, {M::kAfterIncoming, false, true, true, "receive"},
  };
  for (const Case& c : cases) {
    TestService& service = Add(c.mode);
    service.outgoing = c.outgoing;
    ASSERT_EQ(service.Start(c.send, c.receive), rc::kOk);
    service.WaitIdle();
    EXPECT_EQ(service.calls(), c.calls) << SmtpAuthModeName(c.mode) << c.send << c.receive;
    EXPECT_EQ(service.events, std::vector<int>{kEventRunFinished});
  }
  EXPECT_EQ(LogCount("- Synchronization done\r\n"), 5u);
}

TEST_F(ServiceWorkerTest, SecondStartDuringARunOnlyReportsTheEnd) {
  TestService& service = Add();
  Gate gate;
  service.on_receive = [&] { return gate.Hold(); };
  ASSERT_EQ(service.Start(false, true), rc::kOk);
  gate.AwaitEntered();
  EXPECT_TRUE(service.running());
  ASSERT_EQ(service.Start(true, true), rc::kOk);
  EXPECT_EQ(service.events, std::vector<int>{kEventRunFinished});
  gate.Open();
  service.WaitIdle();
  EXPECT_EQ(service.calls(), "receive");
  EXPECT_EQ(service.events.size(), 2u);
}

TEST_F(ServiceWorkerTest, StopsAndFailures) {
  TestService& service = Add();
  // A soft stop: the run sees the flag at its next check.
  service.on_receive = [&] {
    while (!service.interrupted()) std::this_thread::sleep_for(1ms);
    return rc::kAbort;
  };
  ASSERT_EQ(service.Start(false, true), rc::kOk);
  std::this_thread::sleep_for(20ms);
  service.Stop(false);
  service.WaitIdle();
  EXPECT_TRUE(service.pending_error().ok());  // a cancel is not an error

  // A hard stop aborts the connection under a blocked read.
  const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(::listen(listener, 1), 0);
  ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len), 0);
  Gate connected;
  Result read;
  service.on_receive = [&] {
    CMailSocket socket;
    socket.SetTimeout(60);
    Result r = socket.Connect("127.0.0.1", ntohs(addr.sin_port));
    service.SetCurrentClient(&socket);
    connected.Open();
    connected.Hold();
    std::string line;
    if (r.ok()) r = read = socket.ReadLine(&line);
    service.SetCurrentClient(nullptr);
    return r;
  };
  ASSERT_EQ(service.Start(false, true), rc::kOk);
  connected.AwaitEntered();
  std::this_thread::sleep_for(50ms);  // into the read
  const auto stopped = std::chrono::steady_clock::now();
  service.Stop(true);
  service.WaitIdle();
  ::close(listener);
  EXPECT_LT(std::chrono::steady_clock::now() - stopped, 10s);
  EXPECT_TRUE(read.failed());

  // An exception is caught, logged, and the run ends as usual; the next run clears the error.
  service.on_send = [] () -> Result { throw std::runtime_error("boom"); };
  service.events.clear();
  ASSERT_EQ(service.Start(true, false), rc::kOk);
  service.WaitIdle();
  EXPECT_EQ(LogCount("- *** Fatal Error: boom\r\n"), 1u);
  EXPECT_EQ(service.events, std::vector<int>{kEventRunFinished});
  EXPECT_TRUE(service.pending_error().failed());
  service.on_send = nullptr;
  ASSERT_EQ(service.Start(true, false), rc::kOk);
  service.WaitIdle();
  EXPECT_TRUE(service.pending_error().ok());
  EXPECT_EQ(LogCount("- Synchronization done\r\n"), 4u);

  // Shutting down during a run ends it as terminated, without event 1000.
  std::atomic<bool> in_run = false;
  service.on_receive = [&] {
    in_run = true;
    while (!service.interrupted()) std::this_thread::sleep_for(1ms);
    return rc::kAbort;
  };
  service.events.clear();
  ASSERT_EQ(service.Start(false, true), rc::kOk);
  while (!in_run) std::this_thread::sleep_for(1ms);
  service.Shutdown();
  EXPECT_EQ(LogCount("- Synchronization terminated by user\r\n"), 1u);
  EXPECT_TRUE(service.events.empty());
  EXPECT_EQ(service.Start(false, true), rc::kOk);  // after shutdown: only the end is reported
  EXPECT_EQ(service.events, std::vector<int>{kEventRunFinished});
}

TEST_F(ServiceWorkerTest, SchedulerStartupAndPeriods) {
  TestService& periodic = Add(SmtpAuthMode::kNotRequired, 10);
  TestService& no_startup = Add(SmtpAuthMode::kNotRequired, 0, false);
  TestService& not_synchronized = Add(SmtpAuthMode::kNotRequired, 0, true, false);
  for (TestService* s : {&periodic, &no_startup, &not_synchronized}) s->outgoing = false;
  SyncScheduler scheduler(*engine_);
  const auto t0 = SyncScheduler::Clock::time_point{} + 1000h;
  EXPECT_EQ(scheduler.StartupRuns(t0), 1);
  periodic.WaitIdle();
  EXPECT_EQ(scheduler.Tick(t0 + 9min), 0);
  EXPECT_EQ(scheduler.Tick(t0 + 10min), 1);
  periodic.WaitIdle();
  Gate gate;
  periodic.on_receive = [&] { return gate.Hold(); };
  EXPECT_EQ(scheduler.Tick(t0 + 20min), 1);
  gate.AwaitEntered();
  EXPECT_EQ(scheduler.Tick(t0 + 30min), 0);  // busy: this period is skipped
  gate.Open();
  periodic.WaitIdle();
  EXPECT_EQ(scheduler.Tick(t0 + 35min), 0);
  EXPECT_EQ(scheduler.Tick(t0 + 40min), 1);
  periodic.WaitIdle();
  EXPECT_EQ(periodic.calls(), "receive receive receive receive");
  EXPECT_EQ(no_startup.calls() + not_synchronized.calls(), "");

  scheduler.Start();  // the start-up runs again, and the timer
  scheduler.Stop(true);
  EXPECT_FALSE(periodic.running());
  EXPECT_EQ(periodic.calls(), "receive receive receive receive receive");
}

}  // namespace
}  // namespace trv
