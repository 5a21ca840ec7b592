// The folder commands of the Folder menu and of the folder tree's context
// menu: New folder (under the selected folder or storage), Rename, Delete
// (after a confirmation; the folder's messages go with it, as the command
// line's rmdir --force does), Move (to a parent chosen in a list, or by
// dragging the folder onto another of its storage). The engine's rules
// decide (store/storage.h); a refusal is shown naming the folder and the
// engine's cause. While a run of an account of the storage is under way,
// its folders are not deleted or moved (the run may be using them): the
// person is told to try again after it.
//
// It also keeps the tree and the message list from holding a storage's
// folders across its closing (a move of the data directory, a deleted
// account's storage): the list lets go of a folder there and the tree
// forgets the storage before its files go, and shows it again once it is
// opened.
//
// Threads: interface thread. A QObject child of the window; the engine
// outlives it.
#pragma once

#include <QObject>

#include "base/result.h"
#include "core/engine_listeners.h"

class QAction;

namespace trv {
class MailFolder;
}

namespace trv::gui {

class MainWindow;
class UserQuestions;

class FolderCommands final : public QObject, public StorageClosingListener, public StorageOpenedListener {
  Q_OBJECT

 public:
  explicit FolderCommands(MainWindow& window);
  ~FolderCommands() override;

  // Where the questions go (tests answer them); the default asks in boxes.
  void set_questions(UserQuestions& questions) { questions_ = &questions; }
  // Whether deleting asks first (the options); on by default.
  void set_confirm(bool on) { confirm_ = on; }

  // The commands, on the folder tree's current item. Each returns whether
  // it changed anything.
  bool NewFolder();
  bool RenameFolder();
  bool DeleteFolder();
  bool MoveFolder();
  // Moves `folder` with its subtree under `new_parent`.
  bool MoveFolderTo(MailFolder* folder, MailFolder* new_parent);

  // StorageClosingListener, StorageOpenedListener.
  void OnStorageAboutToClose(Storage& storage) override;
  void OnStorageOpened(Storage& storage) override;

 private:
  void UpdateActions();
  void Refused(const char* id, const QString& folder, const QString& other, Result r);

  MainWindow& window_;
  UserQuestions* questions_;
  bool confirm_ = true;
  QAction* new_folder_;
  QAction* rename_;
  QAction* delete_;
  QAction* move_;
};

}  // namespace trv::gui
