// The reading window: a message file (".eml") shown in a window of its own
// with the reading view and its attachment list, without importing it and
// without writing anything anywhere.
//
// A file is taken as mail when it can be read, is not empty, has no NUL
// byte in its first kProbeBytes and begins with a header line ("Name:" of
// printable characters); anything else is refused
// with a message naming the file and the cause.
//
// Threads: interface thread.
#pragma once

#include <QMainWindow>
#include <QString>
#include <filesystem>
#include <optional>

#include "app/gui/language.h"
#include "app/gui/reading_view.h"

namespace trv::gui {

class MainWindow;

class ReadingWindow final : public QMainWindow {
  Q_OBJECT

 public:
  static constexpr size_t kProbeBytes = 4096;

  explicit ReadingWindow(const LanguageTable& texts, QWidget* parent = nullptr);

  // Shows the message in `path`; false, with `*problem` naming the file
  // and the cause, when it is not a readable message.
  bool Open(const std::filesystem::path& path, QString* problem);
  ReadingView& view() const { return *view_; }

 private:
  const LanguageTable& texts_;
  ReadingView* view_;
};

// The message file a command line names: the whole line (quotes around it
// removed) unless it is empty, a switch ("-...") or a "mailto:" address.
std::optional<std::filesystem::path> MessageFileOf(const QString& command_line);

// Opens a reading window over `main` for `path` (closed and deleted with
// it), or tells in a message box why the file cannot be shown.
void OpenMessageFile(MainWindow& main, const std::filesystem::path& path);

// The main window's part in reading: a mailto: link clicked in `view` opens
// a compose window filled from it.
void ConnectReadingView(MainWindow& main, ReadingView& view);

}  // namespace trv::gui
