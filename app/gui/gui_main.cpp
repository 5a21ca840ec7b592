#include "app/gui/gui_main.h"

#include <QApplication>
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

#include "app/gui/desktop_integration.h"
#include "app/gui/reading_window.h"
#include "app/gui/session.h"
#include "app/gui/single_instance.h"

namespace trv::gui {

namespace {

constexpr std::string_view kUninstall = "-uninstall";

// The arguments after the program's name, joined by blanks.
std::string CommandLine(int argc, char** argv) {
  std::string line;
  for (int i = 1; i < argc; ++i) {
    if (i > 1) line += ' ';
    line += argv[i];
  }
  return line;
}

}  // namespace

int RunMain(int argc, char** argv) {
  std::string command_line = CommandLine(argc, argv);
  QApplication app(argc, argv);
  // A message file is named absolutely, for a running instance that has
  // another working directory.
  if (const auto file = MessageFileOf(QString::fromStdString(command_line)); file && file->is_relative()) {
    std::error_code ignored;  // a path that cannot be made absolute is handed as given
    const std::filesystem::path absolute = std::filesystem::absolute(*file, ignored);
    if (!absolute.empty()) command_line = absolute.string();
  }

  SingleInstance instance;
  // Anything that begins with the switch takes the uninstall road.
  if (command_line.compare(0, kUninstall.size(), kUninstall) == 0) {
    instance.SendClose();  // no running instance: nothing to close
    DesktopIntegration desktop;
    // The uninstall road ends with 0 whatever happened; a file left
    // unchanged is said.
    if (desktop.Desintegrate().failed()) {
      std::fprintf(stderr, "trvmail: %s could not be changed\n", desktop.subject().c_str());
    }
    return 0;
  }
  if (instance.Check(command_line) != SingleInstance::Outcome::kFirst) return 0;

  Session session;
  SessionOptions options;
  options.program_dir = QCoreApplication::applicationDirPath().toStdString();
  options.command_line = command_line;
  if (!session.Start(options)) return 0;

  MainWindow* window = session.window();
  QObject::connect(&instance, &SingleInstance::activateRequested, window,
                   [window](const QString& line) { window->Activate(line); });
  QObject::connect(&instance, &SingleInstance::closeRequested, window, [window] { window->close(); });
  // Without the socket later processes cannot find us; this one still works.
  instance.Listen().Ignore();
  // A message file or a mailto: address given at start is acted on as a
  // handed-over one would be.
  if (!command_line.empty()) window->Activate(QString::fromStdString(command_line));

  const int code = QApplication::exec();
  session.Shutdown();
  return code;
}

}  // namespace trv::gui
