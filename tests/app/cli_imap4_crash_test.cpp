// Two-way IMAP4 syncs killed with SIGKILL at random moments: between rounds
// mail arrives on the server, drafts are made here (they upload), inbox
// messages are marked read and deleted here; each round's `trvmail-cli
// sync` is killed after a random delay. After one undisturbed run every
// message is exactly once here and on the server, by Message-ID, in INBOX
// and in Drafts, and nothing deleted here is left on either side. The seed
// is printed; TRV_CRASH_SEED=N repeats its choices.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "base/wide_string.h"
#include "core/engine.h"
#include "store/folder_file.h"
#include "store/mail_folder.h"
#include "tests/app/cli_runner.h"
#include "tests/support/mail_servers.h"

namespace trv::test {
namespace {

namespace fs = std::filesystem;
using Ids = std::map<std::string, int>;  // Message-ID (without brackets) -> copies

constexpr int kRounds = 36;
constexpr int kArrivals = 6;  // new server messages a round

std::string Message(const std::string& id) {
  return "From: Sender <s@example.test>\nTo: alice@localhost\nSubject: " + id + "\nMessage-ID: <" + id +
         ">\nDate: Mon, 3 Jun 2024 10:00:00 +0000\n\nBody of " + id + "\n";
}

// The Message-IDs in a Maildir folder; `seen` gets those flagged \Seen.
// A message flagged \Deleted is gone for every client and is not counted.
Ids OnServer(const fs::path& folder, std::set<std::string>* seen) {
  Ids ids;
  for (const char* sub : {"new", "cur"}) {
    for (const auto& e : fs::directory_iterator(folder / sub)) {
      const std::string name = e.path().filename().string();
      const size_t info = name.find(":2,");
      const std::string flags = info == std::string::npos ? "" : name.substr(info + 3);
      if (flags.find('T') != std::string::npos) continue;
      const std::string text = ReadFile(e.path());
      size_t at = text.find("Message-ID: <");
      if (at == std::string::npos) at = text.find("Message-Id: <");
      const std::string id = at == std::string::npos ? "(none) " + name
                                                      : text.substr(at + 13, text.find('>', at) - at - 13);
      ++ids[id];
      if (seen != nullptr && flags.find('S') != std::string::npos) seen->insert(id);
    }
  }
  return ids;
}

// What differs from `want` (each once): missing, doubled, or not wanted.
std::string Compare(const Ids& got, const std::set<std::string>& want, const std::string& where) {
  std::string problems;
  for (const std::string& id : want) {
    const int n = got.count(id) != 0 ? got.at(id) : 0;
    if (n != 1) problems += id + " is " + std::to_string(n) + " times in " + where + "\n";
  }
  for (const auto& [id, n] : got) {
    if (want.count(id) == 0) problems += id + " (deleted here or never made) is in " + where + "\n";
  }
  return problems;
}

class CliImap4CrashTest : public CliTestBase {
 protected:
  // Local Message-IDs of a folder, read in-process once no child runs.
  Ids Here(const std::string& path, std::set<std::string>* read) {
    Ids ids;
    MailFolder* folder = engine_->FindFolder(Utf8ToWide(path));
    EXPECT_TRUE(folder != nullptr && folder->file() != nullptr) << path;
    if (folder == nullptr || folder->file() == nullptr) return ids;
    EXPECT_FALSE(folder->file()->LoadIndex().failed()) << path;
    for (const MessageRecord& m : folder->file()->Messages()) {
      const std::string id = WideToUtf8(m.message_id);
      ++ids[id];
      if (read != nullptr && m.is_read()) read->insert(id);
    }
    return ids;
  }
  MailEngine* engine_ = nullptr;
};

TEST_F(CliImap4CrashTest, KilledSyncsLeaveEveryMessageOnceHereAndThere) {
  MailServers& servers = MailServers::Instance();
  TRV_REQUIRE_SERVER(servers.Dovecot());
  const MailUser& alice = MailServers::Alice();
  const fs::path maildir = servers.Maildir(alice.name), drafts_dir = maildir / ".Drafts";
  // The binary's tests share one Dovecot: Alice's mail goes before and after.
  struct Emptied {
    MailServers& servers;
    fs::path drafts;
    void Empty() {
      for (const auto& p : servers.Messages(MailServers::Alice().name)) fs::remove(p);
      fs::remove_all(drafts);
    }
    ~Emptied() { Empty(); }
  } emptied{servers, drafts_dir};
  emptied.Empty();
  // A Drafts mailbox on the server, owned as Dovecot's other folders are.
  struct stat owner{};
  ASSERT_EQ(::stat(maildir.c_str(), &owner), 0);
  for (const fs::path& p : {drafts_dir, drafts_dir / "cur", drafts_dir / "new", drafts_dir / "tmp"}) {
    fs::create_directories(p);
    ASSERT_EQ(::chown(p.c_str(), owner.st_uid, owner.st_gid), 0);
  }

  const std::string added =
      Ok({"account", "add", "--class", "IMAP4", "--name", "Alice", "--email", "alice@localhost", "--host",
          "127.0.0.1", "--port", std::to_string(servers.ports().imap), "--user", alice.name, "--password-stdin"},
         alice.password + "\n").out;
  const size_t at = added.find("storage \"");
  ASSERT_NE(at, std::string::npos) << added;
  const std::string storage = added.substr(at + 9, added.find('"', at + 9) - at - 9);
  const std::string inbox = storage + "/Inbox", drafts = storage + "/Drafts";

  const char* fixed = std::getenv("TRV_CRASH_SEED");
  const unsigned seed = fixed != nullptr ? static_cast<unsigned>(std::strtoul(fixed, nullptr, 10))
                                         : std::random_device{}();
  std::printf("IMAP4 crash test seed %u (TRV_CRASH_SEED=%u repeats its choices)\n", seed, seed);
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);

