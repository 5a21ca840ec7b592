#include "app/gui/message_list_model.h"

#include <QCollator>
#include <QDateTime>
#include <QFont>
#include <algorithm>
#include <cmath>
#include <numeric>

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

// What a sort by a text column compares: case-folded, since the C locale's
// collation would put every capital before every small letter.
QString SortText(int column, const MessageRecord& r) {
  const QString text = Qs(column == MessageListModel::kFrom ? r.from : r.subject);
  return (column == MessageListModel::kFrom ? SenderName(text) : SortSubject(text)).toString().toCaseFolded();
}
double SortDate(const MessageRecord& r) { return r.sent_date != 0 ? r.sent_date : r.received_date; }
uint32_t SortSize(const MessageRecord& r) { return std::max(r.size, r.server_size); }

}  // namespace

MessageListModel::MessageListModel(const LanguageTable& texts, QObject* parent)
    : QAbstractTableModel(parent), texts_(texts) {}

MessageListModel::~MessageListModel() { Unobserve(); }

void MessageListModel::Unobserve() {
  if (folder_ != nullptr && folder_->available()) folder_->file()->RemoveObserver(this);
}

void MessageListModel::DropTold() {
  MutexLock lock(pending_mu_);
  pending_.clear();  // the folder they were about is no longer shown
}

void MessageListModel::SetFolder(MailFolder* folder) {
  Unobserve();
  DropTold();
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
  DropTold();
  folder_ = nullptr;
  Reload();
}

void MessageListModel::ReloadLater() {
  // One reload for a burst of changes.
  if (reload_pending_.exchange(true)) return;
  QMetaObject::invokeMethod(this, [this] { Reload(); }, Qt::QueuedConnection);
}

void MessageListModel::Tell(const FolderFile& file, Told what, const std::vector<uint32_t>& keys) {
  bool first = false;
  {
    MutexLock lock(pending_mu_);
    first = pending_.empty();
    pending_.push_back({&file, what, keys});
  }
  if (first) QMetaObject::invokeMethod(this, [this] { TakeTold(); }, Qt::QueuedConnection);
}

void MessageListModel::TakeTold() {
  std::vector<Pending> told;
  {
    MutexLock lock(pending_mu_);
    told.swap(pending_);
  }
  // A reload on its way reads what was told before it anyway.
  if (reload_pending_ || folder_ == nullptr || !folder_->available()) return;
  bool applied = false;
  for (const Pending& p : told) {
    if (p.file != folder_->file()) continue;  // the folder shown before
    const bool done = p.what == kAdded ? AddRows(p.keys) : p.what == kRemoved ? RemoveRows(p.keys) : ChangeRows(p.keys);
    if (!done) {
      Reload();
      return;
    }
    applied = true;
  }
  if (applied) emit reloaded();
}

namespace {

// Beyond this many messages at once a reload with one sort costs less than
// a row at a time.
constexpr size_t kMaxRowSteps = 512;

// Where `at` (a position in records_) belongs among the sorted rows.
template <typename Less>
size_t RowFor(const std::vector<uint32_t>& order, uint32_t at, Less&& less) {
  return static_cast<size_t>(std::upper_bound(order.begin(), order.end(), at, less) - order.begin());
}

}  // namespace

bool MessageListModel::AddRows(const std::vector<uint32_t>& keys) {
  if (keys.size() > kMaxRowSteps) return false;
  std::vector<uint32_t> known;  // listed already (a reload read them)
  for (const MessageRecord& r : records_) known.push_back(r.key);
  std::sort(known.begin(), known.end());
  for (const uint32_t key : keys) {
    if (std::binary_search(known.begin(), known.end(), key)) continue;
    std::optional<MessageRecord> record = folder_->file()->FindMessage(key);
    if (!record) continue;  // removed meanwhile: told next
    records_.push_back(std::move(*record));
    const auto at = static_cast<uint32_t>(records_.size() - 1);
    // After the rows it ties with: a sort puts ties in index order, and a
    // new message ends the index.
    const auto less = [this](uint32_t a, uint32_t b) { return SortsBefore(a, b); };
    const size_t row = sort_column_ < 0 ? order_.size() : RowFor(order_, at, less);
    beginInsertRows({}, static_cast<int>(row), static_cast<int>(row));
    order_.insert(order_.begin() + static_cast<std::ptrdiff_t>(row), at);
    endInsertRows();
  }
  return true;
}

