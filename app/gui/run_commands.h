// The runs from the window: the Accounts menu ("Synchronize all" on F5,
// "Synchronize NAME" for each account, rebuilt each time the menu opens,
// "Stop", "Activity log"), the status area (app/gui/run_status.h) in the
// window's status bar, and the desktop integration commands in the File menu.
//
// The runs' questions (a password that is not saved or was refused, a
// certificate the trust store refuses, a message above the server's size
// limit) are asked in the window (app/gui/run_prompts.h); a cancelled
// password question ends the run and the status area says why.
//
// The automatic runs: a SyncScheduler (services/sync_scheduler.h) started
// by StartSchedule once the options are known, stopped before this object
// goes; PauseSchedule before an account is removed, ResumeSchedule after.
//
// Services: those of the engine when the object is made, those the engine
// adds later, and the list is taken again when a run starts (removed ones
// are forgotten then).
//
// Threads: interface thread.
// A QObject child of the main window; when destroyed it stops the
// scheduler, takes its questions off every service and stops and waits for
// their runs, so no run asks it afterwards.
#pragma once

#include <QObject>
#include <QPointer>
#include <memory>

#include "app/gui/main_window.h"
#include "app/gui/run_status.h"
#include "base/result.h"
#include "core/engine_listeners.h"
#include "services/sync_scheduler.h"

class QAction;

namespace trv {
class MailService;
}

namespace trv::gui {

class LogWindow;
class RunPrompts;
class RunQuestions;

class RunCommands final : public QObject, public ServiceAddedListener {
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

  // Where the runs' questions go; the dialogs by default.
  void set_questions(RunQuestions& questions);

  // The start-up runs (the accounts with SyncAtStartup) when
  // `startup_runs`, and the periodic ones (SyncMinutes) while `periodic`.
  void StartSchedule(bool startup_runs, bool periodic);
  void SetPeriodic(bool periodic);
  bool periodic() const { return periodic_; }
  // Around removing an account: the scheduler's timer must not walk the
  // services meanwhile.
  void PauseSchedule();
  void ResumeSchedule();
  // ServiceAddedListener: an account made while the window is open is
  // followed from then on (interface thread).
  void OnServiceAdded(EngineService& service) override;
  // Takes the engine's services again: observed and with this prompt; a
  // removed account's status line goes.
  void Follow();

 private:
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
  RunPrompts* prompts_;
  SyncScheduler scheduler_;
  bool periodic_ = false;  // the scheduler's timer runs
};

// Whether the command line is (or begins with) a mailto: address; if so a
// compose window is opened, filled from it (app/gui/compose_window.h).
bool HandleMailto(MainWindow& window, const QString& command_line);

}  // namespace trv::gui
