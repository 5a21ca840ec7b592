#include "app/gui/account_commands.h"

#include <QAction>
#include <QMenu>
#include <algorithm>

#include "app/gui/account_editor.h"
#include "app/gui/main_window.h"
#include "app/gui/run_commands.h"
#include "app/gui/user_questions.h"
#include "services/service_registry.h"
#include "store/storage.h"

namespace trv::gui {

namespace {

QString Text(const MainWindow& window, const char* id) { return QString::fromStdString(window.texts().Text(id)); }

}  // namespace

AccountCommands::AccountCommands(MainWindow& window)
    : QObject(&window), window_(window), questions_(&UserQuestions::Boxes()) {
  QMenu* accounts = window.menu(MainWindow::Menu::kAccounts);
  QAction* first = accounts->actions().value(0);  // the run commands' entries follow ours
  new_account_ = new QAction(Text(window, "CommandNewAccount"), accounts);
  accounts->insertAction(first, new_account_);
  end_ = new QAction(accounts);
  end_->setSeparator(true);
  accounts->insertAction(first, end_);
  connect(new_account_, &QAction::triggered, this, [this] { NewAccount(); });
  connect(accounts, &QMenu::aboutToShow, this, [this] { RebuildAccounts(); });
  RebuildAccounts();
}

void AccountCommands::RebuildAccounts() {
  QMenu* accounts = window_.menu(MainWindow::Menu::kAccounts);
  qDeleteAll(account_actions_);
  account_actions_.clear();
  const std::vector<MailService*> services = MailServices(window_.engine());
  for (const bool edit : {true, false}) {
    const char* id = edit ? "CommandEditAccount" : "CommandDeleteAccount";
    for (MailService* service : services) {
      auto* action = new QAction(Text(window_, id).arg(QString::fromStdString(service->DisplayName())), accounts);
      // The service may be gone when the command comes: both commands check.
      connect(action, &QAction::triggered, this, [this, service, edit] {
        if (edit) {
          EditAccount(service);
        } else {
          DeleteAccount(service);
        }
      });
      accounts->insertAction(end_, action);
      account_actions_ << action;
    }
  }
}

AccountEditor* AccountCommands::Open(AccountEditor* editor) {
  editor->setAttribute(Qt::WA_DeleteOnClose);
  editor->open();
  return editor;
}

AccountEditor* AccountCommands::NewAccount() {
  int chosen = 0;
  if (!questions_->AskChoice(&window_, Text(window_, "AccCaption"), Text(window_, "AccAskClass"),
                             {Text(window_, "AccClassPop3"), Text(window_, "AccClassImap4")}, &chosen)) {
    return nullptr;
  }
  return Open(new AccountEditor(window_.engine(), window_.texts(), nullptr, chosen == 1 ? "IMAP4" : "POP3", &window_));
}

AccountEditor* AccountCommands::EditAccount(MailService* service) {
  const std::vector<MailService*> services = MailServices(window_.engine());
  if (std::find(services.begin(), services.end(), service) == services.end()) return nullptr;
  return Open(new AccountEditor(window_.engine(), window_.texts(), service, {}, &window_));
}

bool AccountCommands::DeleteAccount(MailService* service) {
  const std::vector<MailService*> services = MailServices(window_.engine());
  if (std::find(services.begin(), services.end(), service) == services.end()) return false;
  const QString caption = Text(window_, "AccCaption");
  const QString name = QString::fromStdString(service->DisplayName());
  const QString storage = QString::fromStdU16String(service->storage().name());
  if (!questions_->Confirm(&window_, caption, Text(window_, "AccAskDelete").arg(name))) return false;
  int chosen = 0;
  if (!questions_->AskChoice(&window_, caption, Text(window_, "AccAskStorage").arg(storage),
                             {Text(window_, "AccKeepStorage").arg(storage), Text(window_, "AccDeleteStorage").arg(storage)},
                             &chosen)) {
    return false;
  }
  // The automatic runs' timer walks the services: not while one goes.
  auto* runs = window_.findChild<RunCommands*>(QString(), Qt::FindDirectChildrenOnly);
  if (runs != nullptr) runs->PauseSchedule();
  const Result r = RemoveService(window_.engine(), service, chosen == 1);
  if (runs != nullptr) {
    runs->ResumeSchedule();
    runs->Follow();
  }
  if (r.failed()) {
    questions_->Tell(&window_, caption,
                     Text(window_, "AccCannotDelete").arg(name, QString::fromStdString(ResultText(r))));
    return false;
  }
  return true;
}

}  // namespace trv::gui
