// The window program's start-up and shutdown around the message loop:
//
// Start, in this order: the wait cursor; the mail engine acquired and
// started (its data directory locked against the command line, as the
// command line locks it); the options (app/gui/gui_options.h); the language file, missing -> shutdown, then
// "Can't find trvmllng.enu" under "Tarvo Mail 2"; the title from it; the main
// window, placed as the options say and shown; the engine's idle call hooked to the moment the event loop
// has drained its queue; the normal cursor.
//
// Shutdown, at any stage of a failed start and after the loop: the normal
// cursor, the window's look (place, view mode, columns, sort order, folder)
// kept in the options and the window deleted, the strings dropped, the
// options written, the idle hook removed, the engine released (the last
// release shuts it down), the data directory unlocked.
//
// An engine that cannot start (data directory, lock) ends the start quietly
// for the person (the reason goes to standard error).
//
// Threads: the interface thread. Needs the QApplication.
#pragma once

#include <QMetaObject>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "app/gui/gui_options.h"
#include "app/gui/language.h"
#include "app/gui/main_window.h"
#include "core/instance_lock.h"

namespace trv {
class MailEngine;
}

namespace trv::gui {

// Shows a message in a box of its own (text, caption); a parameter so that
// tests can read what a person would see.
using TellUser = std::function<void(const std::string& text, const std::string& caption)>;

struct SessionOptions {
  std::filesystem::path program_dir;  // where the language file is looked for
  std::filesystem::path data_dir;     // empty: the engine resolves it
  std::string command_line;           // for the engine's start-up log line
  TellUser tell;                      // empty: a message box
};

class Session {
 public:
  Session() = default;
  ~Session() { Shutdown(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // True when the main window is up and the loop may run; after false
  // Shutdown has run.
  bool Start(const SessionOptions& options);
  void Shutdown();

  MailEngine* engine() const { return engine_; }
  MainWindow* window() const { return window_.get(); }
  const LanguageTable& texts() const { return texts_; }

 private:
  MailEngine* engine_ = nullptr;
  InstanceLock data_lock_;
  LanguageTable texts_;
  GuiOptions options_;
  std::unique_ptr<MainWindow> window_;
  QMetaObject::Connection idle_hook_;
  bool wait_cursor_ = false;
};

}  // namespace trv::gui
