#include "app/gui/message_commands.h"

#include <QAction>
#include <QItemSelectionModel>
#include <QMenu>
#include <QTableView>
#include <algorithm>
#include <set>

#include "app/gui/main_window.h"
#include "app/gui/user_questions.h"
#include "base/wide_string.h"
#include "core/engine.h"
#include "services/message_actions.h"
#include "store/mail_folder.h"
#include "store/storage_messages.h"

namespace trv::gui {

namespace {

QString PathOf(const MailFolder& folder) { return QString::fromStdString(WideToUtf8(folder.PathText())); }

}  // namespace

MessageCommands::MessageCommands(MainWindow& window)
    : QObject(&window), window_(window), questions_(&UserQuestions::Boxes()) {
  const LanguageTable& texts = window.texts();
  QTableView& list = window.message_list();
  auto add = [&](const char* id, const QKeySequence& keys, auto command) {
    QAction* action = window.menu(MainWindow::Menu::kMessage)->addAction(QString::fromStdString(texts.Text(id)));
    action->setShortcut(keys);
    // The keys act while the list has the focus (the tree has its own Delete).
    action->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    list.addAction(action);
    connect(action, &QAction::triggered, this, command);
    return action;
  };
  delete_ = add("MessageDelete", QKeySequence::Delete, [this] { DeleteSelected(); });
  mark_read_ = add("MessageMarkRead", QKeySequence(Qt::CTRL | Qt::Key_K), [this] { MarkSelected(true); });
  mark_unread_ = add("MessageMarkUnread", QKeySequence(Qt::CTRL | Qt::Key_U), [this] { MarkSelected(false); });

  list.setContextMenuPolicy(Qt::CustomContextMenu);
  connect(&list, &QWidget::customContextMenuRequested, this, [this, &list](const QPoint& pos) {
    QMenu menu;
    menu.addActions({mark_read_, mark_unread_});
    menu.addSeparator();
    menu.addAction(delete_);
    menu.exec(list.viewport()->mapToGlobal(pos));
  });
  // Rows are dragged onto the tree; the model gives the data.
  list.setDragEnabled(true);
  list.setDragDropMode(QAbstractItemView::DragOnly);
  list.setDefaultDropAction(Qt::MoveAction);
  connect(&window.folder_tree(), &FolderTree::messagesDropped, this,
          [this](MailFolder* from, const std::vector<uint32_t>& keys, MailFolder* to, bool copy) {
            Transfer(from, keys, to, copy);
          });

  mark_timer_.setSingleShot(true);
  mark_timer_.setInterval(kMarkReadDelay);
  connect(&mark_timer_, &QTimer::timeout, this, [this] { MarkShownRead(); });
  connect(list.selectionModel(), &QItemSelectionModel::currentRowChanged, this, [this] { CurrentChanged(); });
  connect(list.selectionModel(), &QItemSelectionModel::selectionChanged, this, [this] { UpdateActions(); });
  connect(&window.message_model(), &QAbstractItemModel::modelReset, this, [this] { UpdateActions(); });
  UpdateActions();
}

void MessageCommands::UpdateActions() {
  const bool any = window_.message_list().selectionModel()->hasSelection();
  for (QAction* action : {delete_, mark_read_, mark_unread_}) action->setEnabled(any);
}

std::vector<uint32_t> MessageCommands::SelectedKeys() const {
  QModelIndexList rows = window_.message_list().selectionModel()->selectedRows();
  std::sort(rows.begin(), rows.end(), [](const QModelIndex& a, const QModelIndex& b) { return a.row() < b.row(); });
  std::vector<uint32_t> keys;
  for (const QModelIndex& row : rows) {
    if (const MessageRecord* record = window_.message_model().RecordAt(row.row())) keys.push_back(record->key);
  }
  return keys;
}

void MessageCommands::Refused(const QString& text) {
  questions_->Tell(&window_, QString::fromStdString(window_.texts().Text("MessageCaption")), text);
}

bool MessageCommands::DeleteSelected() {
  MessageListModel& model = window_.message_model();
  MailFolder* folder = model.folder();
  const std::vector<uint32_t> keys = SelectedKeys();
  if (folder == nullptr || !folder->available() || keys.empty()) return false;
  const LanguageTable& texts = window_.texts();
  const bool for_good = DeletesForGood(*folder);
  if (for_good && confirm_ && !questions_->Confirm(&window_, QString::fromStdString(texts.Text("MessageCaption")),
                                       QString::fromStdString(texts.Text("MessagePurgeConfirm"))
                                           .arg(keys.size())
                                           .arg(PathOf(*folder)))) {
    return false;
  }
  // The message after the deleted ones is selected next, else the one
  // before them.
  const std::set<uint32_t> going(keys.begin(), keys.end());
  int last = -1;
  for (int row = 0; row < model.rowCount(); ++row) {
    if (going.count(model.RecordAt(row)->key) != 0) last = row;
  }
  uint32_t next = 0;
  for (int row = last + 1; row < model.rowCount() && next == 0; ++row) next = model.RecordAt(row)->key;
  for (int row = last - 1; row >= 0 && next == 0; --row) {
    if (going.count(model.RecordAt(row)->key) == 0) next = model.RecordAt(row)->key;
  }

  MailFolder* deleted = nullptr;
  const Result r = for_good ? DeleteMessagesForGood(window_.engine().FileOps(), *folder, keys)
                            : MoveToDeleted(*folder, keys, &deleted);
  if (r.failed()) {
    Refused(QString::fromStdString(texts.Text(for_good ? "MessageDeleteRefused" : "MessageTrashRefused"))
                .arg(PathOf(*folder), QString::fromStdString(ResultText(r))));
  }
  model.Reload();
  for (int row = 0; row < model.rowCount(); ++row) {
    if (model.RecordAt(row)->key == next) {
      window_.SelectRow(row);
      break;
    }
  }
  return r.ok();
}

bool MessageCommands::MarkSelected(bool read) {
  MailFolder* folder = window_.message_model().folder();
  const std::vector<uint32_t> keys = SelectedKeys();
  if (folder == nullptr || !folder->available() || keys.empty()) return false;
  if (Result r = MarkMessagesRead(*folder->file(), keys, read, nullptr); r.failed()) {
    Refused(QString::fromStdString(window_.texts().Text("MessageMarkRefused"))
                .arg(PathOf(*folder), QString::fromStdString(ResultText(r))));
    return false;
  }
  // A message marked unread by hand is not marked read again by the timer.
  mark_timer_.stop();
  return true;
}

bool MessageCommands::Transfer(MailFolder* from, const std::vector<uint32_t>& keys, MailFolder* to, bool copy) {
  if (from == nullptr || to == nullptr || from == to || keys.empty()) return false;
  const Result r = copy ? CopyMessages(*from, keys, *to, nullptr) : MoveMessages(*from, keys, *to, nullptr);
  if (r.failed()) {
    Refused(QString::fromStdString(window_.texts().Text(copy ? "MessageCopyRefused" : "MessageMoveRefused"))
                .arg(PathOf(*from), PathOf(*to), QString::fromStdString(ResultText(r))));
    return false;
  }
  return true;
}

void MessageCommands::CurrentChanged() {
  mark_timer_.stop();
  const MessageRecord* record = window_.message_model().RecordAt(window_.message_list().currentIndex().row());
  pending_folder_ = window_.message_model().folder();
  pending_key_ = record != nullptr ? record->key : 0;
  if (record != nullptr && !record->is_read()) mark_timer_.start();
}

void MessageCommands::MarkShownRead() {
  MailFolder* folder = window_.message_model().folder();
  const MessageRecord* record = window_.message_model().RecordAt(window_.message_list().currentIndex().row());
  // Only while the same message is still the one shown.
  if (folder == nullptr || folder != pending_folder_ || record == nullptr || record->key != pending_key_ ||
      !folder->available()) {
    return;
  }
  if (Result r = MarkMessagesRead(*folder->file(), {pending_key_}, true, nullptr); r.failed()) {
    Refused(QString::fromStdString(window_.texts().Text("MessageMarkRefused"))
                .arg(PathOf(*folder), QString::fromStdString(ResultText(r))));
  }
}

}  // namespace trv::gui
