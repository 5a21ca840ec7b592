// Pulling a whole INBOX from the harness's Dovecot into an empty target:
// our IMAP4 synchronization (`trvmail-cli sync` of a fresh IMAP4 account,
// run as a child process) beside mbsync (Channel Pull of INBOX into a
// Maildir), in the same run, over plain IMAP and over implicit TLS.
//
//   imap4_sync_bench [--messages N, default 10000] [--runs R, default 3]
//                    [--keep DIR] (keep the last targets in DIR)
//                    [--profile DIR] (each timed sync of ours under
//                    `perf record -g`, perf-plain.data and perf-tls.data)
//
// The corpus has a fixed seed: seven messages in ten plain text of 2 to
// 8 KiB, two in ten with one base64 attachment of 50 to 300 KiB (before
// encoding), one in ten alternative text and HTML; 524 MB for 10,000
// (531 MB as served, CR LF). It is dropped straight into the Maildir. Only
// the sync (or mbsync) is timed; the account set-up before it is not. Peak
// memory is the child's ru_maxrss from wait4, CPU time its user and system
// time. Runs are interleaved; a first untimed pass builds Dovecot's index
// and cache. Times are medians, peak memory the largest.
// mbsync runs twice a round: as configured by default (FSync yes, every
// message flushed, as durable as our batched commits) and with FSync no.
// mbsync is a benchmark-only peer (Debian package "isync"); without it only
// our figures are printed.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench/mail_generator.h"
#include "tests/support/certificates.h"
#include "tests/support/mail_servers.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using trv::test::MailServers;
using Clock = std::chrono::steady_clock;

constexpr const char* kMbsync = "/usr/bin/mbsync";
constexpr const char* kUsage = "usage: imap4_sync_bench [--messages N] [--runs R] [--keep DIR] [--profile DIR]";

[[noreturn]] void Fail(const std::string& what) {
  std::fprintf(stderr, "imap4_sync_bench: %s\n", what.c_str());
  std::exit(1);
}

struct ChildRun {
  int status = -1;
  double seconds = 0;
  double user = 0, system = 0;  // CPU seconds
  long max_rss_kb = 0;
};

// Runs argv in `home` (HOME and the XDG directories point into it, so
// nothing of the user's is touched), standard input from `input` (or
// /dev/null), output appended to home/log; waits with wait4 for its usage.
ChildRun RunChild(const std::vector<std::string>& argv, const fs::path& home, const std::string& input = "") {
  const fs::path in = home / "stdin";
  trv::test::WriteFile(in, input);
  std::vector<std::string> env = {"HOME=" + home.string(), "XDG_CONFIG_HOME=" + (home / "config").string(),
                                  "XDG_DATA_HOME=" + (home / "data").string(),
                                  "XDG_RUNTIME_DIR=" + (home / "run").string(), "TZ=UTC", "PATH=/usr/bin:/bin"};
  fs::create_directories(home / "run");
  ::chmod((home / "run").c_str(), 0700);
  std::vector<char*> args, envp;
  for (std::string& a : const_cast<std::vector<std::string>&>(argv)) args.push_back(a.data());
  for (std::string& e : env) envp.push_back(e.data());
  args.push_back(nullptr);
  envp.push_back(nullptr);
  const std::string log = (home / "log").string();
  const auto start = Clock::now();
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int i = ::open(in.c_str(), O_RDONLY);
    const int o = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (i < 0 || o < 0) ::_exit(126);
    ::dup2(i, 0);
    ::dup2(o, 1);
    ::dup2(o, 2);
    ::execve(args[0], args.data(), envp.data());
    ::_exit(127);
  }
  ChildRun run;
  rusage usage{};
  int status = 0;
  if (pid < 0 || ::wait4(pid, &status, 0, &usage) < 0) Fail("cannot run " + argv[0]);
  run.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  run.max_rss_kb = usage.ru_maxrss;
  run.user = usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6;
  run.system = usage.ru_stime.tv_sec + usage.ru_stime.tv_usec / 1e6;
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

std::string Tail(const fs::path& log) {
  const std::string text = trv::test::ReadFile(log);
  return text.size() > 2000 ? text.substr(text.size() - 2000) : text;
}

struct Target {
  ChildRun run;
  size_t messages = 0;
  size_t partial = 0;    // messages not held whole
  uintmax_t bytes = 0;   // as stored
  std::string error;  // the end of the log of a run that failed
};

