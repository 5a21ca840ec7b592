// The account commands at the top of the Accounts menu: "New account..."
// (asks POP3 or IMAP4, then opens the editor), and "Edit account NAME..."
// and "Delete account NAME..." for each account, rebuilt each time the menu
// opens. Deleting asks first, then whether the account's folders and
// messages go too, and removes it (services/service_registry.h
// RemoveService, which stops its runs first).
//
// Threads: interface thread. A QObject child of the main window; the
// editors it opens are window-modal children of the window that delete
// themselves when closed.
#pragma once

#include <QList>
#include <QObject>

class QAction;

namespace trv {
class MailService;
}

namespace trv::gui {

class AccountEditor;
class MainWindow;
class UserQuestions;

class AccountCommands final : public QObject {
  Q_OBJECT

 public:
  explicit AccountCommands(MainWindow& window);

  // Where the questions go (tests answer them); the default asks in boxes.
  void set_questions(UserQuestions& questions) { questions_ = &questions; }

  // Opens the editor (not waiting for it); null when the class question
  // was cancelled.
  AccountEditor* NewAccount();
  AccountEditor* EditAccount(MailService* service);
  // Whether the account was removed. A service the engine no longer holds
  // is not touched.
  bool DeleteAccount(MailService* service);

  QAction* new_account() const { return new_account_; }

 private:
  AccountEditor* Open(AccountEditor* editor);
  void RebuildAccounts();

  MainWindow& window_;
  UserQuestions* questions_;
  QAction* new_account_;
  QAction* end_;  // the per-account commands go before it
  QList<QAction*> account_actions_;
};

}  // namespace trv::gui
