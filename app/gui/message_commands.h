// The message commands of the Message menu, of the list's context menu and
// of its keys, on the list's selected messages (several may be selected):
// Delete (Del: moved into their storage's "Deleted"; in "Deleted" itself
// deleted for good after a confirmation, as the command line's rm does),
// Mark as read (Ctrl+K) and Mark as unread (Ctrl+U). After a delete the
// message after the deleted ones is selected (else the one before them).
// A message shown in the reading view for kMarkReadDelay is marked read,
// a partially loaded one too.
//
// Messages dragged from the list onto a folder of the tree are moved there,
// or copied when the drop says so (Ctrl), within a storage or across
// storages (store/storage_messages.h). Refusals are shown naming the folder
// and the engine's cause.
//
// Threads: interface thread. A QObject child of the window.
#pragma once

#include <QObject>
#include <QTimer>
#include <chrono>
#include <cstdint>
#include <vector>

#include "base/result.h"

class QAction;

namespace trv {
class MailFolder;
}

namespace trv::gui {

class MainWindow;
class UserQuestions;

class MessageCommands final : public QObject {
  Q_OBJECT

 public:
  static constexpr std::chrono::milliseconds kMarkReadDelay{1000};

  explicit MessageCommands(MainWindow& window);

  // Where the questions go (tests answer them); the default asks in boxes.
  void set_questions(UserQuestions& questions) { questions_ = &questions; }
  // Whether deleting asks first (the options); on by default.
  void set_confirm(bool on) { confirm_ = on; }

  // The keys of the selected messages, in list order.
  std::vector<uint32_t> SelectedKeys() const;
  // The commands on the selected messages; whether anything changed.
  bool DeleteSelected();
  bool MarkSelected(bool read);
  // Moves (or copies) messages of `from` into `to`.
  bool Transfer(MailFolder* from, const std::vector<uint32_t>& keys, MailFolder* to, bool copy);

 private:
  void UpdateActions();
  void CurrentChanged();
  void MarkShownRead();
  void Refused(const QString& text);

  MainWindow& window_;
  UserQuestions* questions_;
  bool confirm_ = true;
  QAction* delete_;
  QAction* mark_read_;
  QAction* mark_unread_;
  QTimer mark_timer_;
  MailFolder* pending_folder_ = nullptr;  // the shown message that the timer marks read
  uint32_t pending_key_ = 0;
};

}  // namespace trv::gui
