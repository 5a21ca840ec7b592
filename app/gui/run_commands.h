// The runs from the window: the Accounts menu ("Synchronize all" on F5,
// "Synchronize NAME" for each account, rebuilt each time the menu opens,
// "Stop", "Activity log"), the status area (app/gui/run_status.h) in the
// window's status bar, and the desktop integration commands in the File menu.
//
// Until the window can ask questions, a run that needs a password that is
// not saved gets "cancel" from this object (its CredentialsPrompt) and the
// status area says why the run ended; a certificate that is not trusted is
// refused by the engine's trust store (services/run_trust.h), which asks
// nobody, and the run's error text names the refusal.
//
// Services: those of the engine when the object is made, those the engine
// adds later, and the list is taken again when a run starts (removed ones
// are forgotten then).
//
// Threads: interface thread, except AskCredentials (services' workers).
// A QObject child of the main window; when destroyed it takes its prompt
// off every service and stops and waits for their runs, so no run calls it
// afterwards.
#pragma once

#include <QObject>
#include <QPointer>

#include "app/gui/main_window.h"
#include "app/gui/run_status.h"
#include "base/result.h"
#include "core/engine_listeners.h"
#include "services/credentials_prompt.h"

class QAction;

namespace trv {
class MailService;
}

namespace trv::gui {

class LogWindow;

class RunCommands final : public QObject, public CredentialsPrompt, public ServiceAddedListener {
  Q_OBJECT

 public:
  explicit RunCommands(MainWindow& window);
  ~RunCommands() override;

  // A send and receive run of the service (as "trvmail-cli sync NAME").
  // The error of MailService::Start; a service the engine no longer holds
  // is rc::kInvalidArg.
  Result Synchronize(MailService* service);
  // Every account with "synchronize" on; how many runs started.
  int SynchronizeAll();
  // A hard stop of every run under way.
  void StopAll();
  // Opens (or brings forward) the activity log's window.
  LogWindow* ShowLog();

  RunStatus& status() { return *status_; }  // lives in the window's status bar
  QAction* synchronize_all() const { return sync_all_; }
  QAction* stop() const { return stop_; }

  // CredentialsPrompt: answers "cancel" and shows the reason.
  bool AskCredentials(MailService& service, CredentialsFor which, Credentials& credentials) override;
  // ServiceAddedListener: an account made while the window is open is
  // followed from then on (interface thread).
  void OnServiceAdded(EngineService& service) override;

 private:
  // Takes the engine's services again: observed and with this prompt.
  void Follow();
  void RebuildAccounts();
  void Integrate(bool on);

  MainWindow& window_;
  // The status bar may go before this object; what the prompt shows comes
  // through this object's queue and finds the status area gone then.
  QPointer<RunStatus> status_;
  QAction* sync_all_;
  QAction* stop_;
  QAction* accounts_end_;  // the per-account commands go before it
  QList<QAction*> account_actions_;
  QPointer<LogWindow> log_;
};

// Whether the command line is (or begins with) a mailto: address; if so a
// compose window is opened, filled from it (app/gui/compose_window.h).
bool HandleMailto(MainWindow& window, const QString& command_line);

}  // namespace trv::gui
