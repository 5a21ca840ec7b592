#include "app/gui/attachment_list.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDesktopServices>
#include <QDir>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QKeyEvent>
#include <QLocale>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTreeWidget>
#include <QUrl>
#include <QVBoxLayout>
#include <cerrno>
#include <memory>

#include "base/file_io.h"
#include "mime/stream.h"
#include "ui/message_show.h"

namespace trv::gui {

namespace {

// Decoded bytes straight to a file descriptor.
class FdStream final : public CXmStream {
 public:
  explicit FdStream(int fd) : fd_(fd) {}
  Result Read(void*, size_t, size_t* got) override {
    *got = 0;
    return rc::kNotImplemented;
  }
  Result Write(const void* buf, size_t size) override {
    written_ += size;
    return WriteAllBytes(fd_, std::string_view(static_cast<const char*>(buf), size));
  }
  using CXmStream::Write;
  Result Seek(int64_t, SeekOrigin) override { return rc::kNotImplemented; }
  uint64_t Position() const override { return written_; }
  uint64_t Size() const override { return written_; }

 private:
  int fd_;
  uint64_t written_ = 0;
};

// The process's private directory for opened attachments.
const QTemporaryDir& OpenedDir() {
  static const QTemporaryDir dir(QDir::tempPath() + "/trvmail-XXXXXX");
  return dir;
}

}  // namespace

Result SaveAttachment(const CXmMessagePart& part, const std::filesystem::path& path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return ResultFromErrno(errno);
  Result r = ::fchmod(fd, 0600) == 0 ? rc::kOk : ResultFromErrno(errno);
  FdStream out(fd);
  if (r.ok()) r = part.DecodeBody(out);
  if (::close(fd) != 0 && r.ok()) r = ResultFromErrno(errno);
  if (r.failed()) ::unlink(path.c_str());
  return r;
}

QString AttachmentFileName(const CXmMessagePart& part, const QString& fallback) {
  QString name = QString::fromStdU16String(part.GetFileName());
  name = name.mid(qMax(name.lastIndexOf('/'), name.lastIndexOf('\\')) + 1);
  name.removeIf([](QChar c) { return c.unicode() < 0x20 || c.unicode() == 0x7F; });
  name = name.trimmed();
  return name.isEmpty() || name == "." || name == ".." ? fallback : name;
}

AttachmentList::AttachmentList(const LanguageTable& texts, QWidget* parent) : QWidget(parent), texts_(texts) {
  const auto text = [&texts](const char* id) { return QString::fromStdString(texts.Text(id)); };
  list_ = new QTreeWidget;
  list_->setRootIsDecorated(false);
  list_->setHeaderLabels({text("AttachmentName"), text("AttachmentType"), text("AttachmentSize")});
  list_->header()->setSectionResizeMode(0, QHeaderView::Stretch);
  list_->header()->setStretchLastSection(false);
  list_->setContextMenuPolicy(Qt::CustomContextMenu);
  open_ = new QPushButton(text("AttachmentOpen"));
  save_ = new QPushButton(text("AttachmentSave"));
  auto* buttons = new QVBoxLayout;
  buttons->addWidget(open_);
  buttons->addWidget(save_);
  buttons->addStretch();
  auto* layout = new QHBoxLayout(this);
  layout->setContentsMargins(2, 2, 2, 2);
  layout->addWidget(list_, 1);
  layout->addLayout(buttons);
  setMaximumHeight(list_->fontMetrics().height() * 7);

  // A failure has been shown to the person already.
  connect(open_, &QPushButton::clicked, this, [this] { Open(CurrentRow()).Ignore(); });
  connect(save_, &QPushButton::clicked, this, [this] { SaveAs(CurrentRow()).Ignore(); });
  connect(list_, &QTreeWidget::itemActivated, this, [this] { Open(CurrentRow()).Ignore(); });
  connect(list_, &QWidget::customContextMenuRequested, this, [this](const QPoint& at) { ShowMenu(at); });
}

void AttachmentList::SetAttachments(const std::vector<const CXmMessagePart*>& parts) {
  parts_ = parts;
  list_->clear();
  const QString fallback = QString::fromStdString(texts_.Text("AttachmentDefaultName"));
  for (const CXmMessagePart* part : parts_) {
    auto* item = new QTreeWidgetItem(list_);
    item->setText(0, AttachmentFileName(*part, fallback));
    item->setText(1, QString::fromStdU16String(part->GetContentType()));
    item->setText(2, QLocale().formattedDataSize(static_cast<qint64>(DecodedSize(*part))));
    item->setTextAlignment(2, Qt::AlignRight | Qt::AlignVCenter);
  }
  list_->resizeColumnToContents(1);
  list_->resizeColumnToContents(2);
  if (!parts_.empty()) list_->setCurrentItem(list_->topLevelItem(0));
  setVisible(!parts_.empty());
}

int AttachmentList::CurrentRow() const {
  QTreeWidgetItem* item = list_->currentItem();
  return item == nullptr ? -1 : list_->indexOfTopLevelItem(item);
}

void AttachmentList::ShowMenu(const QPoint& at) {
  QTreeWidgetItem* item = list_->itemAt(at);
  if (item == nullptr) return;
  list_->setCurrentItem(item);
  const int row = list_->indexOfTopLevelItem(item);
  QMenu menu;
  menu.addAction(open_->text(), this, [this, row] { Open(row).Ignore(); });
  menu.addAction(save_->text(), this, [this, row] { SaveAs(row).Ignore(); });
  menu.exec(list_->viewport()->mapToGlobal(at));
}

Result AttachmentList::SaveAs(int row) {
  if (row < 0 || row >= count()) return rc::kInvalidArg;
  const CXmMessagePart& part = *parts_[static_cast<size_t>(row)];
  const QString suggested = QDir::home().filePath(list_->topLevelItem(row)->text(0));
  const QString path = ask_ ? ask_(suggested)
                            : QFileDialog::getSaveFileName(this, QString::fromStdString(texts_.Text("AttachmentSaveTitle")),
                                                           suggested);
  if (path.isEmpty()) return rc::kAbort;
  const Result r = SaveAttachment(part, path.toStdString());
  if (r.failed()) Problem(path, r);
  return r;
}

Result AttachmentList::Open(int row) {
  if (row < 0 || row >= count()) return rc::kInvalidArg;
  const QTemporaryDir& dir = OpenedDir();
  if (!dir.isValid()) {
    Problem(dir.path(), ResultFromErrno(EACCES));
    return rc::kFail;
  }
  // A directory per opened file keeps the attachment's own name.
  static int opened = 0;
  const QString sub = dir.filePath(QString::number(++opened));
  if (::mkdir(sub.toStdString().c_str(), 0700) != 0) {
    const Result r = ResultFromErrno(errno);
    Problem(sub, r);
    return r;
  }
  const QString path = sub + "/" + list_->topLevelItem(row)->text(0);
  if (Result r = SaveAttachment(*parts_[static_cast<size_t>(row)], path.toStdString()); r.failed()) {
    Problem(path, r);
    return r;
  }
  QDesktopServices::openUrl(QUrl::fromLocalFile(path));
  return rc::kOk;
}

void AttachmentList::Problem(const QString& file, Result r) {
  QMessageBox::warning(this, QString::fromStdString(texts_.Text("AppTitle")),
                       QString::fromStdString(texts_.Text("AttachmentNotSaved"))
                           .arg(file, QString::fromStdString(ResultText(r))));
}

}  // namespace trv::gui
