// The Message menu's answering commands: Reply (Ctrl+R), Reply to all
// (Ctrl+Shift+R) and Forward (Ctrl+L), after the compose window's New
// message (app/gui/compose_window.h). They act on the list's
// current message (a reading window's commands on its own message): it is
// parsed from its folder file, the reply or forward is built by
// mime/reply.h, and a compose window is opened for the account that keeps
// its mail in the folder's storage (the default account for the local
// folders and for message files). Our own addresses, left out of Reply to
// all, are those of every account.
//
// The quoted text is the original's plain text, or the plain-text reading
// of an HTML-only original (mime/reply.h OriginalText).
//
// Threads: interface thread. A QObject child of the window.
#pragma once

#include <QObject>

#include "mime/reply.h"

class QAction;
class QMainWindow;

namespace trv {
class CXmMimeMessage;
class MailFolder;
class MailService;
}  // namespace trv

namespace trv::gui {

class ComposeWindow;
class MainWindow;
class ReadingWindow;

class ReplyCommands final : public QObject {
  Q_OBJECT

 public:
  explicit ReplyCommands(MainWindow& window);

  // A compose window with the reply or forward of the list's current
  // message; null when there is none or it cannot be read (said in the
  // status bar).
  ComposeWindow* Respond(ReplyKind kind);

 private:
  void UpdateActions();

  MainWindow& window_;
  QAction* reply_;
  QAction* reply_all_;
  QAction* forward_;
};

// Opens a compose window with the reply or forward of `original` for
// `account` (null: the default account).
ComposeWindow* OpenResponse(MainWindow& main, const CXmMimeMessage& original, ReplyKind kind, MailService* account);

// The service that keeps its mail in the folder's storage, or null.
MailService* AccountOfFolder(MainWindow& main, const MailFolder* folder);

// Gives a reading window a Message menu with Reply, Reply to all and
// Forward on the message it shows.
void AddReplyCommands(MainWindow& main, ReadingWindow& window);

}  // namespace trv::gui
