// The worker thread of a service and the order of one run.
#include <exception>
#include <system_error>

#include "base/log_sink.h"
#include "net/mail_socket.h"
#include "services/mail_service.h"
#include "store/storage.h"

namespace trv {

Result MailService::Start(bool send, bool receive) {
  if (!storage_.is_open()) {
    log().Log("Account " + DisplayName() + ": its storage is not available");
    Report(kEventRunFinished);
    return rc::kOk;
  }
  if (send && !HasOutgoingMail()) send = false;
  if (!send && !receive) {
    Report(kEventRunFinished);
    return rc::kOk;
  }
  {
    MutexLock lock(worker_mu_);
    if (!busy_.load() && status_.load() == kStatusClosed && !terminated_.load()) {
      if (!worker_.joinable()) {
        try {
          worker_ = std::thread([this] { WorkerMain(); });
        } catch (const std::system_error& e) {
          return ResultFromErrno(e.code().value());
        }
      }
      send_requested_.store(send);
      receive_requested_.store(receive);
      interrupted_.store(false);
      busy_.store(true);
      wake_pending_ = true;
      wake_.notify_all();
      return rc::kOk;
    }
  }
  // A run is under way (or the service is shutting down): nothing queued.
  Report(kEventRunFinished);
  return rc::kOk;
}

void MailService::Stop(bool hard) {
  interrupted_.store(true);
  if (!hard) return;
  {
    MutexLock lock(client_mu_);
    if (current_client_ != nullptr) current_client_->Abort();
  }
  status_.store(kStatusClosed);
}

void MailService::WaitIdle() {
  MutexLock lock(worker_mu_);
  while (busy_.load()) idle_.wait(worker_mu_);
}

void MailService::Shutdown() {
  terminated_.store(true);
  Stop(true);
  std::thread worker;
  {
    MutexLock lock(worker_mu_);
    wake_.notify_all();
    worker = std::move(worker_);
  }
  if (worker.joinable() && worker.get_id() != std::this_thread::get_id()) worker.join();
  if (worker.joinable()) worker.detach();  // Shutdown from the worker itself: it ends on its own
}

void MailService::WorkerMain() {
  for (;;) {
    {
      MutexLock lock(worker_mu_);
      while (!wake_pending_ && !terminated_.load()) wake_.wait(worker_mu_);
      wake_pending_ = false;
    }
    if (!terminated_.load()) RunOnce();
    {
      MutexLock lock(worker_mu_);
      busy_.store(false);
    }
    idle_.notify_all();
    if (terminated_.load()) return;
  }
}

void MailService::RunOnce() {
  pending_error_.store(0);
  const bool send = send_requested_.load();
  const bool receive = receive_requested_.load();
  // Keeps the first failure of a run that did not record one itself.
  const auto keep = [this](Result r) {
    if (r.failed() && r != rc::kAbort && pending_error_.load() == 0) SetPendingError(r);
  };
  try {
    if (settings().smtp_authentication == SmtpAuthMode::kAfterIncoming) {
      keep(Receive(!receive));
      if (send && !interrupted() && pending_error().ok()) keep(Send());
    } else {
      if (send) keep(Send());
      if (receive && !interrupted()) keep(Receive(false));
    }
  } catch (const std::exception& e) {
    log().Log(std::string("*** Fatal Error: ") + e.what());
    keep(rc::kFail);
  } catch (...) {
    log().Log("*** Fatal Error: unknown exception");
    keep(rc::kFail);
  }
  SetCurrentClient(nullptr);
  status_.store(kStatusClosed);
  if (!terminated()) Report(kEventRunFinished);
  log().Log(terminated() ? "Synchronization terminated by user" : "Synchronization done");
}

}  // namespace trv