// Our pass: a fresh data directory with one IMAP4 account (and, over TLS,
// the server's certificate trusted as accept-cert does), then the timed
// `sync`, then the inbox counted.
Target OurPass(bool tls, const fs::path& home, const std::string& profile) {
  const uint16_t port = tls ? MailServers::Instance().ports().imaps : MailServers::Instance().ports().imap;
  const std::string data = (home / "mail").string();
  auto cli = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {TRVMAIL_CLI_PATH, "--data-dir", data});
    return args;
  };
  const trv::test::MailUser alice = MailServers::Alice();
  if (RunChild(cli({"account", "add", "--class", "IMAP4", "--name", "Bench", "--email", "alice@localhost", "--host",
                    "127.0.0.1", "--port", std::to_string(port), "--ssl", tls ? "implicit" : "none", "--user",
                    alice.name, "--password-stdin"}),
               home, alice.password + "\n")
          .status != 0) {
    Fail("account add: " + Tail(home / "log"));
  }
  const std::string added = trv::test::ReadFile(home / "log");
  const size_t at = added.find("storage \"");
  if (at == std::string::npos) Fail("account add said: " + added);
  const std::string storage = added.substr(at + 9, added.find('"', at + 9) - at - 9);
  // Whole messages, as mbsync fetches them (by default a message above
  // 2,848 bytes would be loaded partially).
  if (RunChild(cli({"account", "set", "Bench", "LoadBodySize=2147483647"}), home).status != 0) {
    Fail("account set: " + Tail(home / "log"));
  }
  if (tls && RunChild(cli({"accept-cert", "127.0.0.1:" + std::to_string(port), "--yes"}), home).status != 0) {
    Fail("accept-cert: " + Tail(home / "log"));
  }
  Target t;
  std::vector<std::string> sync = cli({"sync", "Bench", "--receive-only"});
  if (!profile.empty()) {
    const std::string out = (fs::path(profile) / (tls ? "perf-tls.data" : "perf-plain.data")).string();
    sync.insert(sync.begin(), {"/usr/bin/perf", "record", "-g", "-q", "-o", out, "--"});
  }
  t.run = RunChild(sync, home);
  if (t.run.status != 0) t.error = "sync exit " + std::to_string(t.run.status) + ": " + Tail(home / "log");
  const fs::path listing = home / "list.json";
  fs::remove(home / "log");
  if (RunChild(cli({"--json", "list", storage + "/Inbox"}), home).status != 0) Fail("list: " + Tail(home / "log"));
  const std::string json = trv::test::ReadFile(home / "log");
  for (size_t p = 0; (p = json.find("\"key\"", p)) != std::string::npos; ++p) ++t.messages;
  for (size_t p = 0; (p = json.find("\"partial\":true", p)) != std::string::npos; ++p) ++t.partial;
  for (size_t p = 0; (p = json.find("\"size\":", p)) != std::string::npos; p += 7) {
    t.bytes += std::strtoull(json.c_str() + p + 7, nullptr, 10);
  }
  return t;
}

// mbsync's pass: a generated configuration, Pull of INBOX into a Maildir.
// With its default FSync yes it flushes every message; FSync no shows what
// that costs it.
Target MbsyncPass(bool tls, bool fsync, const fs::path& home) {
  MailServers& servers = MailServers::Instance();
  std::string error;
  const trv::test::TestCertificates* certs = trv::test::Certificates(&error);
  if (certs == nullptr) Fail(error);
  const fs::path maildir = home / "Maildir";
  fs::create_directories(maildir);
  const fs::path cfg = home / "mbsyncrc";
  {
    std::ofstream f(cfg);
    // mbsync matches the certificate's names but not its IP address.
    f << (fsync ? "" : "FSync no\n\n") << "IMAPAccount bench\nHost " << (tls ? "localhost" : "127.0.0.1") << "\nPort " << (tls ? servers.ports().imaps : servers.ports().imap)
      << "\nUser " << MailServers::Alice().name << "\nPass \"" << MailServers::Alice().password << "\"\n"
      << (tls ? "SSLType IMAPS\nCertificateFile " + certs->ca.cert.string() + "\n" : "SSLType None\n")
      << "AuthMechs LOGIN\n\nIMAPStore remote\nAccount bench\n\nMaildirStore local\nPath " << maildir.string()
      << "/\nInbox " << (maildir / "INBOX").string() << "\n\nChannel inbox\nFar :remote:INBOX\nNear :local:INBOX\n"
      << "Sync Pull\nCreate Near\nSyncState *\n";
  }
  ::chmod(cfg.c_str(), 0600);
  Target t;
  t.run = RunChild({kMbsync, "-q", "-c", cfg.string(), "-a"}, home);
  if (t.run.status != 0) t.error = "mbsync exit " + std::to_string(t.run.status) + ": " + Tail(home / "log");
  for (const char* sub : {"new", "cur"}) {
    std::error_code ec;
    for (auto it = fs::directory_iterator(maildir / "INBOX" / sub, ec); !ec && it != fs::directory_iterator(); ++it) {
      ++t.messages;
      t.bytes += it->file_size();
    }
  }
  return t;
}

