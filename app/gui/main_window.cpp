#include "app/gui/main_window.h"

#include <QHeaderView>
#include <QSplitter>
#include <QTableView>

#include "core/engine.h"
#include "store/mail_folder.h"

namespace trv::gui {

MainWindow::MainWindow(MailEngine& engine, const LanguageTable& texts, const QString& title) : engine_(engine) {
  setObjectName(kClassName);
  setWindowTitle(title);

  tree_ = new FolderTree(texts);
  model_ = new MessageListModel(texts, this);
  list_ = new QTableView;
  list_->setModel(model_);
  list_->setSortingEnabled(true);
  list_->setSelectionBehavior(QAbstractItemView::SelectRows);
  list_->setSelectionMode(QAbstractItemView::SingleSelection);
  list_->verticalHeader()->hide();
  list_->horizontalHeader()->setStretchLastSection(false);
  list_->horizontalHeader()->setSectionResizeMode(MessageListModel::kSubject, QHeaderView::Stretch);
  list_->setShowGrid(false);
  // The index order until the user picks a column.
  list_->horizontalHeader()->setSortIndicator(-1, Qt::AscendingOrder);
  view_ = new ReadingView(texts);

  auto* right = new QSplitter(Qt::Vertical);
  right->addWidget(list_);
  right->addWidget(view_);
  auto* panes = new QSplitter(Qt::Horizontal);
  panes->addWidget(tree_);
  panes->addWidget(right);
  panes->setStretchFactor(1, 3);
  setCentralWidget(panes);
  resize(900, 600);

  connect(tree_, &QTreeWidget::currentItemChanged, this, [this] { FolderChanged(); });
  connect(list_->selectionModel(), &QItemSelectionModel::currentRowChanged, this, [this] { MessageChanged(); });

  tree_->Rebuild(engine_);
  // Start in the first storage's Inbox.
  for (Storage* storage : engine_.storages()) {
    if (storage->is_open() && SelectFolder(storage->SpecialFolder(kFolderInbox))) break;
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

void MainWindow::Activate(const QString& command_line) {
  if (!command_line.isEmpty()) handed_command_line_ = command_line;
  if (isMinimized()) showNormal();
  raise();
  activateWindow();
}

void MainWindow::FolderChanged() {
  MailFolder* folder = FolderTree::FolderOf(tree_->currentItem());
  model_->SetFolder(folder);
  // A new folder shows in index order until a column is picked again.
  list_->horizontalHeader()->setSortIndicator(-1, Qt::AscendingOrder);
  view_->ShowNothing();
}

void MainWindow::MessageChanged() {
  const MessageRecord* record = model_->RecordAt(list_->selectionModel()->currentIndex().row());
  MailFolder* folder = model_->folder();
  if (record == nullptr || folder == nullptr || !folder->available()) {
    view_->ShowNothing();
    return;
  }
  view_->ShowMessage(*folder->file(), record->key);
}

}  // namespace trv::gui
