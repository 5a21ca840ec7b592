// The folder tree: every storage with its folders, the special folders
// first in their kind's order (Inbox, Outbox, Sent, Deleted, Drafts), then
// the others as the storage keeps them. Each folder says its unread and
// total counts ("Inbox (2/5)"), bold while any is unread; a folder whose file
// is not available is greyed out.
//
// The tree observes every folder file it shows: a change made on any thread
// says the counts again on the interface thread. Rebuild follows the
// storages' trees: a file no longer in them went with its folder and is
// dropped without being touched.
#pragma once

#include <QTreeWidget>
#include <atomic>
#include <vector>

#include "app/gui/language.h"
#include "store/folder_observer.h"

namespace trv {
class MailEngine;
class MailFolder;
}  // namespace trv

namespace trv::gui {

class FolderTree final : public QTreeWidget, public FolderObserver {
  Q_OBJECT

 public:
  FolderTree(const LanguageTable& texts, QWidget* parent = nullptr);
  ~FolderTree() override;

  // Builds the tree again from the engine's open storages.
  void Rebuild(MailEngine& engine);
  // The folder of an item; null for a storage's own item.
  static MailFolder* FolderOf(const QTreeWidgetItem* item);
  QTreeWidgetItem* ItemOf(const MailFolder* folder) const;

  // FolderObserver: any thread.
  void MessagesAdded(FolderFile&, const std::vector<uint32_t>&) override { UpdateLater(); }
  void MessagesRemoved(FolderFile&, const std::vector<uint32_t>&) override { UpdateLater(); }
  void MessagesChanged(FolderFile&, const std::vector<uint32_t>&) override { UpdateLater(); }
  void IndexLoaded(FolderFile&) override { UpdateLater(); }

 private:
  void AddChildren(QTreeWidgetItem* parent_item, const MailFolder& parent);
  void Label(QTreeWidgetItem* item, const MailFolder& folder);
  void UpdateLater();
  void UpdateAll();

  const LanguageTable& texts_;
  std::vector<FolderFile*> observed_;  // interface thread
  std::atomic<bool> update_pending_{false};
};

}  // namespace trv::gui