  std::set<std::string> want_inbox, want_drafts, marked;
  int made = 0;
  auto arrive = [&] {
    for (int i = 0; i < kArrivals; ++i) {
      const std::string id = "in" + std::to_string(made++) + "@crash.test";
      ASSERT_FALSE(servers.Deliver(alice.name, Message(id)).empty());
      want_inbox.insert(id);
    }
  };
  // A first whole run pairs INBOX and Drafts with the special folders; its
  // time bounds the random delays.
  arrive();
  const auto start = std::chrono::steady_clock::now();
  Ok({"sync", "Alice"});
  const auto whole = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
  const long limit = std::max<long>(150000, whole.count() * 6 / 5);

  for (int round = 0; round < kRounds; ++round) {
    arrive();
    std::vector<std::string> import = {"import", drafts};
    for (int i = 0; i < 2; ++i) {
      const std::string draft = "draft" + std::to_string(made++) + "@crash.test";
      import.push_back((root() / (draft + ".eml")).string());
      WriteFile(import.back(), Message(draft));
      want_drafts.insert(draft);
    }
    Ok(import);
    // One inbox message marked read, another deleted for good; every fourth
    // round a draft deleted too.
    const JsonList listed = List(inbox);
    if (listed.size() >= 2) {
      const size_t a = random() % listed.size(), b = (a + 1 + random() % (listed.size() - 1)) % listed.size();
      Ok({"mark", inbox, listed[a]["key"].text, "read"});
      marked.insert(listed[a]["subject"].text);
      Ok({"rm", "--purge", inbox, listed[b]["key"].text});
      want_inbox.erase(listed[b]["subject"].text);
      marked.erase(listed[b]["subject"].text);
    }
    if (round % 4 == 3) {
      const JsonList held = List(drafts);
      ASSERT_FALSE(held.empty());
      const JsonObject& gone = held[random() % held.size()];
      Ok({"rm", "--purge", drafts, gone["key"].text});
      want_drafts.erase(gone["subject"].text);
    }
    int input = -1;
    const pid_t pid = Start({"sync", "Alice"}, &input);
    ASSERT_GT(pid, 0);
    ::close(input);
    std::this_thread::sleep_for(std::chrono::microseconds(random() % limit));
    ::kill(pid, SIGKILL);
    Wait(pid);
  }
  const CliRun last = Ok({"sync", "Alice"});
  ASSERT_EQ(last.status, 0) << Ok({"log", "--tail", "40"}).out;

  std::set<std::string> seen, read;
  const Ids server_inbox = OnServer(maildir, &seen), server_drafts = OnServer(drafts_dir, nullptr);
  Enter();
  engine_ = AcquireEngine();
  ASSERT_FALSE(engine_->Start("crash test check").failed()) << engine_->start_problem();
  const Ids here_inbox = Here(inbox, &read), here_drafts = Here(drafts, nullptr);
  ReleaseEngine();
  EXPECT_EQ(Compare(here_inbox, want_inbox, "the local Inbox") + Compare(server_inbox, want_inbox, "INBOX") +
                Compare(here_drafts, want_drafts, "the local Drafts") + Compare(server_drafts, want_drafts, "Drafts"),
            "");
  std::string unread;
  for (const std::string& id : marked) {
    if (seen.count(id) == 0 || read.count(id) == 0) unread += id + " lost its read mark\n";
  }
  EXPECT_EQ(unread, "");
}

}  // namespace
}  // namespace trv::test
