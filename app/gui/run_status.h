// The status area of the main window: one line per service that ran since
// the window opened (its name and what its run is doing, from the run's
// progress events: connecting to HOST, folder NAME i/n, downloading i/n
// with bytes, sending i/n; at the end "finished", "stopped" or the error's
// text) and a progress bar for the run that reported last.
//
// Threads: the events come on the services' worker threads; OnSyncEvent
// turns each into a text there and hands it to the interface thread, where
// the lines change. Everything else runs on the interface thread.
// Follow() takes the engine's service list again (call it before runs
// start): new services are observed, removed ones forgotten. The object
// stops observing every service still on the engine when it is destroyed.
#pragma once

#include <QLabel>
#include <QMap>
#include <QProgressBar>
#include <QSet>
#include <QStringList>
#include <QWidget>
#include <vector>

#include "app/gui/language.h"
#include "services/sync_events.h"

namespace trv {
class MailEngine;
}

namespace trv::gui {

class RunStatus final : public QWidget, public SyncObserver {
  Q_OBJECT

 public:
  RunStatus(MailEngine& engine, const LanguageTable& texts, QWidget* parent = nullptr);
  ~RunStatus() override;

  // Observes every MailService of the engine now, and no other.
  void Follow();
  // Shows `line` as the line of the service at `service` (its address
  // only identifies it), kept until the run's end, which then leaves it in
  // place of "finished" (a run that was refused a question shows why it
  // ended).
  void Note(const void* service, const QString& line);
  // A line of its own, not a service's (e.g. a hand-over from the desktop).
  void ShowMessage(const QString& text);

  // The lines shown, in the order the services first reported.
  QStringList Lines() const;
  QProgressBar& progress() { return *bar_; }

  // SyncObserver (worker threads).
  void OnSyncEvent(MailService& service, const SyncEvent& event) override;

 signals:
  // A run ended (after its line changed).
  void runFinished();

 private:
  struct Line {
    QString text;
    bool noted = false;  // a Note stands until the run ends
  };
  // Interface thread: the line of the service (by its address, never used
  // as a pointer there) changes; `finished` for event 1000.
  void Show(const void* service, const QString& text, int done, int total, bool finished, bool note);
  QString EventText(MailService& service, const SyncEvent& event) const;
  QString Text(const char* id) const { return QString::fromStdString(texts_.Text(id)); }

  MailEngine& engine_;
  const LanguageTable& texts_;
  std::vector<MailService*> followed_;
  std::vector<const void*> order_;
  QMap<const void*, Line> lines_;
  QString message_;
  QLabel* label_;
  QProgressBar* bar_;  // shown while any run is under way
  QSet<const void*> running_;
};

}  // namespace trv::gui
