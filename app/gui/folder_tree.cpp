#include "app/gui/folder_tree.h"

#include <QDrag>
#include <QDragMoveEvent>
#include <QDropEvent>
#include <QHeaderView>
#include <QIcon>
#include <QStyle>
#include <algorithm>

#include "app/gui/drag_data.h"
#include "base/wide_string.h"
#include "core/engine.h"
#include "store/folder_file.h"
#include "store/mail_folder.h"
#include "store/storage.h"

namespace trv::gui {

namespace {

constexpr int kFolderRole = Qt::UserRole + 1;
constexpr int kStorageRole = Qt::UserRole + 2;  // the root, on a storage's item

QString Qs(const WString& s) { return QString::fromStdString(WideToUtf8(s)); }

// The desktop theme's icon of a folder's kind, else a standard one.
QIcon KindIcon(uint32_t kind, const QStyle& style) {
  struct Choice {
    const char* theme;
    QStyle::StandardPixmap fallback;
  };
  static constexpr Choice kChoices[] = {
      {"folder", QStyle::SP_DirIcon},                        // user folder
      {"mail-folder-inbox", QStyle::SP_ArrowDown},           // Inbox
      {"mail-folder-outbox", QStyle::SP_ArrowUp},            // Outbox
      {"mail-folder-sent", QStyle::SP_DialogApplyButton},    // Sent
      {"user-trash", QStyle::SP_TrashIcon},                  // Deleted
      {"document-edit", QStyle::SP_FileDialogDetailedView},  // Drafts
      {"drive-harddisk", QStyle::SP_DriveHDIcon},            // a storage
  };
  const Choice& choice = kChoices[kind <= kFolderRoot ? kind : kFolderUser];
  return QIcon::fromTheme(choice.theme, style.standardIcon(choice.fallback));
}

}  // namespace

FolderTree::FolderTree(const LanguageTable& texts, QWidget* parent) : QTreeWidget(parent), texts_(texts) {
  setHeaderHidden(true);
  setColumnCount(1);
  setDragEnabled(true);
  setAcceptDrops(true);
  setDropIndicatorShown(true);
  setDragDropMode(QAbstractItemView::DragDrop);
}

MailFolder* FolderTree::FolderOf(const QTreeWidgetItem* item) {
  return item == nullptr ? nullptr : static_cast<MailFolder*>(item->data(0, kFolderRole).value<void*>());
}

MailFolder* FolderTree::NodeOf(const QTreeWidgetItem* item) {
  if (item == nullptr) return nullptr;
  if (MailFolder* folder = FolderOf(item)) return folder;
  return static_cast<MailFolder*>(item->data(0, kStorageRole).value<void*>());
}

QTreeWidgetItem* FolderTree::ItemOf(const MailFolder* folder) const {
  if (folder == nullptr) return nullptr;
  for (QTreeWidgetItemIterator it(const_cast<FolderTree*>(this)); *it != nullptr; ++it) {
    if (NodeOf(*it) == folder) return *it;
  }
  return nullptr;
}

FolderTree::~FolderTree() {
  for (FolderFile* file : observed_) file->RemoveObserver(this);
}

void FolderTree::Rebuild(MailEngine& engine) {
  clear();
  std::vector<FolderFile*> files;
  for (Storage* storage : engine.storages()) {
    if (!storage->is_open()) continue;
    auto* item = new QTreeWidgetItem(this, QStringList(Qs(storage->name())));
    item->setData(0, kStorageRole, QVariant::fromValue(static_cast<void*>(storage->root())));
    item->setIcon(0, KindIcon(kFolderRoot, *style()));
    {
      // A worker may add folders meanwhile (an IMAP4 run).
      MutexLock lock(storage->tree_mutex());
      AddChildren(item, *storage->root(), &files);
    }
    item->setExpanded(true);
  }
  // Files that are no longer in any tree were closed with their folders.
  for (FolderFile* file : files) {
    if (std::find(observed_.begin(), observed_.end(), file) == observed_.end()) file->AddObserver(this);
  }
  observed_ = std::move(files);
}

void FolderTree::Forget(const Storage& storage) {
  storage.ForEachFolder([&](MailFolder& f) {
    auto it = std::find(observed_.begin(), observed_.end(), f.file());
    if (f.file() == nullptr || it == observed_.end()) return;
    f.file()->RemoveObserver(this);
    observed_.erase(it);
  });
  for (int i = topLevelItemCount() - 1; i >= 0; --i) {
    if (NodeOf(topLevelItem(i)) == storage.root()) delete takeTopLevelItem(i);
  }
}

void FolderTree::UpdateLater() {
  if (update_pending_.exchange(true)) return;  // one update for a burst of changes
  QMetaObject::invokeMethod(this, [this] { UpdateAll(); }, Qt::QueuedConnection);
}

void FolderTree::UpdateAll() {
  update_pending_ = false;
  for (QTreeWidgetItemIterator it(this); *it != nullptr; ++it) {
    if (MailFolder* folder = FolderOf(*it)) {
      MutexLock lock(folder->storage().tree_mutex());  // its name may change on a worker
      Label(*it, *folder);
    }
  }
}

void FolderTree::Label(QTreeWidgetItem* item, const MailFolder& folder) {
  QString text = Qs(folder.name());
  if (folder.available()) {
    const FolderCounts counts = folder.file()->counts();
    text = QString::fromStdString(texts_.Text("FolderCounts")).arg(text).arg(counts.unread).arg(counts.messages);
    QFont font = item->font(0);
    font.setBold(counts.unread > 0);
    item->setFont(0, font);
  } else {
    item->setDisabled(true);
  }
  item->setText(0, text);
}

void FolderTree::AddChildren(QTreeWidgetItem* parent_item, const MailFolder& parent, std::vector<FolderFile*>* files) {
  std::vector<MailFolder*> children;
  for (const auto& child : parent.children()) children.push_back(child.get());
  // Special folders in their kind's order, before the user's folders.
  std::stable_sort(children.begin(), children.end(), [](const MailFolder* a, const MailFolder* b) {
    const uint32_t ka = a->is_special() ? a->kind() : UINT32_MAX;
    const uint32_t kb = b->is_special() ? b->kind() : UINT32_MAX;
    return ka < kb;
  });
  for (MailFolder* folder : children) {
    auto* item = new QTreeWidgetItem(parent_item);
    item->setData(0, kFolderRole, QVariant::fromValue(static_cast<void*>(folder)));
    item->setIcon(0, KindIcon(folder->is_special() ? folder->kind() : kFolderUser, *style()));
    Label(item, *folder);
    if (folder->available()) files->push_back(folder->file());
    AddChildren(item, *folder, files);
    item->setExpanded(true);
  }
}

void FolderTree::startDrag(Qt::DropActions) {
  // A drag of our own: Qt's would remove the dragged items after a move.
  MailFolder* folder = FolderOf(currentItem());
  if (folder == nullptr) return;
  auto* drag = new QDrag(this);
  drag->setMimeData(FolderMimeData(folder));
  drag->setPixmap(currentItem()->icon(0).pixmap(16, 16));
  drag->exec(Qt::MoveAction);
}

Qt::DropAction FolderTree::DropActionFor(const QMimeData& data, QTreeWidgetItem* target,
                                         Qt::DropAction proposed) const {
  MailFolder* to = NodeOf(target);
  if (to == nullptr) return Qt::IgnoreAction;
  MailFolder* from = nullptr;
  std::vector<uint32_t> keys;
  // The dragged folder must still be one the tree shows.
  if (ReadMessagesMimeData(data, &from, &keys)) {
    const bool takes = ItemOf(from) != nullptr && !to->is_root() && to->available() && to != from;
    if (!takes) return Qt::IgnoreAction;
    return proposed == Qt::CopyAction ? Qt::CopyAction : Qt::MoveAction;
  }
  if (ReadFolderMimeData(data, &from)) {
    const bool takes = ItemOf(from) != nullptr && &from->storage() == &to->storage() && to != from &&
                       to != from->parent();
    return takes ? Qt::MoveAction : Qt::IgnoreAction;
  }
  return Qt::IgnoreAction;
}

bool FolderTree::Drop(const QMimeData& data, QTreeWidgetItem* target, Qt::DropAction action) {
  const Qt::DropAction taken = DropActionFor(data, target, action);
  if (taken == Qt::IgnoreAction) return false;
  MailFolder* from = nullptr;
  std::vector<uint32_t> keys;
  if (ReadMessagesMimeData(data, &from, &keys)) {
    emit messagesDropped(from, keys, NodeOf(target), taken == Qt::CopyAction);
  } else if (ReadFolderMimeData(data, &from)) {
    emit folderDropped(from, NodeOf(target));
  }
  return true;
}

void FolderTree::dragEnterEvent(QDragEnterEvent* event) {
  const QMimeData* data = event->mimeData();
  if (data->hasFormat(kMessagesMimeType) || data->hasFormat(kFolderMimeType)) {
    event->acceptProposedAction();
  } else {
    event->ignore();
  }
}

Qt::DropAction FolderTree::AnswerDrag(QDropEvent* event, QTreeWidgetItem* target) const {
  const Qt::DropAction action = DropActionFor(*event->mimeData(), target, event->proposedAction());
  if (action == Qt::IgnoreAction) {
    event->ignore();
  } else {
    event->setDropAction(action);
  }
  return action;
}

void FolderTree::dragMoveEvent(QDragMoveEvent* event) {
  QTreeWidgetItem* target = itemAt(event->position().toPoint());
  if (AnswerDrag(event, target) != Qt::IgnoreAction) event->accept(visualItemRect(target));
}

void FolderTree::dropEvent(QDropEvent* event) {
  QTreeWidgetItem* target = itemAt(event->position().toPoint());
  const Qt::DropAction action = AnswerDrag(event, target);
  if (action == Qt::IgnoreAction) return;
  event->accept();
  // After the drag has ended: the drop may rebuild the tree under it.
  const QString format = event->mimeData()->hasFormat(kMessagesMimeType) ? kMessagesMimeType : kFolderMimeType;
  QMetaObject::invokeMethod(
      this,
      [this, data = event->mimeData()->data(format), format, node = NodeOf(target), action] {
        QMimeData copy;
        copy.setData(format, data);
        if (QTreeWidgetItem* item = ItemOf(node)) Drop(copy, item, action);
      },
      Qt::QueuedConnection);
}

}  // namespace trv::gui
