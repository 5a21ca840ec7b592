// How the main window arranges its three widgets (the folder tree, the
// message list, the reading view), in one of three view modes:
//
//   three panes  the tree on the left, the list above the reading view;
//   tabs         one tab page each for the folders, the list and the
//                message; choosing a folder moves to the list's page,
//                opening a message to the message's page;
//   single page  one page at a time, as on a handheld: a header with a Back
//                button says where the person is (the folders, the folder's
//                name, the message's subject).
//
// The same three widgets move between the modes (they are never rebuilt),
// so the shown folder, the selection and the shown message survive a
// switch. The View menu gets the modes (checkable, exclusive), Back and the
// keyboard commands below.
//
// Keyboard:
//   Enter, double click   in the tree: list the folder; in the list: open the
//                         message (tabs, single page: move to its page;
//                         three panes: move the focus to the reading view).
//                         In tabs and single page a plain click does the same.
//   Backspace, Escape,    back one page (tabs and single page only).
//   Alt+Left
//   Ctrl+1, Ctrl+2,       the folders, the list, the message: shown and
//   Ctrl+3                given the focus.
//   F6, Shift+F6          the next / previous of those three.
//   Home, End             in the list: the first / last message.
//   Space                 in the reading view: a page down; at the end, the
//                         next message of the list.
//   Up, Down, Page keys   as the widgets have them.
//
// Created once by the main window, whose central widget it becomes.
// Threads: interface thread.
#pragma once

#include <QByteArray>
#include <QStackedWidget>
#include <cstdint>

class QAction;
class QLabel;
class QSplitter;
class QTabWidget;
class QTableView;

namespace trv::gui {

class MainWindow;

enum class ViewMode : uint32_t { kThreePanes = 0, kTabs = 1, kSinglePage = 2 };
inline constexpr uint32_t kViewModeCount = 3;

// The three widgets, in their forward order.
enum class ViewPage { kFolders = 0, kList = 1, kMessage = 2 };

class ViewModes final : public QStackedWidget {
  Q_OBJECT

 public:
  explicit ViewModes(MainWindow& window);
  ~ViewModes() override;

  ViewMode mode() const { return mode_; }
  // Moves the three widgets into the mode's arrangement; the page shown in
  // tabs and single page stays the one that was shown (the folders at first).
  void SetMode(ViewMode mode);

  // Shows the page (tabs, single page) and gives its widget the focus.
  void ShowPage(ViewPage page);
  // The page shown; in three panes the pane that has the focus (the list
  // when none has).
  ViewPage page() const;
  // One page back; nothing in three panes or on the folders' page.
  void Back();
  // What the single page's header says.
  QString where() const;

  // The panes' division in Qt's encoding, kept while another mode shows.
  QByteArray SavePanes() const;
  void RestorePanes(const QByteArray& state);

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  QWidget* WidgetOf(ViewPage page) const;
  void Cycle(int step);
  void PageChanged();
  void AddActions();

  MainWindow& window_;
  QWidget* widgets_[3];  // by ViewPage: the tree, the list, the reading view
  ViewMode mode_ = ViewMode::kThreePanes;
  QSplitter* panes_;
  QSplitter* right_;
  QByteArray panes_state_;  // the division while another mode shows
  QTabWidget* tabs_;
  QWidget* single_;
  QStackedWidget* pages_;
  QLabel* where_;
  QAction* back_ = nullptr;
  QAction* mode_actions_[kViewModeCount] = {};
};

}  // namespace trv::gui
