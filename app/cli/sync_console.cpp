#include "app/cli/sync_console.h"

#include <termios.h>
#include <unistd.h>

#include <cstdio>

#include "services/mail_service.h"
#include "services/run_trust.h"

namespace trv::cli {

namespace {

// The progress text of an event; empty for events not shown.
std::string EventText(const SyncEvent& e) {
  auto n_of_m = [&](const char* what) {
    return std::string(what) + " " + std::to_string(e.values[0]) + " of " + std::to_string(e.values[1]);
  };
  switch (e.code) {
    case kEventConnecting: return "connecting to " + e.text;
    case kEventAuthenticating: return "logging in";
    case kEventStartingTls: return "starting TLS";
    case kEventReadingList: return "reading the message list";
    case kEventDownloading: return n_of_m("downloading");
    case kEventDeleting: return n_of_m("deleting on the server");
    case kEventSending: return n_of_m("sending");
    case kEventListingFolders: return "listing the folders";
    case kEventReadingFolder: return e.text + ": reading the message list";
    case kEventDownloadingFolder: return e.text + ": " + n_of_m("downloading");
    case kEventDeletingOnServer: return n_of_m("deleting on the server");
    case kEventUploading: return n_of_m("uploading");
    case kEventFolderDownloaded: return e.text + ": downloaded " + std::to_string(e.values[0]);
    case kEventFolderUploaded: return "uploaded " + std::to_string(e.values[0]);
    case kEventClosing: return "closing";
    default: return {};
  }
}

// Shows `prompt` and reads a line from the terminal without its line end;
// false at the end of input. Echo goes off before the prompt shows, and
// without flushing, so an answer typed ahead is neither shown nor lost.
bool ReadLine(const char* prompt, std::string* line, bool echo) {
  termios saved{};
  const bool quiet = !echo && ::tcgetattr(STDIN_FILENO, &saved) == 0;
  if (quiet) {
    termios off = saved;
    off.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    ::tcsetattr(STDIN_FILENO, TCSANOW, &off);
  }
  std::fputs(prompt, stderr);
  std::fflush(stderr);
  line->clear();
  int c = 0;
  while ((c = std::fgetc(stdin)) != EOF && c != '\n') line->push_back(static_cast<char>(c));
  if (quiet) {
    ::tcsetattr(STDIN_FILENO, TCSANOW, &saved);
    std::fputs("\n", stderr);
  }
  return c != EOF || !line->empty();
}

}  // namespace

std::string SyncConsole::SummaryText(MailService& service, const Counts& c) {
  return service.DisplayName() + ": sent " + std::to_string(c.sent) + ", downloaded " + std::to_string(c.downloaded);
}

bool SyncConsole::HasTerminal() { return ::isatty(STDIN_FILENO) == 1 && ::isatty(STDERR_FILENO) == 1; }

std::string SyncConsole::Summary(MailService& service) {
  MutexLock lock(mu_);
  return SummaryText(service, counts_[&service]);
}

void SyncConsole::FinishProgress() {
  MutexLock lock(mu_);
  progress_.Finish();
}

void SyncConsole::OnSyncEvent(MailService& service, const SyncEvent& event) {
  std::string summary;
  {
    MutexLock lock(mu_);
    Counts& c = counts_[&service];
    if (event.code == kEventDownloading) c.downloaded = std::max(c.downloaded, event.values[0]);
    if (event.code == kEventFolderDownloaded) c.downloaded += event.values[0];  // IMAP4: per folder
    if (event.code == kEventAllSent) c.sent = event.values[0];
    const std::string text = EventText(event);
    if (!text.empty() && !asking_) progress_.Update(service.DisplayName() + ": " + text);
    if (event.code == kEventRunFinished && summaries_) {
      progress_.Finish();
      summary = SummaryText(service, c);
      c = Counts();
    }
  }
  if (event.code != kEventRunFinished) return;
  if (summaries_) {
    const Result r = service.pending_error();
    std::string end;
    if (r.failed()) {
      const std::string refusal = RunRefusalText(service, r);
      end = "; ended with " + ResultHex(r) + " " + ResultText(r) + (refusal.empty() ? "" : " (" + refusal + ")");
    }
    std::fprintf(ctx_.out, "%s%s\n", summary.c_str(), end.c_str());
    std::fflush(ctx_.out);
  }
  finished_.fetch_add(1);
}

bool SyncConsole::AskCredentials(MailService& service, CredentialsFor which, Credentials& credentials) {
  if (!HasTerminal()) return false;
  MutexLock one_at_a_time(ask_mu_);
  {
    MutexLock lock(mu_);
    progress_.Finish();
    asking_ = true;
  }
  const ServiceSettings s = service.settings();
  const ProtocolSettings& p = which == CredentialsFor::kSmtp ? s.smtp : s.incoming;
  std::fprintf(stderr, "account \"%s\" (%s %s:%d) needs a user name and password\n",
               service.DisplayName().c_str(), which == CredentialsFor::kSmtp ? "SMTP" : service.ServiceClass(),
               p.host.c_str(), p.port);
  std::string user;
  std::string answer;
  bool ok = ReadLine(("user name [" + credentials.user_name + "]: ").c_str(), &user, true);
  ok = ok && ReadLine("password: ", &credentials.password, false) && !credentials.password.empty();
  if (ok) {
    if (!user.empty()) credentials.user_name = user;
    credentials.save = ReadLine("keep the password in the settings file (enciphered)? [y/N]: ", &answer, true) &&
                       (answer == "y" || answer == "Y" || answer == "yes");
  }
  MutexLock lock(mu_);
  asking_ = false;
  return ok;
}

}  // namespace trv::cli