bool MessageListModel::RemoveRows(const std::vector<uint32_t>& keys) {
  if (keys.size() > kMaxRowSteps) return false;
  std::vector<uint32_t> sorted = keys;
  std::sort(sorted.begin(), sorted.end());
  std::vector<bool> gone(records_.size());
  bool any = false;
  for (size_t at = 0; at < records_.size(); ++at) {
    if (std::binary_search(sorted.begin(), sorted.end(), records_[at].key)) gone[at] = any = true;
  }
  if (!any) return true;
  // Runs of rows from the last, the records staying until all are out.
  for (size_t end = order_.size(); end > 0;) {
    if (!gone[order_[end - 1]]) {
      --end;
      continue;
    }
    size_t first = end - 1;
    while (first > 0 && gone[order_[first - 1]]) --first;
    beginRemoveRows({}, static_cast<int>(first), static_cast<int>(end - 1));
    const auto begin = order_.begin();
    order_.erase(begin + static_cast<std::ptrdiff_t>(first), begin + static_cast<std::ptrdiff_t>(end));
    endRemoveRows();
    end = first;
  }
  std::vector<uint32_t> moved_to(records_.size());
  size_t kept = 0;
  for (size_t at = 0; at < records_.size(); ++at) {
    if (gone[at]) continue;
    moved_to[at] = static_cast<uint32_t>(kept);
    if (kept != at) records_[kept] = std::move(records_[at]);
    ++kept;
  }
  records_.resize(kept);
  for (uint32_t& at : order_) at = moved_to[at];
  return true;
}

bool MessageListModel::ChangeRows(const std::vector<uint32_t>& keys) {
  if (keys.size() > kMaxRowSteps) return false;
  std::vector<uint32_t> sorted = keys;
  std::sort(sorted.begin(), sorted.end());
  std::vector<uint32_t> changed;  // positions in records_
  for (uint32_t at = 0; at < records_.size(); ++at) {
    MessageRecord& old = records_[at];
    if (!std::binary_search(sorted.begin(), sorted.end(), old.key)) continue;
    std::optional<MessageRecord> now = folder_->file()->FindMessage(old.key);
    // Gone meanwhile, or its row may move (a longer record also moves to
    // the end of the index).
    if (!now || now->subject != old.subject || now->from != old.from || now->sent_date != old.sent_date ||
        now->received_date != old.received_date || now->size != old.size || now->server_size != old.server_size) {
      return false;
    }
    old = std::move(*now);
    changed.push_back(at);
  }
  if (changed.empty()) return true;
  std::vector<int> row_of(records_.size());
  for (size_t row = 0; row < order_.size(); ++row) row_of[order_[row]] = static_cast<int>(row);
  for (const uint32_t at : changed) emit dataChanged(index(row_of[at], 0), index(row_of[at], kColumnCount - 1));
  return true;
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
  auto by = [&](auto key_of) {
    std::vector<decltype(key_of(records_.front()))> keys;
    keys.reserve(records_.size());
    for (const MessageRecord& r : records_) keys.push_back(key_of(r));
    std::stable_sort(order_.begin(), order_.end(),
                     [&](uint32_t a, uint32_t b) { return ascending ? keys[a] < keys[b] : keys[b] < keys[a]; });
  };
  switch (column) {
    case kFrom:
    case kSubject: by([&](const MessageRecord& r) { return collator_.sortKey(SortText(column, r)); }); break;
    case kDate: by([](const MessageRecord& r) { return SortDate(r); }); break;
    case kSize: by([](const MessageRecord& r) { return SortSize(r); }); break;
    default: break;
  }
}

bool MessageListModel::SortsBefore(uint32_t a, uint32_t b) const {
  const bool ascending = sort_order_ == Qt::AscendingOrder;
  const MessageRecord& x = records_[ascending ? a : b];
  const MessageRecord& y = records_[ascending ? b : a];
  switch (sort_column_) {
    case kFrom:
    case kSubject: return collator_.compare(SortText(sort_column_, x), SortText(sort_column_, y)) < 0;
    case kDate: return SortDate(x) < SortDate(y);
    case kSize: return SortSize(x) < SortSize(y);
    default: return false;
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
