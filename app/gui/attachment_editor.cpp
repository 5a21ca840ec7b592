#include "app/gui/attachment_editor.h"

#include <QHeaderView>
#include <QLocale>
#include <QUuid>
#include <unistd.h>
#include <algorithm>
#include <system_error>

namespace trv::gui {

namespace {

uint64_t ItemSize(const ComposedItem& item) {
  if (item.path.empty()) return item.data.size();
  std::error_code error;
  const uintmax_t size = std::filesystem::file_size(item.path, error);
  return error ? 0 : size;  // a file gone since: shown as empty, named when the message is built
}

QString ItemName(const ComposedItem& item) {
  if (!item.file_name.empty()) return QString::fromStdU16String(item.file_name);
  return QString::fromStdString(item.path.filename().string());
}

}  // namespace

AttachmentEditor::AttachmentEditor(const LanguageTable& texts, QWidget* parent) : QTreeWidget(parent), texts_(texts) {
  const auto text = [&](const char* id) { return QString::fromStdString(texts_.Text(id)); };
  setHeaderLabels({text("AttachmentName"), text("AttachmentSize"), text("ComposeItemKind")});
  header()->setSectionResizeMode(0, QHeaderView::Stretch);
  setRootIsDecorated(false);
  setSelectionMode(QAbstractItemView::ExtendedSelection);
  // Drops go to the window, which adds the files.
  setAcceptDrops(false);
}

bool AttachmentEditor::AddFile(const std::filesystem::path& path, bool inline_item) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error) || ::access(path.c_str(), R_OK) != 0) return false;
  ComposedItem item;
  item.path = path;
  if (inline_item) {
    item.content_id = u"<" + QUuid::createUuid().toString(QUuid::WithoutBraces).toStdU16String() + u"@tarvo>";
  }
  AddItem(item, inline_item);
  return true;
}

void AttachmentEditor::AddItem(const ComposedItem& item, bool inline_item) {
  (inline_item ? inline_items_ : attachments_).push_back(item);
  Rebuild();
  emit changed();
}

int AttachmentEditor::RemoveSelected() {
  std::vector<int> rows;
  for (const QModelIndex& index : selectionModel()->selectedRows()) rows.push_back(index.row());
  // Rows list the attachments first, then the inline pictures; remove from
  // the end so the earlier rows keep their places.
  std::sort(rows.rbegin(), rows.rend());
  const int attachment_rows = static_cast<int>(attachments_.size());
  for (int row : rows) {
    if (row < attachment_rows) {
      attachments_.erase(attachments_.begin() + row);
    } else {
      inline_items_.erase(inline_items_.begin() + (row - attachment_rows));
    }
  }
  if (!rows.empty()) {
    Rebuild();
    emit changed();
  }
  return static_cast<int>(rows.size());
}

void AttachmentEditor::Rebuild() {
  clear();
  const QString inline_text = QString::fromStdString(texts_.Text("ComposeInline"));
  for (bool inline_item : {false, true}) {
    for (const ComposedItem& item : inline_item ? inline_items_ : attachments_) {
      auto* row = new QTreeWidgetItem(this);
      row->setText(0, ItemName(item));
      row->setText(1, QLocale().formattedDataSize(static_cast<qint64>(ItemSize(item))));
      row->setTextAlignment(1, Qt::AlignRight | Qt::AlignVCenter);
      if (inline_item) row->setText(2, inline_text.arg(QString::fromStdU16String(item.content_id)));
    }
  }
  resizeColumnToContents(1);
  setVisible(count() > 0);
}

}  // namespace trv::gui
