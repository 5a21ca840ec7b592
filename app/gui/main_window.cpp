#include "app/gui/main_window.h"

#include <QDataStream>
#include <QIODevice>
#include <QHeaderView>
#include <QMenu>
#include <QMenuBar>
#include <QSplitter>
#include <QTableView>
#include <QThread>

#include "app/gui/folder_commands.h"
#include "app/gui/message_commands.h"
#include "app/gui/reading_window.h"
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

  right_ = new QSplitter(Qt::Vertical);
  right_->addWidget(list_);
  right_->addWidget(view_);
  panes_ = new QSplitter(Qt::Horizontal);
  panes_->addWidget(tree_);
  panes_->addWidget(right_);
  panes_->setStretchFactor(1, 3);
  setCentralWidget(panes_);
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
  // -- reading view --
  ConnectReadingView(*this, *view_);
  // -- runs and desktop integration --

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

QByteArray MainWindow::SavePanes() const {
  QByteArray state;
  QDataStream out(&state, QIODevice::WriteOnly);
  out << panes_->saveState() << right_->saveState();
  return state;
}

void MainWindow::RestorePanes(const QByteArray& state) {
  QByteArray outer;
  QByteArray inner;
  QDataStream in(state);
  in >> outer >> inner;
  if (in.status() != QDataStream::Ok) return;  // not ours: the default division stays
  panes_->restoreState(outer);
  right_->restoreState(inner);
}

void MainWindow::Activate(const QString& command_line) {
  if (!command_line.isEmpty()) handed_command_line_ = command_line;
  if (isMinimized()) showNormal();
  raise();
  activateWindow();
  if (const std::optional<std::filesystem::path> file = MessageFileOf(command_line)) OpenMessageFile(*this, *file);
}

void MainWindow::FolderChanged() {
  MailFolder* folder = FolderTree::FolderOf(tree_->currentItem());
  shown_key_ = 0;
  model_->SetFolder(folder);
  // A new folder shows in index order until a column is picked again.
  list_->horizontalHeader()->setSortIndicator(-1, Qt::AscendingOrder);
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
