// The main window in its three-pane form: the folder tree on the left, the
// message list above the reading view on the right. Selecting a folder
// lists its messages; selecting a message shows it. The window follows
// the engine: a changed folder tree is shown again, a changed message list
// keeps the selected message.
//
// Threads: interface thread. The engine outlives the window (start-up
// acquires it before and releases it after).
#pragma once

#include <QMainWindow>
#include <QString>
#include <cstdint>

#include "app/gui/folder_tree.h"
#include "app/gui/language.h"
#include "app/gui/message_list_model.h"
#include "app/gui/reading_view.h"
#include "core/engine_listeners.h"

class QMenu;
class QSplitter;
class QTableView;

namespace trv {
class MailEngine;
class MailFolder;
}  // namespace trv

namespace trv::gui {

class MainWindow final : public QMainWindow, public FolderTreeListener {
  Q_OBJECT

 public:
  // The window's class name; the single-instance socket is named after it.
  static constexpr const char* kClassName = "TarvoMailMainWnd";

  MainWindow(MailEngine& engine, const LanguageTable& texts, const QString& title);
  ~MainWindow() override;

  // The menu bar's menus; each area adds its commands to them.
  enum class Menu { kFile, kFolder, kMessage, kView, kAccounts, kCount };
  QMenu* menu(Menu which) const { return menus_[static_cast<int>(which)]; }
  MailEngine& engine() const { return engine_; }
  const LanguageTable& texts() const { return texts_; }

  // Selects the folder in the tree (and so lists its messages); false when
  // the tree does not show it.
  bool SelectFolder(const MailFolder* folder);
  // Selects the message in `row` of the list (and so shows it).
  void SelectRow(int row);

  // Another process was started: come to the front; a command line it
  // handed over is kept (what it asks for comes with the compose window),
  // and a message file it names is shown in a reading window.
  void Activate(const QString& command_line);
  const QString& handed_command_line() const { return handed_command_line_; }

  // The division of the panes, in Qt's encoding (GuiOptions keeps it).
  QByteArray SavePanes() const;
  void RestorePanes(const QByteArray& state);

  FolderTree& folder_tree() { return *tree_; }
  QTableView& message_list() { return *list_; }
  MessageListModel& message_model() { return *model_; }
  ReadingView& reading_view() { return *view_; }

  // FolderTreeListener (interface thread).
  void OnFolderTreeChanged(Storage& storage, const FolderTreeChange& change) override;

 private:
  void FolderChanged();
  void ListReloaded();
  void MessageChanged();

  MailEngine& engine_;
  const LanguageTable& texts_;
  QMenu* menus_[static_cast<int>(Menu::kCount)] = {};
  FolderTree* tree_;
  MessageListModel* model_;
  QTableView* list_;
  ReadingView* view_;
  QSplitter* panes_;
  QSplitter* right_;
  QString handed_command_line_;
  uint32_t shown_key_ = 0;  // the message in the reading view; 0: none
};

}  // namespace trv::gui
