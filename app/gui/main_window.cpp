#include "app/gui/main_window.h"

#include <QHeaderView>
#include <QMenu>
#include <QMenuBar>
#include <QTableView>
#include <QThread>

#include "app/gui/account_commands.h"
#include "app/gui/compose_window.h"
#include "app/gui/folder_commands.h"
#include "app/gui/message_commands.h"
#include "app/gui/options_dialog.h"
#include "app/gui/reading_window.h"
#include "app/gui/reply_commands.h"
#include "app/gui/run_commands.h"
#include "app/gui/search_field.h"
#include "core/engine.h"
#include "store/mail_folder.h"

namespace trv::gui {

MainWindow::MainWindow(MailEngine& engine, const LanguageTable& texts, const QString& title)
    : engine_(engine), texts_(texts) {
  setObjectName(kClassName);
  setWindowTitle(title);
  static constexpr const char* kMenuTexts[] = {"MenuFile", "MenuFolder", "MenuMessage", "MenuView", "MenuAccounts"};
  for (int i = 0; i < static_cast<int>(Menu::kCount); ++i) {
    menus_[i] = menuBar()->addMenu(QString::fromStdString(texts.Text(kMenuTexts[i])));
  }

  tree_ = new FolderTree(texts);
  model_ = new MessageListModel(texts, this);
  list_ = new QTableView;
  list_->setModel(model_);
  list_->setSortingEnabled(true);
  list_->setSelectionBehavior(QAbstractItemView::SelectRows);
  list_->setSelectionMode(QAbstractItemView::ExtendedSelection);
  list_->verticalHeader()->hide();
  list_->horizontalHeader()->setStretchLastSection(false);
  list_->horizontalHeader()->setSectionResizeMode(MessageListModel::kSubject, QHeaderView::Stretch);
  list_->setShowGrid(false);
  list_->setColumnWidth(MessageListModel::kFrom, 200);
  list_->setColumnWidth(MessageListModel::kDate, list_->fontMetrics().horizontalAdvance("0000-00-00 00:00") + 24);
  list_->setWordWrap(false);
  list_->verticalHeader()->setDefaultSectionSize(list_->fontMetrics().height() + 6);
  // The index order until the user picks a column.
  list_->horizontalHeader()->setSortIndicator(-1, Qt::AscendingOrder);
  view_ = new ReadingView(texts);

  resize(900, 600);

  connect(tree_, &QTreeWidget::currentItemChanged, this, [this] { FolderChanged(); });
  connect(list_->selectionModel(), &QItemSelectionModel::currentRowChanged, this, [this] { MessageChanged(); });

  connect(model_, &MessageListModel::reloaded, this, [this] { ListReloaded(); });
  engine_.folder_tree_listeners().Add(this);

  tree_->Rebuild(engine_);

  // The commands of each area, each from its own file.
  // -- folder and message commands --
  new FolderCommands(*this);
  new MessageCommands(*this);
  // -- view modes --
  view_modes_ = new ViewModes(*this);
  // -- reading view --
  ConnectReadingView(*this, *view_);
  // -- runs and desktop integration --
  new RunCommands(*this);
  // -- compose --
  InstallComposeCommands(*this);
  // -- accounts --
  new AccountCommands(*this);
  // -- replies and forwards --
  new ReplyCommands(*this);
  // -- options and questions --
  new OptionsCommands(*this);
  // -- search --
  new SearchField(*this);

  menu(Menu::kFile)->addSeparator();
  QAction* quit = menu(Menu::kFile)->addAction(QString::fromStdString(texts.Text("CommandExit")));
  quit->setShortcut(QKeySequence::Quit);
  connect(quit, &QAction::triggered, this, &QWidget::close);

  // Start in the first storage's Inbox.
  for (Storage* storage : engine_.storages()) {
    if (storage->is_open() && SelectFolder(storage->SpecialFolder(kFolderInbox))) break;
  }
}

MainWindow::~MainWindow() { engine_.folder_tree_listeners().Remove(this); }

void MainWindow::OnFolderTreeChanged(Storage& storage, const FolderTreeChange& change) {
  // A worker's change (an IMAP4 run making a folder) is shown on the
  // interface thread; neither argument is used, so they may be gone by then.
  // Only the interface thread deletes or moves folders.
  if (QThread::currentThread() != thread()) {
    QMetaObject::invokeMethod(this, [this, &storage, change] { OnFolderTreeChanged(storage, change); },
                              Qt::QueuedConnection);
    return;
  }
  MailFolder* shown = model_->folder();
  bool exists = false;
  for (Storage* storage : engine_.storages()) {
    if (storage->is_open()) storage->ForEachFolder([&](MailFolder& f) { exists = exists || &f == shown; });
  }
  // A deleted folder's file is gone with it: the model must not touch it.
  if (shown != nullptr && !exists) model_->ForgetFolder();
  const QSignalBlocker quiet(tree_);
  tree_->Rebuild(engine_);
  if (exists) tree_->setCurrentItem(tree_->ItemOf(shown));
}

void MainWindow::ListReloaded() {
  // The shown message stays selected where it now is.
  for (int row = 0; row < model_->rowCount(); ++row) {
    if (model_->RecordAt(row)->key == shown_key_) {
      const QSignalBlocker quiet(list_->selectionModel());
      list_->selectionModel()->setCurrentIndex(model_->index(row, 0), QItemSelectionModel::ClearAndSelect |
                                                                             QItemSelectionModel::Rows);
      return;
    }
  }
  if (shown_key_ != 0) {
    shown_key_ = 0;
    view_->ShowNothing();
  }
}

bool MainWindow::SelectFolder(const MailFolder* folder) {
  QTreeWidgetItem* item = folder == nullptr ? nullptr : tree_->ItemOf(folder);
  if (item == nullptr) return false;
  tree_->setCurrentItem(item);
  return true;
}

void MainWindow::SelectRow(int row) {
  list_->selectionModel()->setCurrentIndex(model_->index(row, 0),
                                           QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
}

void MainWindow::ApplyOptions(const GuiOptions& options) {
  if (!options.main_geometry.isEmpty()) restoreGeometry(options.main_geometry);
  view_modes_->RestorePanes(options.main_panes);
  QHeaderView* header = list_->horizontalHeader();
  if (!options.list_columns.isEmpty()) header->restoreState(options.list_columns);
  const int column =
      options.sort_column >= 0 && options.sort_column < MessageListModel::kColumnCount ? options.sort_column : -1;
  const Qt::SortOrder order = options.sort_descending ? Qt::DescendingOrder : Qt::AscendingOrder;
  // A changed indicator sorts the list; one that the columns' state set
  // already did not.
  const bool set_already = header->sortIndicatorSection() == column && header->sortIndicatorOrder() == order;
  header->setSortIndicator(column, order);
  if (set_already && column >= 0) model_->sort(column, order);
  send_at_once_ = options.send_at_once;
  if (options.view_mode < kViewModeCount) view_modes_->SetMode(static_cast<ViewMode>(options.view_mode));
  for (Storage* storage : engine_.storages()) {
    if (storage->is_open() && storage->name() == options.last_storage) {
      if (SelectFolder(storage->FindFolder(options.last_folder))) break;
    }
  }
}

void MainWindow::KeepOptions(GuiOptions* options) const {
  options->main_geometry = saveGeometry();
  options->main_panes = view_modes_->SavePanes();
  const QHeaderView* header = list_->horizontalHeader();
  options->list_columns = header->saveState();
  options->sort_column = header->sortIndicatorSection();
  options->sort_descending = header->sortIndicatorOrder() == Qt::DescendingOrder;
  options->view_mode = static_cast<uint32_t>(view_modes_->mode());
  options->send_at_once = send_at_once_;
  if (const MailFolder* folder = model_->folder()) {
    WString path;
    for (const MailFolder* f = folder; !f->is_root(); f = f->parent()) {
      path = path.empty() ? f->name() : f->name() + u"/" + path;
    }
    options->last_storage = folder->storage().name();
    options->last_folder = path;
  }
}

void MainWindow::Activate(const QString& command_line) {
  if (!command_line.isEmpty()) handed_command_line_ = command_line;
  if (isMinimized()) showNormal();
  raise();
  activateWindow();
  if (const std::optional<std::filesystem::path> file = MessageFileOf(command_line)) {
    OpenMessageFile(*this, *file);
  } else {
    HandleMailto(*this, command_line);
  }
}

void MainWindow::FolderChanged() {
  MailFolder* folder = FolderTree::FolderOf(tree_->currentItem());
  shown_key_ = 0;
  model_->SetFolder(folder);
  const QHeaderView* header = list_->horizontalHeader();
  if (header->sortIndicatorSection() >= 0) model_->sort(header->sortIndicatorSection(), header->sortIndicatorOrder());
  view_->ShowNothing();
}

void MainWindow::MessageChanged() {
  const MessageRecord* record = model_->RecordAt(list_->selectionModel()->currentIndex().row());
  MailFolder* folder = model_->folder();
  if (record == nullptr || folder == nullptr || !folder->available()) {
    shown_key_ = 0;
    view_->ShowNothing();
    return;
  }
  shown_key_ = record->key;
  view_->ShowMessage(*folder, record->key);
}

}  // namespace trv::gui
