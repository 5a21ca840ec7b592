// The folder tree: every storage with its folders, the special folders
// first in their kind's order (Inbox, Outbox, Sent, Deleted, Drafts), then
// the others as the storage keeps them. Each folder says its unread and
// total counts ("Inbox (2/5)"), bold while any is unread; a folder whose file
// is not available is greyed out.
#pragma once

#include <QTreeWidget>

#include "app/gui/language.h"

namespace trv {
class MailEngine;
class MailFolder;
}  // namespace trv

namespace trv::gui {

class FolderTree final : public QTreeWidget {
  Q_OBJECT

 public:
  FolderTree(const LanguageTable& texts, QWidget* parent = nullptr);

  // Builds the tree again from the engine's open storages.
  void Rebuild(MailEngine& engine);
  // The folder of an item; null for a storage's own item.
  static MailFolder* FolderOf(const QTreeWidgetItem* item);
  QTreeWidgetItem* ItemOf(const MailFolder* folder) const;
  // Says the folder's counts again.
  void UpdateCounts(const MailFolder* folder);

 private:
  void AddChildren(QTreeWidgetItem* parent_item, const MailFolder& parent);
  void Label(QTreeWidgetItem* item, const MailFolder& folder);

  const LanguageTable& texts_;
};

}  // namespace trv::gui
