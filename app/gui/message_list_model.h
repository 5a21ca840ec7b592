// The message list: one row per message of a folder, from the folder file's
// index records only (no message is opened to fill it). Columns sender,
// subject, date, size; unread rows are bold, partially loaded ones italic
// with the size marked. Sorting keeps the rows in memory; the folder file is
// read again only by SetFolder.
//
// Threads: interface thread. The folder must outlive its use here (the
// window shows folders of open storages only).
#pragma once

#include <QAbstractTableModel>
#include <cstdint>
#include <optional>
#include <vector>

#include "app/gui/language.h"
#include "store/message_record.h"

namespace trv {
class MailFolder;
}

namespace trv::gui {

class MessageListModel final : public QAbstractTableModel {
  Q_OBJECT

 public:
  enum Column { kFrom, kSubject, kDate, kSize, kColumnCount };

  MessageListModel(const LanguageTable& texts, QObject* parent = nullptr);

  // Shows the folder's messages in index order (loading its index when it
  // is not loaded yet); null or an unavailable folder shows none.
  void SetFolder(MailFolder* folder);
  MailFolder* folder() const { return folder_; }
  // The record shown in `row`, if any.
  const MessageRecord* RecordAt(int row) const;

  int rowCount(const QModelIndex& parent = QModelIndex()) const override;
  int columnCount(const QModelIndex& parent = QModelIndex()) const override;
  QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
  QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;
  void sort(int column, Qt::SortOrder order = Qt::AscendingOrder) override;

 private:
  const LanguageTable& texts_;
  MailFolder* folder_ = nullptr;
  std::vector<MessageRecord> records_;
};

}  // namespace trv::gui
