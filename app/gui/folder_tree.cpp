#include "app/gui/folder_tree.h"

#include <QHeaderView>
#include <algorithm>

#include "base/wide_string.h"
#include "core/engine.h"
#include "store/folder_file.h"
#include "store/mail_folder.h"

namespace trv::gui {

namespace {

constexpr int kFolderRole = Qt::UserRole + 1;

QString Qs(const WString& s) { return QString::fromStdString(WideToUtf8(s)); }

}  // namespace

FolderTree::FolderTree(const LanguageTable& texts, QWidget* parent) : QTreeWidget(parent), texts_(texts) {
  setHeaderHidden(true);
  setColumnCount(1);
}

MailFolder* FolderTree::FolderOf(const QTreeWidgetItem* item) {
  return item == nullptr ? nullptr : static_cast<MailFolder*>(item->data(0, kFolderRole).value<void*>());
}

QTreeWidgetItem* FolderTree::ItemOf(const MailFolder* folder) const {
  for (QTreeWidgetItemIterator it(const_cast<FolderTree*>(this)); *it != nullptr; ++it) {
    if (FolderOf(*it) == folder) return *it;
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
    AddChildren(item, *storage->root());
    item->setExpanded(true);
    storage->ForEachFolder([&](MailFolder& f) {
      if (f.available()) files.push_back(f.file());
    });
  }
  // Files that are no longer in any tree were closed with their folders.
  for (FolderFile* file : files) {
    if (std::find(observed_.begin(), observed_.end(), file) == observed_.end()) file->AddObserver(this);
  }
  observed_ = std::move(files);
}

void FolderTree::UpdateLater() {
  if (update_pending_.exchange(true)) return;  // one update for a burst of changes
  QMetaObject::invokeMethod(this, [this] { UpdateAll(); }, Qt::QueuedConnection);
}

void FolderTree::UpdateAll() {
  update_pending_ = false;
  for (QTreeWidgetItemIterator it(this); *it != nullptr; ++it) {
    if (MailFolder* folder = FolderOf(*it)) Label(*it, *folder);
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

void FolderTree::AddChildren(QTreeWidgetItem* parent_item, const MailFolder& parent) {
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
    Label(item, *folder);
    AddChildren(item, *folder);
    item->setExpanded(true);
  }
}

}  // namespace trv::gui
