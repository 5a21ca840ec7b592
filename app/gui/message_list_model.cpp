#include "app/gui/message_list_model.h"

#include <QDateTime>
#include <QFont>
#include <algorithm>
#include <cmath>
#include <map>

#include "app/gui/drag_data.h"
#include "base/wide_string.h"
#include "store/folder_file.h"
#include "store/mail_folder.h"

namespace trv::gui {

namespace {

// Days since 30 Dec 1899 UTC (the records' date unit) as a local date.
QString DateText(double days) {
  if (days == 0) return QString();
  constexpr double kUnixEpochDays = 25569;
  const qint64 ms = std::llround((days - kUnixEpochDays) * 86400000.0);  // the unit carries no exact minutes
  return QDateTime::fromMSecsSinceEpoch(ms).toString("yyyy-MM-dd HH:mm");
}

QString SizeText(uint32_t size) {
  if (size < 1024) return QString::number(size) + " B";
  return QString::number((size + 1023) / 1024) + " KB";
}

QString Qs(const WString& s) { return QString::fromStdString(WideToUtf8(s)); }

}  // namespace

MessageListModel::MessageListModel(const LanguageTable& texts, QObject* parent)
    : QAbstractTableModel(parent), texts_(texts) {}

MessageListModel::~MessageListModel() { Unobserve(); }

void MessageListModel::Unobserve() {
  if (folder_ != nullptr && folder_->available()) folder_->file()->RemoveObserver(this);
}

void MessageListModel::SetFolder(MailFolder* folder) {
  Unobserve();
  folder_ = folder;
  sort_column_ = -1;
  if (folder != nullptr && folder->available()) {
    // A failed load shows what the index gave (nothing); the folder file
    // logs why.
    folder->file()->LoadIndex().Ignore();
    folder->file()->AddObserver(this);
  }
  Reload();
}

void MessageListModel::ForgetFolder() {
  folder_ = nullptr;
  Reload();
}

void MessageListModel::ReloadLater() {
  // One reload for a burst of changes.
  if (reload_pending_.exchange(true)) return;
  QMetaObject::invokeMethod(this, [this] { Reload(); }, Qt::QueuedConnection);
}

void MessageListModel::Reload() {
  reload_pending_ = false;
  beginResetModel();
  records_.clear();
  if (folder_ != nullptr && folder_->available()) records_ = folder_->file()->Messages();
  SortRows();
  endResetModel();
  emit reloaded();
}

const MessageRecord* MessageListModel::RecordAt(int row) const {
  if (row < 0 || static_cast<size_t>(row) >= records_.size()) return nullptr;
  return &records_[static_cast<size_t>(row)];
}

int MessageListModel::rowCount(const QModelIndex& parent) const {
  return parent.isValid() ? 0 : static_cast<int>(records_.size());
}

int MessageListModel::columnCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : kColumnCount; }

QVariant MessageListModel::data(const QModelIndex& index, int role) const {
  const MessageRecord* r = RecordAt(index.row());
  if (r == nullptr) return QVariant();
  const bool partial = r->flags & msgflag::kPartial;
  if (role == Qt::FontRole) {
    QFont font;
    font.setBold(!r->is_read());
    font.setItalic(partial);
    return font;
  }
  if (role == Qt::TextAlignmentRole && index.column() == kSize) {
    return QVariant::fromValue(Qt::AlignRight | Qt::AlignVCenter);
  }
  if (role != Qt::DisplayRole) return QVariant();
  switch (index.column()) {
    case kFrom: return Qs(r->from);
    case kSubject: return Qs(r->subject);
    case kDate: return DateText(r->sent_date != 0 ? r->sent_date : r->received_date);
    case kSize: {
      QString text = SizeText(std::max(r->size, r->server_size));
      if (partial) text += " " + QString::fromStdString(texts_.Text("PartialMark"));
      return text;
    }
    default: return QVariant();
  }
}

QVariant MessageListModel::headerData(int section, Qt::Orientation orientation, int role) const {
  if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return QVariant();
  static const char* const kIds[kColumnCount] = {"ColumnFrom", "ColumnSubject", "ColumnDate", "ColumnSize"};
  if (section < 0 || section >= kColumnCount) return QVariant();
  return QString::fromStdString(texts_.Text(kIds[section]));
}

void MessageListModel::sort(int column, Qt::SortOrder order) {
  if (column < 0 || column >= kColumnCount) return;  // no column: index order, as loaded
  sort_column_ = column;
  sort_order_ = order;
  emit layoutAboutToBeChanged({}, QAbstractItemModel::VerticalSortHint);
  std::vector<uint32_t> old_keys;  // by old row
  for (const MessageRecord& r : records_) old_keys.push_back(r.key);
  SortRows();
  std::map<uint32_t, int> new_row;
  for (size_t i = 0; i < records_.size(); ++i) new_row[records_[i].key] = static_cast<int>(i);
  // The views' selection and current row follow their messages.
  const QModelIndexList old_indexes = persistentIndexList();
  QModelIndexList new_indexes;
  for (const QModelIndex& i : old_indexes) {
    new_indexes.append(index(new_row[old_keys[static_cast<size_t>(i.row())]], i.column()));
  }
  changePersistentIndexList(old_indexes, new_indexes);
  emit layoutChanged({}, QAbstractItemModel::VerticalSortHint);
}

void MessageListModel::SortRows() {
  const int column = sort_column_;
  if (column < 0) return;
  auto less = [column](const MessageRecord& a, const MessageRecord& b) {
    switch (column) {
      case kFrom: return QString::localeAwareCompare(Qs(a.from), Qs(b.from)) < 0;
      case kSubject: return QString::localeAwareCompare(Qs(a.subject), Qs(b.subject)) < 0;
      case kDate: {
        const double da = a.sent_date != 0 ? a.sent_date : a.received_date;
        const double db = b.sent_date != 0 ? b.sent_date : b.received_date;
        return da < db;
      }
      case kSize: return std::max(a.size, a.server_size) < std::max(b.size, b.server_size);
      default: return a.key < b.key;
    }
  };
  if (sort_order_ == Qt::AscendingOrder) {
    std::stable_sort(records_.begin(), records_.end(), less);
  } else {
    std::stable_sort(records_.begin(), records_.end(), [&](const MessageRecord& a, const MessageRecord& b) { return less(b, a); });
  }
}

Qt::ItemFlags MessageListModel::flags(const QModelIndex& index) const {
  const Qt::ItemFlags flags = QAbstractTableModel::flags(index);
  return index.isValid() ? flags | Qt::ItemIsDragEnabled : flags;
}

QStringList MessageListModel::mimeTypes() const { return {kMessagesMimeType}; }

QMimeData* MessageListModel::mimeData(const QModelIndexList& indexes) const {
  std::vector<uint32_t> keys;  // one per row, though each column's index comes
  for (const QModelIndex& i : indexes) {
    const MessageRecord* record = RecordAt(i.row());
    if (record != nullptr && std::find(keys.begin(), keys.end(), record->key) == keys.end()) keys.push_back(record->key);
  }
  if (folder_ == nullptr || keys.empty()) return nullptr;
  return MessagesMimeData(folder_, keys);
}

}  // namespace trv::gui
