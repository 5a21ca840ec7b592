// The window program's start-up and shutdown around the message loop:
//
// Start, in this order: the wait cursor; the mail engine acquired and
// started (its data directory locked against the command line, as the
// command line locks it); the options (app/gui/gui_options.h); the language file, missing -> shutdown, then
// "Can't find trvmllng.enu" under "Tarvo Mail 2"; the title from it; the main
// window, placed as the options say, its Options (app/gui/options_dialog.h) applied and the
// automatic runs started, and shown; the engine's idle call hooked to the moment the event loop
// has drained its queue; the normal cursor.
//
// Shutdown, at any stage of a failed start and after the loop: the normal
// cursor, the window's look (place, view mode, columns, sort order, folder)
// kept in the options and the window deleted, the strings dropped, the
// options written, the idle hook removed, the engine released (the last
// release shuts it down), the data directory unlocked.
//
// An engine that cannot start ends the start with a message (through
// SessionOptions::tell, and on standard error): a data directory that
// cannot be made (naming it and the cause), one that another program holds
// (naming it and the holder, after the lock's 2-second wait), and the
// engine's start problem. While storages open, the engine's progress
// callback puts their problems to the person through SessionOptions::ask:
// a folder file that is missing (search again, leave the folder
// unavailable, or create it empty), a folder or storage index that cannot
// be loaded (go on, or stop loading that storage); no answer picks what
// changes nothing on disk (unavailable; go on).
//
// Threads: the interface thread. Needs the QApplication.
#pragma once

#include <QMetaObject>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

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
// Asks a question (text, caption, the choices' labels); the index of the
// choice, or -1 when the person gave no answer. A parameter for the tests.
using AskUser =
    std::function<int(const std::string& text, const std::string& caption, const std::vector<std::string>& choices)>;

struct SessionOptions {
  std::filesystem::path program_dir;  // where the language file is looked for
  std::filesystem::path data_dir;     // empty: the engine resolves it
  std::string command_line;           // for the engine's start-up log line
  // Both are used until Shutdown (storages may open later): what they
  // refer to must outlive the session.
  TellUser tell;                      // empty: a message box
  AskUser ask = {};                   // empty: a message box with a button per choice
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
