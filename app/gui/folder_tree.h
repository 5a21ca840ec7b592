// The folder tree: every storage with its folders, the special folders
// first in their kind's order (Inbox, Outbox, Sent, Deleted, Drafts), then
// the others as the storage keeps them. Each folder says its unread and
// total counts ("Inbox (2/5)"), bold while any is unread, with an icon of
// its kind; a folder whose file is not available is greyed out.
//
// The tree observes every folder file it shows: a change made on any thread
// says the counts again on the interface thread. Rebuild follows the
// storages' trees: a file no longer in them went with its folder and is
// dropped without being touched. A storage about to close is forgotten
// first (Forget), while its files still exist.
//
// Drag and drop: a folder may be dragged onto another folder or a storage
// item of its own storage (folderDropped); messages dragged from the list
// (app/gui/drag_data.h) onto another folder are moved, or copied when the
// drop action says so (messagesDropped). A drop onto the messages' own
// folder, onto a storage item or onto an unavailable folder is not taken.
// The tree only says what was dropped; the commands do it.
#pragma once

#include <QTreeWidget>
#include <atomic>
#include <cstdint>
#include <vector>

#include "app/gui/language.h"
#include "store/folder_observer.h"

class QMimeData;

namespace trv {
class MailEngine;
class MailFolder;
class Storage;
}  // namespace trv

namespace trv::gui {

class FolderTree final : public QTreeWidget, public FolderObserver {
  Q_OBJECT

 public:
  FolderTree(const LanguageTable& texts, QWidget* parent = nullptr);
  ~FolderTree() override;

  // Builds the tree again from the engine's open storages.
  void Rebuild(MailEngine& engine);
  // Drops the storage's items and stops observing its files (it is about
  // to close; its files still exist).
  void Forget(const Storage& storage);
  // The folder of an item; null for a storage's own item.
  static MailFolder* FolderOf(const QTreeWidgetItem* item);
  // The folder of an item, or for a storage's item its root; null for none.
  static MailFolder* NodeOf(const QTreeWidgetItem* item);
  QTreeWidgetItem* ItemOf(const MailFolder* folder) const;

  // Takes dropped data onto `target` as a drop with `action` would; true
  // when it was taken (and a signal said so). Also the seam for tests.
  bool Drop(const QMimeData& data, QTreeWidgetItem* target, Qt::DropAction action);

  // FolderObserver: any thread.
  void MessagesAdded(FolderFile&, const std::vector<uint32_t>&) override { UpdateLater(); }
  void MessagesRemoved(FolderFile&, const std::vector<uint32_t>&) override { UpdateLater(); }
  void MessagesChanged(FolderFile&, const std::vector<uint32_t>&) override { UpdateLater(); }
  void IndexLoaded(FolderFile&) override { UpdateLater(); }

 signals:
  void messagesDropped(MailFolder* from, const std::vector<uint32_t>& keys, MailFolder* to, bool copy);
  void folderDropped(MailFolder* folder, MailFolder* new_parent);

 protected:
  void startDrag(Qt::DropActions actions) override;
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dragMoveEvent(QDragMoveEvent* event) override;
  void dropEvent(QDropEvent* event) override;

 private:
  // The action a drop of `data` onto `target` would take; IgnoreAction
  // when it would not be taken.
  Qt::DropAction DropActionFor(const QMimeData& data, QTreeWidgetItem* target, Qt::DropAction proposed) const;
  // Sets the event's drop action over `target`, or ignores the event;
  // returns the action.
  Qt::DropAction AnswerDrag(QDropEvent* event, QTreeWidgetItem* target) const;
  // Adds items for the children of `parent` and their subtrees, and their
  // files to `files`. With the storage's tree mutex held.
  void AddChildren(QTreeWidgetItem* parent_item, const MailFolder& parent, std::vector<FolderFile*>* files);
  void Label(QTreeWidgetItem* item, const MailFolder& folder);
  void UpdateLater();
  void UpdateAll();

  const LanguageTable& texts_;
  std::vector<FolderFile*> observed_;  // interface thread
  std::atomic<bool> update_pending_{false};
};

}  // namespace trv::gui
