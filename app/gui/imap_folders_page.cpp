#include "app/gui/imap_folders_page.h"

#include <QHeaderView>
#include <QLabel>
#include <QTreeWidget>
#include <QVBoxLayout>

#include "services/imap4_service.h"

namespace trv::gui {

namespace {

// The option bit of each option column.
constexpr uint32_t kColumnBits[] = {imap4sync::kDownload, imap4sync::kDownloadNew, imap4sync::kUpload,
                                    imap4sync::kDeleteOnLocal, imap4sync::kDeleteOnServer};
constexpr int kIdRole = Qt::UserRole;

}  // namespace

ImapFoldersPage::ImapFoldersPage(const LanguageTable& texts, Imap4Service* service, QWidget* parent)
    : QWidget(parent), service_(service) {
  const auto text = [&](const char* id) { return QString::fromStdString(texts.Text(id)); };
  auto* layout = new QVBoxLayout(this);
  tree_ = new QTreeWidget;
  tree_->setColumnCount(kCount);
  tree_->setHeaderLabels({text("AccFolderServer"), text("AccFolderLocal"), text("AccFolderDownload"),
                          text("AccFolderNewOnly"), text("AccFolderUpload"), text("AccFolderDeleteLocal"),
                          text("AccFolderDeleteServer")});
  tree_->header()->setSectionResizeMode(QHeaderView::ResizeToContents);
  layout->addWidget(tree_, 1);

  std::map<uint32_t, QTreeWidgetItem*> items;  // by record id, for the children
  // A run holds the records for its whole length: the page does not wait
  // for it. Runs start on this thread, so none starts between the check
  // and the lock.
  const bool busy = service_ != nullptr && service_->running();
  if (service_ != nullptr && !busy) {
    MutexLock lock(service_->folders_mutex());
    service_->folders().ForEach([&](Imap4FolderSync& r) {
      const auto parent_item = items.find(r.parent != nullptr ? r.parent->id : 0);
      auto* item = parent_item == items.end() ? new QTreeWidgetItem(tree_) : new QTreeWidgetItem(parent_item->second);
      item->setText(kServerPath, QString::fromStdU16String(r.name));
      item->setToolTip(kServerPath, QString::fromStdU16String(r.ServerPath()));
      item->setText(kLocal, QString::fromStdU16String(r.local));
      item->setData(kServerPath, kIdRole, r.id);
      for (int c = kDownload; c < kCount; ++c) {
        item->setCheckState(c, (r.sync & kColumnBits[c - kDownload]) ? Qt::Checked : Qt::Unchecked);
      }
      items[r.id] = item;
      loaded_[r.id] = r.sync;
    });
  }
  tree_->expandAll();
  if (items.empty()) {
    auto* none = new QLabel(text(service_ == nullptr ? "AccFoldersNew" : busy ? "AccFoldersBusy" : "AccFoldersNone"));
    none->setWordWrap(true);
    layout->addWidget(none);
  }
  connect(tree_, &QTreeWidget::itemChanged, this, &ImapFoldersPage::ItemChanged);
}

void ImapFoldersPage::ItemChanged(QTreeWidgetItem* item, int column) {
  const QSignalBlocker quiet(tree_);
  if (column == kDownload && item->checkState(kDownload) == Qt::Unchecked) {
    item->setCheckState(kDownloadNew, Qt::Unchecked);
  } else if (column == kDownloadNew && item->checkState(kDownloadNew) == Qt::Checked) {
    item->setCheckState(kDownload, Qt::Checked);
  }
}

std::map<uint32_t, uint32_t> ImapFoldersPage::Options() const {
  std::map<uint32_t, uint32_t> options;
  for (QTreeWidgetItemIterator it(tree_); *it != nullptr; ++it) {
    uint32_t sync = 0;
    for (int c = kDownload; c < kCount; ++c) {
      if ((*it)->checkState(c) == Qt::Checked) sync |= kColumnBits[c - kDownload];
    }
    options[(*it)->data(kServerPath, kIdRole).toUInt()] = sync;
  }
  return options;
}

Result ImapFoldersPage::Save() {
  const std::map<uint32_t, uint32_t> options = Options();
  if (service_ == nullptr || options == loaded_) return rc::kOk;
  if (service_->running()) return FromWin32(170);  // the run owns the records now
  {
    MutexLock lock(service_->folders_mutex());
    for (const auto& [id, sync] : options) {
      // A record the run dropped meanwhile is simply gone.
      if (Imap4FolderSync* record = service_->folders().FindById(id)) record->sync = sync;
    }
  }
  const Result r = service_->SaveFolders();
  if (r.ok()) loaded_ = options;
  return r;
}

QTreeWidgetItem* ImapFoldersPage::ItemOf(const QString& server_path) const {
  for (QTreeWidgetItemIterator it(tree_); *it != nullptr; ++it) {
    if ((*it)->toolTip(kServerPath) == server_path) return *it;
  }
  return nullptr;
}

}  // namespace trv::gui
