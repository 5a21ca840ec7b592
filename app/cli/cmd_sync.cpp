// sync and watch: runs of the services on their workers, with the console's
// progress and questions. Both commands start with SIGINT and SIGTERM
// blocked in every thread (RunWithEngine), so that the signals are taken
// here, by sigtimedwait, and turned into a clean stop.
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "app/cli/commands.h"
#include "app/cli/sync_console.h"
#include "services/full_download.h"
#include "services/run_trust.h"
#include "services/service_registry.h"
#include "services/sync_scheduler.h"

namespace trv::cli {

namespace {

sigset_t StopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

// Waits up to `ms` for SIGINT or SIGTERM; whether one came.
bool StopSignalWithin(long ms) {
  const sigset_t set = StopSignals();
  const timespec wait{ms / 1000, (ms % 1000) * 1000000};
  return sigtimedwait(&set, nullptr, &wait) > 0;
}

// Observer and prompt on every service for the length of a command.
class Attached {
 public:
  Attached(const std::vector<MailService*>& services, SyncConsole& console) : services_(services), console_(console) {
    for (MailService* s : services_) {
      s->observers().Add(&console_);
      s->SetCredentialsPrompt(SyncConsole::HasTerminal() ? &console_ : nullptr);
    }
  }
  ~Attached() {
    for (MailService* s : services_) {
      s->observers().Remove(&console_);
      s->SetCredentialsPrompt(nullptr);
    }
  }
  Attached(const Attached&) = delete;
  Attached& operator=(const Attached&) = delete;

 private:
  std::vector<MailService*> services_;
  SyncConsole& console_;
};

}  // namespace

void BlockStopSignals() {
  const sigset_t set = StopSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

bool ValidateSync(const ParsedArgs& args, std::string* error) {
  if (args.has("--send-only") && args.has("--receive-only")) *error = "--send-only and --receive-only exclude each other";
  return error->empty();
}

int RunSync(CliContext& ctx, const ParsedArgs& args) {
  std::vector<MailService*> services;
  for (const std::string& name : args.positional) {
    MailService* s = FindService(*ctx.engine, name);
    if (s == nullptr) return Fail(ctx, "no account \"" + name + "\" (\"account list\")", FromWin32(1168));
    if (std::find(services.begin(), services.end(), s) == services.end()) services.push_back(s);
  }
  if (args.positional.empty()) {
    for (MailService* s : MailServices(*ctx.engine)) {
      if (s->settings().synchronize) services.push_back(s);
    }
  }
  if (services.empty()) std::fprintf(ctx.err, "%s: no account to synchronize\n", kProgramName);
  SyncConsole console(ctx, false);
  Attached attached(services, console);
  int started = 0;
  int status = kExitOk;
  for (MailService* s : services) {
    if (Result r = s->Start(!args.has("--receive-only"), !args.has("--send-only")); r.failed()) {
      status = Fail(ctx, "cannot start the run of \"" + s->DisplayName() + "\"", r);
    } else {
      ++started;
    }
  }
  // Event 1000 ends every run that started, whatever its end. The first
  // stop signal asks the runs to stop; a second aborts their connections.
  int signals = 0;
  while (console.finished() < started) {
    if (!StopSignalWithin(100)) continue;
    console.FinishProgress();
    std::fprintf(ctx.err, "%s: %s\n", kProgramName,
                 ++signals == 1 ? "stopping the runs (again to abort them)" : "aborting the runs");
    for (MailService* s : services) s->Stop(signals > 1);
  }
  for (MailService* s : services) s->WaitIdle();
  console.FinishProgress();
  for (MailService* s : services) {
    const Result r = s->pending_error();
    if (r.failed()) {
      const std::string refusal = RunRefusalText(*s, r);
      status = Fail(ctx, "the run of \"" + s->DisplayName() + "\" ended in an error (" +
                             (refusal.empty() ? "\"trvmail-cli log\" has the server's replies" : refusal) + ")", r);
    } else {
      WriteOut(ctx, console.Summary(*s) + "\n");
    }
  }
  return status;
}

int RunFetch(CliContext& ctx, const ParsedArgs& args) {
  int status = kExitOk;
  Selection sel;
  if (!SelectMessages(ctx, args, 1, args.positional.size(), &sel, &status)) return status;
  for (uint32_t key : sel.keys) {
    if (Result r = RequestFullDownload(*sel.file, key); r.failed()) {
      return Fail(ctx, "message " + KeyText(key) + " in \"" + FolderPathText(*sel.folder) + "\" is not partially "
                       "loaded, or cannot be marked", r);
    }
  }
  WriteOut(ctx, MessageCount(sel.keys.size()) + " to be completed at the next sync\n");
  return kExitOk;
}

int RunWatch(CliContext& ctx, const ParsedArgs&) {
  const std::vector<MailService*> services = MailServices(*ctx.engine);
  SyncConsole console(ctx, true);
  Attached attached(services, console);
  SyncScheduler scheduler(*ctx.engine);
  std::fprintf(ctx.err, "%s: watching %zu account(s); SIGINT or SIGTERM stops\n", kProgramName, services.size());
  scheduler.Start();
  while (!StopSignalWithin(1000)) {
  }
  console.FinishProgress();
  scheduler.Stop(true);  // Stop(false) on every service, then waits for their runs
  return kExitOk;
}

}  // namespace trv::cli
