// The main window: the folder tree, the message list and the reading view,
// arranged by the view mode (app/gui/view_modes.h). Selecting a folder
// lists its messages; selecting a message shows it. The window follows
// the engine: a changed folder tree is shown again, a changed message list
// keeps the selected message. The list keeps its sort order from folder to
// folder.
//
// Threads: interface thread. The engine outlives the window (start-up
// acquires it before and releases it after).
#pragma once

#include <QMainWindow>
#include <QString>
#include <cstdint>

#include "app/gui/folder_tree.h"
#include "app/gui/gui_options.h"
#include "app/gui/language.h"
#include "app/gui/message_list_model.h"
#include "app/gui/reading_view.h"
#include "app/gui/view_modes.h"
#include "core/engine_listeners.h"

class QMenu;
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

  // Another process was started, or this one with arguments: come to the
  // front; the command line is kept, a message file it names is shown in a
  // reading window, and a mailto: address is answered (HandleMailto).
  void Activate(const QString& command_line);
  const QString& handed_command_line() const { return handed_command_line_; }

  // The compose windows' "send at once" box, kept with the options.
  bool send_at_once() const { return send_at_once_; }
  void set_send_at_once(bool on) { send_at_once_ = on; }

  // The remembered look (app/gui/gui_options.h): place and size, view mode
  // and panes' division, the list's columns and sort order, and the folder
  // shown. A remembered folder that no longer exists leaves the one shown
  // (the first Inbox at start).
  void ApplyOptions(const GuiOptions& options);
  void KeepOptions(GuiOptions* options) const;

  FolderTree& folder_tree() { return *tree_; }
  QTableView& message_list() { return *list_; }
  MessageListModel& message_model() { return *model_; }
  ReadingView& reading_view() { return *view_; }
  ViewModes& view_modes() { return *view_modes_; }

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
  ViewModes* view_modes_ = nullptr;  // the central widget
  QString handed_command_line_;
  uint32_t shown_key_ = 0;  // the message in the reading view; 0: none
  bool send_at_once_ = false;
};

}  // namespace trv::gui
