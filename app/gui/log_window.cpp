#include "app/gui/log_window.h"

#include <QFile>
#include <QHBoxLayout>
#include <QPushButton>
#include <QScrollBar>
#include <QVBoxLayout>

namespace trv::gui {

LogWindow::LogWindow(std::filesystem::path path, const LanguageTable& texts, QWidget* parent)
    : QWidget(parent, Qt::Window), path_(std::move(path)) {
  setWindowTitle(QString::fromStdString(texts.Text("LogTitle")).arg(QString::fromStdString(path_.string())));
  view_ = new QPlainTextEdit;
  view_->setReadOnly(true);
  view_->setLineWrapMode(QPlainTextEdit::NoWrap);
  view_->setFont(QFont("monospace"));
  view_->setMaximumBlockCount(kMaxLines + 1);
  auto* refresh = new QPushButton(QString::fromStdString(texts.Text("LogRefresh")));
  auto* close = new QPushButton(QString::fromStdString(texts.Text("LogClose")));
  connect(refresh, &QPushButton::clicked, this, &LogWindow::Refresh);
  connect(close, &QPushButton::clicked, this, &QWidget::close);
  auto* buttons = new QHBoxLayout;
  buttons->addStretch(1);
  buttons->addWidget(refresh);
  buttons->addWidget(close);
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(view_, 1);
  layout->addLayout(buttons);
  resize(800, 500);
  Refresh();
}

QStringList LogWindow::TailLines(const std::filesystem::path& path, int max_lines, qint64 max_bytes) {
  QFile file(QString::fromStdString(path.string()));
  if (!file.open(QIODevice::ReadOnly)) return {};
  const qint64 start = std::max<qint64>(0, file.size() - max_bytes);
  if (!file.seek(start)) return {};
  const QByteArray bytes = file.read(max_bytes);
  QList<QByteArray> lines = bytes.split('\n');
  if (start > 0 && !lines.isEmpty()) lines.removeFirst();            // cut by the limit
  if (!lines.isEmpty() && lines.back().isEmpty()) lines.removeLast();  // after the last line end
  QStringList out;
  for (qsizetype i = std::max<qsizetype>(0, lines.size() - max_lines); i < lines.size(); ++i) {
    QByteArray line = lines[i];
    if (line.endsWith('\r')) line.chop(1);
    out << QString::fromUtf8(line);
  }
  return out;
}

void LogWindow::Refresh() {
  view_->setPlainText(TailLines(path_).join('\n'));
  view_->verticalScrollBar()->setValue(view_->verticalScrollBar()->maximum());
}

}  // namespace trv::gui
