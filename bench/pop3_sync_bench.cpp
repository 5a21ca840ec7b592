// Downloading a whole maildrop from the harness's Dovecot over plain POP3,
// keeping it on the server: our receiving run (Pop3Service::Receive of whole
// messages into a fresh data directory's inbox, every batch committed to the
// disk) beside
// fetchmail (keep, fetchall, --bsmtp into a file) in the same run.
//
//   pop3_sync_bench [messages, default 10000] [runs, default 3]
//
// The maildrop is bench/mail_generator.h's. Runs are interleaved; figures
// are medians. fetchmail is a benchmark-only peer (Debian package
// "fetchmail"); without it only our figures are printed.
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "bench/mail_generator.h"
#include "core/engine.h"
#include "services/pop3_service.h"
#include "store/storage.h"
#include "tests/support/mail_servers.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace {

using trv::test::MailServers;
using Clock = std::chrono::steady_clock;

[[noreturn]] void Fail(const std::string& what) {
  std::fprintf(stderr, "pop3_sync_bench: %s\n", what.c_str());
  std::exit(1);
}

// One receiving run into a new data directory (made first, not timed);
// returns the messages stored and adds the run's time to `times`.
size_t OurPass(uint16_t port, std::vector<double>* times) {
  trv::test::TempDir dir;
  trv::MailEngine* engine = trv::AcquireEngine();
  engine->SetRegistryPath(dir.path() / "registry.ini");
  engine->SetDataDirectoryOverride(dir.path() / "data");
  if (engine->Start("pop3_sync_bench").failed()) Fail("engine start: " + engine->start_problem());
  trv::Storage& local = *engine->storages().front();
  size_t stored = 0;
  {
    trv::Pop3Service service(*engine, local);
    trv::ServiceSettings s;
    s.service_name = trv::W("Bench");
    s.incoming.host = "127.0.0.1";
    s.incoming.port = port;
    s.incoming.user_name = MailServers::Alice().name;
    s.incoming.password = MailServers::Alice().password;
    s.load_body_size = INT32_MAX;  // whole messages, as fetchmail fetches them
    service.SetSettings(s);
    const auto start = Clock::now();
    if (trv::Result r = service.Receive(false); r.failed()) Fail("receive: " + trv::ResultHex(r));
    if (times != nullptr) times->push_back(std::chrono::duration<double>(Clock::now() - start).count());
    trv::FolderFile& inbox = *local.SpecialFolder(trv::kFolderInbox)->file();
    stored = inbox.counts().messages;
    for (const trv::MessageRecord& m : inbox.Messages()) {
      if (m.flags & trv::msgflag::kPartial) Fail("a message was loaded partially");
    }
  }
  trv::ReleaseEngine();
  return stored;
}

// One fetchmail run; returns the size of the BSMTP file.
uintmax_t FetchmailPass(const std::string& fetchmail, uint16_t port) {
  trv::test::TempDir dir;
  const std::filesystem::path rc = dir.path() / "fetchmailrc", out = dir.path() / "out.bsmtp";
  {
    std::ofstream f(rc);
    f << "set no syslog\npoll 127.0.0.1 service " << port << " protocol POP3 auth password\n  user \""
      << MailServers::Alice().name << "\" password \"" << MailServers::Alice().password
      << "\" is root here keep fetchall sslproto ''\n";
  }
  ::chmod(rc.c_str(), 0600);
  const int status = trv::test::RunProcess(
      {"/usr/bin/env", "HOME=" + dir.path().string(), "FETCHMAILHOME=" + dir.path().string(), fetchmail, "-f",
       rc.string(), "--bsmtp", out.string(), "--nosyslog", "--silent"},
      dir.path() / "fetchmail.log");
  std::error_code ec;
  const uintmax_t size = std::filesystem::file_size(out, ec);
  if (status != 0 || ec) {
    std::ifstream log(dir.path() / "fetchmail.log");
    Fail("fetchmail exit " + std::to_string(status) + ": " + std::string(std::istreambuf_iterator<char>(log), {}));
  }
  return size;
}

}  // namespace

int main(int argc, char** argv) {
  const int messages = argc > 1 ? std::atoi(argv[1]) : 10000;
  const int runs = argc > 2 ? std::atoi(argv[2]) : 3;
  MailServers& servers = MailServers::Instance();
  if (trv::test::ServerStatus s = servers.Dovecot(); !s.ok) Fail(s.message);
  const uint16_t port = servers.ports().pop3;
  for (const auto& p : servers.Messages(MailServers::Alice().name)) std::filesystem::remove(p);
  trv::bench::Random rnd;
  uintmax_t bytes = 0;
  for (int i = 0; i < messages; ++i) {
    const std::string m = trv::bench::Message(rnd, i);
    bytes += m.size();
    if (servers.Deliver(MailServers::Alice().name, m).empty()) Fail("delivery failed");
  }
  const std::string fetchmail = "/usr/bin/fetchmail";
  const bool peer = trv::test::Executable(fetchmail);
  std::vector<double> ours, theirs;
  size_t stored = 0;
  uintmax_t bsmtp = 0;
  // The first pass also builds Dovecot's index; it is not counted.
  for (int run = -1; run < runs; ++run) {
    stored = OurPass(port, run >= 0 ? &ours : nullptr);
    if (!peer || run < 0) continue;
    const auto start = Clock::now();
    bsmtp = FetchmailPass(fetchmail, port);
    theirs.push_back(std::chrono::duration<double>(Clock::now() - start).count());
  }
  if (stored != static_cast<size_t>(messages)) Fail("stored " + std::to_string(stored) + " messages");
  std::printf("pop3_sync_bench: %d messages, %.1f MB (LF form) from Dovecot on loopback, plain POP3, kept on the "
              "server; median of %d runs\n", messages, bytes / 1e6, runs);
  const double o = trv::bench::Median(ours);
  std::printf("  %-44s %7.2f s %8.0f msg/s\n", "Pop3Service::Receive into a folder file", o, messages / o);
  if (!peer) {
    std::printf("  fetchmail not installed: no peer figures\n");
    return 0;
  }
  const double t = trv::bench::Median(theirs);
  std::printf("  %-44s %7.2f s %8.0f msg/s  (%.1f MB of BSMTP)\n", "fetchmail --bsmtp, keep, fetchall", t,
              messages / t, bsmtp / 1e6);
  std::printf("  our run takes %.2f x fetchmail's time\n", o / t);
  return 0;
}
