#include "app/gui/search_field.h"

#include <QLineEdit>
#include <QTableView>
#include <QTimer>
#include <QToolBar>

#include "app/gui/main_window.h"
#include "core/engine.h"
#include "store/mail_folder.h"

namespace trv::gui {

SearchField::SearchField(MainWindow& window)
    : QObject(&window), window_(window), index_(window.engine().activity_log()) {
  QToolBar* bar = window.addToolBar(QString::fromStdString(window.texts().Text("SearchField")));
  bar->setObjectName("SearchBar");
  bar->setMovable(false);
  edit_ = new QLineEdit;
  edit_->setPlaceholderText(QString::fromStdString(window.texts().Text("SearchField")));
  edit_->setClearButtonEnabled(true);
  bar->addWidget(edit_);
  pause_ = new QTimer(this);
  pause_->setSingleShot(true);
  pause_->setInterval(300);
  slice_ = new QTimer(this);
  slice_->setSingleShot(true);
  slice_->setInterval(0);
  connect(pause_, &QTimer::timeout, this, [this] { Step(); });
  connect(slice_, &QTimer::timeout, this, [this] { Step(); });
  connect(edit_, &QLineEdit::textChanged, this, [this] { Restart(); });
  connect(edit_, &QLineEdit::returnPressed, this, [this] {
    pause_->stop();
    Step();
  });

  // Messages come and go, the list is read again or sorted: the rows are
  // hidden afresh, and the hits brought up to date.
  MessageListModel* model = &window.message_model();
  connect(model, &QAbstractItemModel::modelReset, this, [this] {
    filtering_ = false;  // hits of another folder, perhaps
    Apply();
    Restart();
  });
  connect(model, &QAbstractItemModel::layoutChanged, this, [this] { Apply(); });
  connect(model, &QAbstractItemModel::rowsInserted, this, [this] {
    Apply();
    Restart();
  });
}

void SearchField::Restart() {
  slice_->stop();
  if (edit_->text().trimmed().isEmpty()) {
    pause_->stop();
    filtering_ = false;
    Apply();
    return;
  }
  pause_->start();
}

void SearchField::Step() {
  MailFolder* folder = window_.message_model().folder();
  const std::string query = edit_->text().toStdString();
  if (folder == nullptr || folder->file() == nullptr || edit_->text().trimmed().isEmpty()) return;
  if (!opened_) {
    if (index_.Open(window_.engine().data_directory() / SearchIndex::kFileName).failed()) return;  // logged there
    opened_ = true;
  }
  const std::vector<SearchFolder> folders = {{WideToUtf8(folder->file_name()), folder->file(), folder}};
  size_t left = 0;
  Result r = index_.Update(folders, false, {}, kSlice, &left);
  std::vector<SearchHit> hits;
  if (r.ok() && left == 0) r = index_.Find(ParseSearchQuery(query), folders, &hits);
  if (r.failed()) {
    // A damaged database is made again and filled on the next turns; any
    // other failure leaves the list unfiltered.
    if (index_.damaged() && index_.Recreate().ok()) slice_->start();
    filtering_ = false;
    Apply();
    return;
  }
  if (left > 0) {
    slice_->start();
    return;
  }
  hits_.clear();
  for (const SearchHit& hit : hits) hits_.insert(hit.key);
  filtering_ = true;
  Apply();
}

void SearchField::Apply() {
  QTableView& list = window_.message_list();
  const MessageListModel& model = window_.message_model();
  const int rows = model.rowCount();
  for (int row = 0; row < rows; ++row) {
    const MessageRecord* record = model.RecordAt(row);
    list.setRowHidden(row, filtering_ && (record == nullptr || hits_.count(record->key) == 0));
  }
}

}  // namespace trv::gui
