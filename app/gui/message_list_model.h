// The message list: one row per message of a folder, from the folder file's
// index records only (no message is opened to fill it). Columns sender,
// subject, date, size; unread rows are bold, partially loaded ones italic
// with the size marked. Sorting keeps the rows in memory: it orders row
// numbers over the records, by the locale's collation of the subject
// without its "Re:"/"Fwd:" prefixes or of the sender's display name, by
// date or by size; equal rows keep the index order. Display texts are made
// when a view asks for them, so only the visible rows cost anything.
//
// The model observes the shown folder file: a change made on any thread
// (a run appending, a flag set) reloads the rows on the interface thread,
// in the same sort order, and then says `reloaded`. Small changes are
// applied row by row instead of by a reload, so that they cost a large
// folder no new sort: messages added go to their sorted rows, messages
// removed lose theirs, and records changed in what no sort looks at
// (flags, recipients) are taken again in place; `reloaded` is said all the
// same.
//
// Threads: interface thread, but for the observer calls. The folder must
// outlive its use here; a folder that was deleted is dropped with
// ForgetFolder (its file, and the observer list with it, is gone).
#pragma once

#include <QAbstractTableModel>
#include <QCollator>
#include <atomic>
#include <cstdint>
#include <optional>
#include <vector>

#include "app/gui/language.h"
#include "base/thread_annotations.h"
#include "store/folder_observer.h"
#include "store/message_record.h"

namespace trv {
class MailFolder;
}

namespace trv::gui {

class MessageListModel final : public QAbstractTableModel, public FolderObserver {
  Q_OBJECT

 public:
  enum Column { kFrom, kSubject, kDate, kSize, kColumnCount };

  MessageListModel(const LanguageTable& texts, QObject* parent = nullptr);
  ~MessageListModel() override;

  // Shows the folder's messages in index order (loading its index when it
  // is not loaded yet); null or an unavailable folder shows none.
  void SetFolder(MailFolder* folder);
  MailFolder* folder() const { return folder_; }
  // Shows nothing, without touching the folder (it no longer exists).
  void ForgetFolder();
  // Reads the rows again, in the current sort order.
  void Reload();
  // The record shown in `row`, if any.
  const MessageRecord* RecordAt(int row) const;

  int rowCount(const QModelIndex& parent = QModelIndex()) const override;
  int columnCount(const QModelIndex& parent = QModelIndex()) const override;
  QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
  QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;
  void sort(int column, Qt::SortOrder order = Qt::AscendingOrder) override;
  // Rows are dragged as their folder and keys (app/gui/drag_data.h), to be
  // moved or copied onto a folder of the tree.
  Qt::ItemFlags flags(const QModelIndex& index) const override;
  QStringList mimeTypes() const override;
  QMimeData* mimeData(const QModelIndexList& indexes) const override;
  Qt::DropActions supportedDragActions() const override { return Qt::MoveAction | Qt::CopyAction; }

  // FolderObserver: any thread.
  void MessagesAdded(FolderFile& file, const std::vector<uint32_t>& keys) override { Tell(file, kAdded, keys); }
  void MessagesRemoved(FolderFile& file, const std::vector<uint32_t>& keys) override { Tell(file, kRemoved, keys); }
  void MessagesChanged(FolderFile& file, const std::vector<uint32_t>& keys) override { Tell(file, kChanged, keys); }
  void IndexLoaded(FolderFile&) override { ReloadLater(); }

 signals:
  void reloaded();

 private:
  const LanguageTable& texts_;
  MailFolder* folder_ = nullptr;
  void ReloadLater();
  // Changes told by the folder file, applied in their order on the
  // interface thread; each step false when it needs a reload instead.
  enum Told { kAdded, kRemoved, kChanged };
  struct Pending {
    const FolderFile* file;
    Told what;
    std::vector<uint32_t> keys;
  };
  void Tell(const FolderFile& file, Told what, const std::vector<uint32_t>& keys) EXCLUDES(pending_mu_);
  void TakeTold() EXCLUDES(pending_mu_);
  void DropTold() EXCLUDES(pending_mu_);
  bool AddRows(const std::vector<uint32_t>& keys);
  bool RemoveRows(const std::vector<uint32_t>& keys);
  bool ChangeRows(const std::vector<uint32_t>& keys);
  // Whether the record at `a` in records_ sorts before the one at `b`.
  bool SortsBefore(uint32_t a, uint32_t b) const;
  void Unobserve();
  void SortRows();

  std::vector<MessageRecord> records_;  // index order as read, added ones after
  std::vector<uint32_t> order_;         // row -> position in records_
  QCollator collator_;                  // the locale's, for the texts' order
  int sort_column_ = -1;  // none: index order
  Qt::SortOrder sort_order_ = Qt::AscendingOrder;
  std::atomic<bool> reload_pending_{false};
  Mutex pending_mu_;
  std::vector<Pending> pending_ GUARDED_BY(pending_mu_);  // told, not yet taken
};

}  // namespace trv::gui
