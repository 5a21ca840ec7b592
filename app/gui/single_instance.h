// One running window program per user. The first process holds an flock()ed
// file named after the single-instance identifier and, once its main window
// exists, listens on a Unix socket named after the window class; both live in
// $XDG_RUNTIME_DIR (else /tmp, with the user id in the names).
//
// A later process finds the socket and hands its command line over (the
// running one raises its window), or asks it to close ("-uninstall"). When
// the file is locked but no socket answers, the other process is starting
// or ending: the later one waits once (5 s) and looks again; still nothing,
// it ends quietly.
//
// Messages on the socket, one per connection, ended by the sender's shutdown
// of its side: "A" (activate), "D" followed by the UTF-8 command line
// (activate and take it), "C" (close).
//
// Threads: the interface thread only. The lock is held until the object goes.
#pragma once

#include <QObject>
#include <QString>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

#include "base/result.h"
#include "core/instance_lock.h"

class QSocketNotifier;

namespace trv::gui {

class SingleInstance final : public QObject {
  Q_OBJECT

 public:
  static constexpr const char* kWindowClass = "CeWnd:TarvoMailMainWnd";

  enum class Outcome {
    kFirst,       // no other instance: go on starting
    kHandedOver,  // another runs and took the command line: exit 0
    kGaveUp,      // another is starting or ending and shows no window: exit 0
  };

  // `dir` holds the lock file and the socket (the user's runtime directory
  // in the program; names in /tmp carry "-<uid>"); `wait` is how long a
  // later process waits for a window.
  explicit SingleInstance(std::filesystem::path dir = InstanceLock::RuntimeDirectory(),
                          std::chrono::milliseconds wait = std::chrono::milliseconds(5000));
  ~SingleInstance() override;

  std::filesystem::path lock_path() const;
  std::filesystem::path socket_path() const;

  // The check of a starting process. An empty command line hands nothing
  // over. A lock file that cannot be opened counts as no other instance.
  Outcome Check(const std::string& command_line);

  // Asks a running instance to close; false when none answers.
  bool SendClose();

  // The main window exists: listen for later processes (signals below).
  // Only after Check gave kFirst.
  Result Listen();

 signals:
  void activateRequested(const QString& command_line);  // empty: none handed over
  void closeRequested();

 private:
  bool Send(const std::string& message);
  void Accept();

  std::filesystem::path dir_;
  std::string suffix_;
  std::chrono::milliseconds wait_;
  int lock_fd_ = -1;
  int listen_fd_ = -1;
  std::unique_ptr<QSocketNotifier> notifier_;
};

}  // namespace trv::gui
