// The activity log's window: the last lines of the log file (at most
// kMaxLines, read from the file's end, never the whole of a large file),
// read again on its Refresh button and whenever Refresh() is called (the
// window program calls it when a run ends). The log is 8-bit text; lines
// are shown as UTF-8, invalid bytes replaced.
//
// Threads: interface thread. The file is read on that thread; kMaxBytes
// bounds the work.
#pragma once

#include <QPlainTextEdit>
#include <QStringList>
#include <QWidget>
#include <filesystem>

#include "app/gui/language.h"

namespace trv::gui {

class LogWindow final : public QWidget {
  Q_OBJECT

 public:
  static constexpr int kMaxLines = 2000;
  static constexpr qint64 kMaxBytes = 1 << 20;

  // A window of its own (parent: its owner, for its lifetime only).
  LogWindow(std::filesystem::path path, const LanguageTable& texts, QWidget* parent = nullptr);

  // The last `max_lines` lines of the file among its last `max_bytes`
  // bytes (a first line cut by that limit is dropped); empty when the file
  // cannot be read.
  static QStringList TailLines(const std::filesystem::path& path, int max_lines = kMaxLines,
                               qint64 max_bytes = kMaxBytes);

  void Refresh();
  QString text() const { return view_->toPlainText(); }

 private:
  std::filesystem::path path_;
  QPlainTextEdit* view_;
};

}  // namespace trv::gui
