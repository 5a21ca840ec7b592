#include "app/gui/run_commands.h"

#include <QAction>
#include <QMenu>
#include <QStatusBar>
#include <QThread>
#include <algorithm>

#include "app/gui/compose_window.h"
#include "app/gui/desktop_integration.h"
#include "app/gui/log_window.h"
#include "app/gui/reading_view.h"
#include "app/gui/run_prompts.h"
#include "core/activity_log.h"
#include "core/engine.h"
#include "services/mail_service.h"
#include "services/service_registry.h"
#include "store/mail_folder.h"
#include "store/storage.h"

namespace trv::gui {

namespace {

QString Text(const MainWindow& window, const char* id) { return QString::fromStdString(window.texts().Text(id)); }

}  // namespace

RunCommands::RunCommands(MainWindow& window)
    : QObject(&window),
      window_(window),
      prompts_(new RunPrompts(window, window.texts(), this)),
      scheduler_(window.engine()) {
  status_ = new RunStatus(window.engine(), window.texts());
  window.statusBar()->addWidget(status_, 1);

  QMenu* accounts = window.menu(MainWindow::Menu::kAccounts);
  sync_all_ = accounts->addAction(Text(window, "CommandSyncAll"));
  sync_all_->setShortcut(QKeySequence(Qt::Key_F5));
  connect(sync_all_, &QAction::triggered, this, [this] { SynchronizeAll(); });
  accounts->addSeparator();
  accounts_end_ = accounts->addSeparator();
  stop_ = accounts->addAction(Text(window, "CommandStop"));
  connect(stop_, &QAction::triggered, this, [this] { StopAll(); });
  accounts->addSeparator();
  QAction* log = accounts->addAction(Text(window, "CommandActivityLog"));
  connect(log, &QAction::triggered, this, [this] { ShowLog(); });
  connect(accounts, &QMenu::aboutToShow, this, [this] { RebuildAccounts(); });
  RebuildAccounts();

  QMenu* file = window.menu(MainWindow::Menu::kFile);
  connect(file->addAction(Text(window, "CommandIntegrate")), &QAction::triggered, this, [this] { Integrate(true); });
  connect(file->addAction(Text(window, "CommandDesintegrate")), &QAction::triggered, this,
          [this] { Integrate(false); });

  connect(status_, &RunStatus::runFinished, this, [this] {
    if (log_ != nullptr) log_->Refresh();
  });
  // "Show the rest" of a partial message starts the run of the account
  // whose storage holds it; the message is already marked for completion.
  connect(&window.reading_view(), &ReadingView::fetchRequested, this, [this](MailFolder* folder, uint32_t) {
    for (MailService* service : MailServices(window_.engine())) {
      if (&service->storage() == &folder->storage()) {
        Synchronize(service).Ignore();  // a refused start is said in the status area
        return;
      }
    }
    window_.statusBar()->showMessage(Text(window_, "RunNoAccount").arg(QString::fromStdU16String(folder->storage().name())),
                                     10000);
  });
  // A cancelled password question ends the run; the status area says why.
  connect(prompts_, &RunPrompts::credentialsCancelled, this, [this](MailService* service, const QString& host) {
    const QString why = Text(window_, "QuestionNoPassword").arg(host);
    const QString name = QString::fromStdString(service->DisplayName());
    if (status_ != nullptr) status_->Note(service, Text(window_, "RunLine").arg(name, why));
  });
  Follow();
  window.engine().service_added_listeners().Add(this);
}

RunCommands::~RunCommands() {
  window_.engine().service_added_listeners().Remove(this);
  scheduler_.Stop(false);
  const std::vector<MailService*> services = MailServices(window_.engine());
  for (MailService* service : services) {
    prompts_->Detach(*service);
    service->Stop(true);
  }
  prompts_->Close();
  // A question already on its way waits for this thread: it is answered
  // "no" here, or WaitIdle would wait for it forever.
  for (MailService* service : services) {
    while (service->running()) {
      prompts_->DeliverPending();
      QThread::msleep(5);
    }
    service->WaitIdle();
  }
}

void RunCommands::Follow() {
  status_->Follow();
  for (MailService* service : MailServices(window_.engine())) prompts_->Attach(*service);
}

void RunCommands::set_questions(RunQuestions& questions) { prompts_->set_questions(questions); }

void RunCommands::StartSchedule(bool startup_runs, bool periodic) {
  Follow();
  if (startup_runs && !periodic) scheduler_.StartupRuns(SyncScheduler::Clock::now());
  periodic_ = periodic;
  if (periodic) scheduler_.Start(startup_runs);
}

void RunCommands::SetPeriodic(bool periodic) {
  if (periodic == periodic_) return;
  periodic_ = periodic;
  if (periodic) {
    scheduler_.Start(false);
  } else {
    scheduler_.Stop(false);
  }
}

void RunCommands::PauseSchedule() { scheduler_.Stop(false); }

void RunCommands::ResumeSchedule() {
  if (periodic_) scheduler_.Start(false);
}

void RunCommands::OnServiceAdded(EngineService&) { Follow(); }

void RunCommands::RebuildAccounts() {
  QMenu* accounts = window_.menu(MainWindow::Menu::kAccounts);
  qDeleteAll(account_actions_);
  account_actions_.clear();
  for (MailService* service : MailServices(window_.engine())) {
    auto* action = new QAction(Text(window_, "CommandSyncOne").arg(QString::fromStdString(service->DisplayName())),
                               accounts);
    // The service may be gone when the command comes: Synchronize checks.
    connect(action, &QAction::triggered, this, [this, service] { Synchronize(service).Ignore(); });
    accounts->insertAction(accounts_end_, action);
    account_actions_ << action;
  }
}

Result RunCommands::Synchronize(MailService* service) {
  const std::vector<MailService*> services = MailServices(window_.engine());
  if (std::find(services.begin(), services.end(), service) == services.end()) return rc::kInvalidArg;
  Follow();
  const Result r = service->Start(true, true);
  if (r.failed()) {
    const QString why = Text(window_, "RunCannotStart").arg(QString::fromStdString(ResultText(r)));
    status_->Note(service, Text(window_, "RunLine").arg(QString::fromStdString(service->DisplayName()), why));
  }
  return r;
}

int RunCommands::SynchronizeAll() {
  int started = 0;
  for (MailService* service : MailServices(window_.engine())) {
    if (service->settings().synchronize && Synchronize(service).ok()) ++started;
  }
  return started;
}

void RunCommands::StopAll() {
  for (MailService* service : MailServices(window_.engine())) {
    if (service->running()) service->Stop(true);
  }
}

LogWindow* RunCommands::ShowLog() {
  if (log_ == nullptr) {
    log_ = new LogWindow(window_.engine().data_directory() / ActivityLog::kFileName, window_.texts(), &window_);
  } else {
    log_->Refresh();
  }
  log_->show();
  log_->raise();
  log_->activateWindow();
  return log_;
}

void RunCommands::Integrate(bool on) {
  DesktopIntegration desktop;
  const Result r = on ? desktop.Integrate() : desktop.Desintegrate();
  const QString subject = QString::fromStdString(desktop.subject());
  QString said;
  switch (desktop.problem()) {
    case DesktopIntegration::Problem::kNone:
      said = Text(window_, on ? "DesktopIntegrated" : "DesktopDesintegrated");
      break;
    case DesktopIntegration::Problem::kProgramMissing:
      said = Text(window_, "DesktopNoProgram").arg(subject);
      break;
    case DesktopIntegration::Problem::kProgramFailed:
      said = Text(window_, "DesktopProgramFailed").arg(subject, QString::number(desktop.exit_code()));
      break;
    case DesktopIntegration::Problem::kFileFailed:
      said = Text(window_, "DesktopFileFailed").arg(subject, QString::fromStdString(ResultText(r)));
      break;
  }
  status_->ShowMessage(said);
}

bool HandleMailto(MainWindow& window, const QString& command_line) {
  const QString line = command_line.trimmed();
  if (!line.startsWith("mailto:", Qt::CaseInsensitive)) return false;
  OpenMailtoCompose(window, line.section(' ', 0, 0));
  return true;
}

}  // namespace trv::gui
