#include "app/gui/reading_window.h"

#include <QMessageBox>
#include <QStatusBar>
#include <memory>
#include <string>

#include "app/gui/compose_window.h"
#include "app/gui/main_window.h"
#include "app/gui/reply_commands.h"
#include "mime/header_names.h"

namespace trv::gui {

namespace {

// "Name:" at the start: a field name of printable characters, then blanks
// and the colon.
bool BeginsWithHeaderLine(std::string_view head) {
  size_t i = 0;
  while (i < head.size() && head[i] > ' ' && head[i] < 127 && head[i] != ':') ++i;
  if (i == 0) return false;
  while (i < head.size() && (head[i] == ' ' || head[i] == '\t')) ++i;
  return i < head.size() && head[i] == ':';
}

}  // namespace

ReadingWindow::ReadingWindow(const LanguageTable& texts, QWidget* parent) : QMainWindow(parent), texts_(texts) {
  setWindowFlag(Qt::Window);
  // Closing the main window ends the program even while this one is open.
  setAttribute(Qt::WA_QuitOnClose, false);
  view_ = new ReadingView(texts);
  setCentralWidget(view_);
  resize(700, 560);
}

bool ReadingWindow::Open(const std::filesystem::path& path, QString* problem) {
  const auto text = [this](const char* id) { return QString::fromStdString(texts_.Text(id)); };
  auto source = std::make_shared<CXmFileSource>();
  QString cause;
  if (Result r = source->Open(path); r.failed()) {
    cause = QString::fromStdString(ResultText(r));
  } else if (source->Size() == 0) {
    cause = text("EmlEmpty");
  } else {
    std::string head(static_cast<size_t>(std::min<uint64_t>(source->Size(), kProbeBytes)), '\0');
    size_t got = 0;
    if (Result r = source->ReadAt(0, head.data(), head.size(), &got); r.failed()) {
      cause = QString::fromStdString(ResultText(r));
    } else if (head.resize(got); head.find('\0') != std::string::npos) {
      cause = text("EmlBinary");
    } else if (!BeginsWithHeaderLine(head)) {
      cause = text("EmlNoHeader");
    }
  }
  if (!cause.isEmpty()) {
    *problem = text("EmlRefused").arg(QString::fromStdString(path.string()), cause);
    return false;
  }
  view_->ShowSource(source);
  QString subject = QString::fromStdU16String(view_->message()->header().DisplayText(field::kSubject)).trimmed();
  if (subject.isEmpty()) subject = QString::fromStdString(path.filename().string());
  setWindowTitle(subject + " - " + text("AppTitle"));
  return true;
}

std::optional<std::filesystem::path> MessageFileOf(const QString& command_line) {
  QString line = command_line.trimmed();
  if (line.size() >= 2 && line.startsWith('"') && line.endsWith('"')) line = line.mid(1, line.size() - 2);
  if (line.isEmpty() || line.startsWith('-') || line.startsWith("mailto:", Qt::CaseInsensitive)) return std::nullopt;
  return std::filesystem::path(line.toStdString());
}

void OpenMessageFile(MainWindow& main, const std::filesystem::path& path) {
  auto* window = new ReadingWindow(main.texts(), &main);
  window->setAttribute(Qt::WA_DeleteOnClose);
  window->view().setFont(main.reading_view().font());  // as the options set the main one
  window->view().SetRemotePolicy(main.reading_view().remote_policy());
  QString problem;
  if (!window->Open(path, &problem)) {
    delete window;
    QMessageBox::warning(&main, QString::fromStdString(main.texts().Text("AppTitle")), problem);
    return;
  }
  ConnectReadingView(main, window->view());
  AddReplyCommands(main, *window);
  window->show();
  window->raise();
  window->activateWindow();
}

void ConnectReadingView(MainWindow& main, ReadingView& view) {
  QObject::connect(&view, &ReadingView::composeRequested, &main, [&main](const QUrl& address) {
    OpenMailtoCompose(main, address.toString(QUrl::FullyEncoded));
  });
}

}  // namespace trv::gui
