#include "app/gui/message_list_model.h"

#include <QCollator>
#include <QDateTime>
#include <QFont>
#include <algorithm>
#include <cmath>
#include <numeric>

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

// The records' strings are UTF-16 already.
QString Qs(const WString& s) {
  return QString(reinterpret_cast<const QChar*>(s.data()), static_cast<qsizetype>(s.size()));
}

// The subject without reply and forward prefixes ("Re: ", "FWD:", "Re[2]:"),
// so that a thread's messages sort together.
QStringView SortSubject(QStringView s) {
  for (;;) {
    s = s.trimmed();
    qsizetype i = 0;
    while (i < s.size() && i < 4 && s[i].isLetter()) ++i;
    const QStringView word = s.first(i);
    if (word.compare(u"re", Qt::CaseInsensitive) != 0 && word.compare(u"fw", Qt::CaseInsensitive) != 0 &&
        word.compare(u"fwd", Qt::CaseInsensitive) != 0) {
      return s;
    }
    if (i < s.size() && s[i] == u'[') i = s.indexOf(u']', i) + 1;  // a count; 0 when unclosed
    if (i <= 0 || i >= s.size() || s[i] != u':') return s;
    s = s.sliced(i + 1);
  }
}

// The first sender's display name (Ann of "Ann" <ann@x>, quotes dropped), else its address.
QStringView SenderName(QStringView from) {
  from = from.trimmed();
  const qsizetype open = from.indexOf(u'<');
  if (open < 0) return from;
  QStringView name = from.first(open).trimmed();
  if (name.size() >= 2 && name.front() == u'"' && name.back() == u'"') name = name.sliced(1, name.size() - 2).trimmed();
  if (!name.isEmpty()) return name;
  const qsizetype close = from.indexOf(u'>', open);
  return from.sliced(open + 1, (close < 0 ? from.size() : close) - open - 1).trimmed();
}

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

void MessageListModel::ChangeLater(const std::vector<uint32_t>& keys) {
  bool first = false;
  {
    MutexLock lock(changed_mu_);
    first = changed_keys_.empty();
    changed_keys_.insert(changed_keys_.end(), keys.begin(), keys.end());
  }
  if (first) QMetaObject::invokeMethod(this, [this] { TakeChanges(); }, Qt::QueuedConnection);
}

void MessageListModel::TakeChanges() {
  std::vector<uint32_t> keys;
  {
    MutexLock lock(changed_mu_);
    keys.swap(changed_keys_);
  }
  if (keys.empty() || reload_pending_ || folder_ == nullptr || !folder_->available()) return;
  std::sort(keys.begin(), keys.end());
  std::vector<uint32_t> positions;
  for (uint32_t at = 0; at < records_.size(); ++at) {
    MessageRecord& old = records_[at];
    if (!std::binary_search(keys.begin(), keys.end(), old.key)) continue;
    std::optional<MessageRecord> now = folder_->file()->FindMessage(old.key);
    const bool moves = !now || (sort_column_ >= 0 && (now->subject != old.subject || now->from != old.from ||
                                                      now->sent_date != old.sent_date ||
                                                      now->received_date != old.received_date ||
                                                      now->size != old.size || now->server_size != old.server_size));
    if (moves) {  // gone meanwhile, or its row may move
      Reload();
      return;
    }
    old = std::move(*now);
    positions.push_back(at);
  }
  if (positions.empty()) return;
  std::vector<int> row_of(records_.size());
  for (size_t row = 0; row < order_.size(); ++row) row_of[order_[row]] = static_cast<int>(row);
  for (const uint32_t at : positions) emit dataChanged(index(row_of[at], 0), index(row_of[at], kColumnCount - 1));
  emit reloaded();
}

void MessageListModel::Reload() {
  reload_pending_ = false;
  beginResetModel();
  records_.clear();
  if (folder_ != nullptr && folder_->available()) records_ = folder_->file()->Messages();
  SortRows();  // from the index order, so that a reload keeps the sort
  endResetModel();
  emit reloaded();
}

const MessageRecord* MessageListModel::RecordAt(int row) const {
  if (row < 0 || static_cast<size_t>(row) >= order_.size()) return nullptr;
  return &records_[order_[static_cast<size_t>(row)]];
}

int MessageListModel::rowCount(const QModelIndex& parent) const {
  return parent.isValid() ? 0 : static_cast<int>(order_.size());
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
  const std::vector<uint32_t> old_order = order_;
  SortRows();
  std::vector<int> new_row(records_.size());  // by position in records_
  for (size_t row = 0; row < order_.size(); ++row) new_row[order_[row]] = static_cast<int>(row);
  // The views' selection and current row follow their messages.
  const QModelIndexList old_indexes = persistentIndexList();
  QModelIndexList new_indexes;
  for (const QModelIndex& i : old_indexes) {
    new_indexes.append(index(new_row[old_order[static_cast<size_t>(i.row())]], i.column()));
  }
  changePersistentIndexList(old_indexes, new_indexes);
  emit layoutChanged({}, QAbstractItemModel::VerticalSortHint);
}

void MessageListModel::SortRows() {
  order_.resize(records_.size());
  std::iota(order_.begin(), order_.end(), 0u);
  const int column = sort_column_;
  if (column < 0) return;
  // One key per record, made once; the comparisons only compare keys.
  const bool ascending = sort_order_ == Qt::AscendingOrder;
  auto by = [&](const auto& keys) {
    std::stable_sort(order_.begin(), order_.end(),
                     [&](uint32_t a, uint32_t b) { return ascending ? keys[a] < keys[b] : keys[b] < keys[a]; });
  };
  switch (column) {
    case kFrom:
    case kSubject: {
      const QCollator collator;
      std::vector<QCollatorSortKey> keys;
      keys.reserve(records_.size());
      for (const MessageRecord& r : records_) {
        const QString text = Qs(column == kFrom ? r.from : r.subject);
        // Case-folded first: the C locale's collation would put every
        // capital before every small letter.
        keys.push_back(collator.sortKey((column == kFrom ? SenderName(text) : SortSubject(text)).toString().toCaseFolded()));
      }
      by(keys);
      break;
    }
    case kDate: {
      std::vector<double> keys;
      keys.reserve(records_.size());
      for (const MessageRecord& r : records_) keys.push_back(r.sent_date != 0 ? r.sent_date : r.received_date);
      by(keys);
      break;
    }
    case kSize: {
      std::vector<uint32_t> keys;
      keys.reserve(records_.size());
      for (const MessageRecord& r : records_) keys.push_back(std::max(r.size, r.server_size));
      by(keys);
      break;
    }
    default: break;
  }
}

}  // namespace trv::gui
