// What sync and watch show and ask on the console while services run:
// progress lines from the runs' events, a summary line per finished run, and
// the credentials question on the terminal.
//
// Threads: the runs tell their events and ask their questions on their own
// worker threads, several at once; one question is asked at a time, and
// progress is not drawn while a question waits for its answer.
#pragma once

#include <atomic>
#include <map>
#include <string>

#include "app/cli/cli.h"
#include "base/thread_annotations.h"
#include "services/credentials_prompt.h"
#include "services/sync_events.h"

namespace trv::cli {

class SyncConsole final : public SyncObserver, public CredentialsPrompt {
 public:
  // `summaries`: one line on standard output at the end of every run
  // (watch), else the caller prints them (sync).
  SyncConsole(CliContext& ctx, bool summaries) : ctx_(ctx), summaries_(summaries), progress_(ctx) {}

  // Whether questions can be asked: standard input and standard error are
  // a terminal.
  static bool HasTerminal();

  // Runs that have ended (event 1000) so far.
  int finished() const { return finished_.load(); }
  // "NAME: sent 1, downloaded 2" for the service's last run.
  std::string Summary(MailService& service) EXCLUDES(mu_);
  // Ends the progress line.
  void FinishProgress() EXCLUDES(mu_);

  void OnSyncEvent(MailService& service, const SyncEvent& event) override EXCLUDES(mu_);
  // User name (the current one when the answer is empty), password without
  // echo, and whether to keep it. False on an empty password or the end of
  // the input.
  bool AskCredentials(MailService& service, CredentialsFor which, Credentials& credentials) override
      EXCLUDES(mu_, ask_mu_);

 private:
  struct Counts {
    int64_t sent = 0;
    int64_t downloaded = 0;
  };

  static std::string SummaryText(MailService& service, const Counts& counts);

  CliContext& ctx_;
  const bool summaries_;
  std::atomic<int> finished_{0};
  Mutex ask_mu_;  // one question at a time
  Mutex mu_;
  bool asking_ GUARDED_BY(mu_) = false;
  ProgressLine progress_ GUARDED_BY(mu_);
  std::map<MailService*, Counts> counts_ GUARDED_BY(mu_);
};

}  // namespace trv::cli