struct Figures {
  std::vector<double> times, user, system;
  long peak_kb = 0;
  size_t messages = 0, partial = 0;
  uintmax_t bytes = 0;
  std::string error;
  void Add(const Target& t) {
    partial = std::max(partial, t.partial);
    bytes = t.bytes;
    if (!t.error.empty()) error = t.error;
    times.push_back(t.run.seconds);
    user.push_back(t.run.user);
    system.push_back(t.run.system);
    peak_kb = std::max(peak_kb, t.run.max_rss_kb);
    messages = t.messages;
  }
};

// A target must hold every message whole: at least the corpus's bytes.
void Print(const char* name, const Figures& f, int messages, double megabytes) {
  const double t = trv::bench::Median(f.times);
  std::printf("  %-34s %7.2f s %7.0f msg/s %6.1f MB/s %7.1f MB peak RSS  CPU %.2f s user %.2f s sys", name, t,
              messages / t, megabytes / t, f.peak_kb / 1024.0, trv::bench::Median(f.user),
              trv::bench::Median(f.system));
  if (f.messages != static_cast<size_t>(messages)) {
    std::printf("  TARGET HOLDS %zu OF %d MESSAGES", f.messages, messages);
  }
  if (f.partial != 0 || f.bytes / 1e6 < megabytes) {
    std::printf("  NOT WHOLE: %zu partial, %.1f MB stored", f.partial, f.bytes / 1e6);
  }
  std::printf("\n");
  if (!f.error.empty()) std::printf("  FAILED: %s\n", f.error.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  int messages = 10000, runs = 3;
  std::string keep, profile;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag == "--messages") {
      messages = std::atoi(argv[i + 1]);
    } else if (flag == "--runs") {
      runs = std::atoi(argv[i + 1]);
    } else if (flag == "--keep") {
      keep = argv[i + 1];
    } else if (flag == "--profile") {
      profile = argv[i + 1];
    } else {
      Fail(kUsage);
    }
  }
  if (messages <= 0 || runs <= 0 || argc % 2 == 0) Fail(kUsage);
  MailServers& servers = MailServers::Instance();
  if (trv::test::ServerStatus s = servers.Dovecot(); !s.ok) Fail(s.message);
  for (const auto& p : servers.Messages(MailServers::Alice().name)) fs::remove(p);
  trv::bench::Random rnd;
  uintmax_t bytes = 0, lines = 0;
  for (int i = 0; i < messages; ++i) {
    const std::string m = trv::bench::Message(rnd, i, trv::bench::kSyncCorpus);
    bytes += m.size();
    lines += std::count(m.begin(), m.end(), '\n');
    if (servers.Deliver(MailServers::Alice().name, m).empty()) Fail("delivery failed");
  }
  const double megabytes = bytes / 1e6;
  const bool peer = trv::test::Executable(kMbsync);
  std::printf("imap4_sync_bench: %d messages, %.1f MB (LF form; %.1f MB as served with CR LF) in Dovecot's INBOX on "
              "loopback, pulled into empty targets; median of %d runs; MB/s of the LF form\n",
              messages, megabytes, (bytes + lines) / 1e6, runs);
  std::fflush(stdout);
  for (const bool tls : {false, true}) {
    Figures ours, theirs, unflushed;
    // The first pass builds Dovecot's index and cache; it is not counted.
    for (int run = -1; run < runs; ++run) {
      const bool last = run == runs - 1 && !keep.empty();
      {
        trv::test::TempDir home;
        const Target t = OurPass(tls, home.path(), run >= 0 ? profile : "");
        if (run >= 0) ours.Add(t);
        if (last) fs::rename(home.path() / "mail", fs::path(keep) / (tls ? "ours-tls" : "ours-plain"));
      }
      if (!peer) continue;
      {
        trv::test::TempDir home;
        const Target t = MbsyncPass(tls, false, home.path());
        if (run >= 0) unflushed.Add(t);
      }
      trv::test::TempDir home;
      const Target t = MbsyncPass(tls, true, home.path());
      if (run >= 0) theirs.Add(t);
      if (last) fs::rename(home.path() / "Maildir", fs::path(keep) / (tls ? "mbsync-tls" : "mbsync-plain"));
    }
    std::printf("%s\n", tls ? "IMAPS (implicit TLS)" : "plain IMAP");
    Print("trvmail-cli sync (receive only)", ours, messages, megabytes);
    if (!peer) {
      std::printf("  mbsync not installed (Debian package isync): no peer figures\n");
      continue;
    }
    Print("mbsync -a (Pull INBOX to Maildir)", theirs, messages, megabytes);
    Print("mbsync -a, FSync no (not durable)", unflushed, messages, megabytes);
    if (ours.error.empty() && theirs.error.empty() && unflushed.error.empty()) {
      std::printf("  ours / mbsync: %.2f x its time (goal: at most 0.80); %.2f x its time with FSync no\n",
                  trv::bench::Median(ours.times) / trv::bench::Median(theirs.times),
                  trv::bench::Median(ours.times) / trv::bench::Median(unflushed.times));
    }
    std::fflush(stdout);
  }
  return 0;
}
