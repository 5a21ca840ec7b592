// Whole POP3 runs against the harness's Dovecot: the limits and delete rules
// checked in the folder file and the maildir, the TLS ways in, and runs
// killed at random moments.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <map>
#include <random>
#include <thread>

#include "base/file_io.h"
#include "core/activity_log.h"
#include "core/engine.h"
#include "net/pop3_errors.h"
#include "services/deleted_uids.h"
#include "services/full_download.h"
#include "services/pop3_service.h"
#include "store/storage.h"
#include "store/storage_messages.h"
#include "tests/net/net_test_util.h"
#include "tests/support/mail_servers.h"
#include "tests/support/process.h"
#include "tests/support/script_server.h"
#include "tests/store/fault_vfs.h"
#include "tests/support/temp_dir.h"

namespace trv {
namespace {

using test::MailServers;

// An engine on a data directory of its own with a POP3 service for alice,
// receiving into "Local Folders/Inbox".
struct Account {
  MailEngine* engine = AcquireEngine();
  std::unique_ptr<Pop3Service> service;
  FolderFile* inbox = nullptr;

  Result Start(const std::filesystem::path& dir, uint16_t port) {
    engine->SetRegistryPath(dir / "registry.ini");
    engine->SetDataDirectoryOverride(dir / "data");
    if (Result r = engine->Start("pop3 test"); r.failed()) return r;
    service = std::make_unique<Pop3Service>(*engine, *engine->storages().front());
    inbox = engine->storages().front()->SpecialFolder(kFolderInbox)->file();
    Set([port](ServiceSettings& s) {
      s.service_name = W("Test");
      s.incoming.host = "127.0.0.1", s.incoming.port = port, s.incoming.timeout = 10;
      s.incoming.user_name = MailServers::Alice().name, s.incoming.password = MailServers::Alice().password;
    });
    return inbox->LoadIndex();
  }
  ~Account() {
    service.reset();
    ReleaseEngine();
  }
  void Set(const std::function<void(ServiceSettings&)>& change) {
    ServiceSettings s = service->settings();
    change(s);
    service->SetSettings(s);
  }
};

// A message whose size with CR LF line ends is exactly `size`.
std::string Sized(std::string subject, int size) {
  std::string head, body;
  do {
    head = "Subject: " + subject + "\r\nMessage-ID: <" + subject + "@t>\r\n\r\n";
    subject += "x";
  } while ((size - static_cast<int>(head.size())) % 40 == 1);
  int rest = size - static_cast<int>(head.size());
  for (; rest >= 40; rest -= 40) body += std::string(38, 'x') + "\r\n";
  if (rest >= 2) body += std::string(rest - 2, 'y') + "\r\n";
  return head + body;
}

void Deliver(const std::string& crlf_text) {
  std::string lf = crlf_text;
  std::erase(lf, '\r');
  ASSERT_FALSE(MailServers::Instance().Deliver(MailServers::Alice().name, lf).empty());
}
std::vector<std::filesystem::path> OnServer() { return MailServers::Instance().Messages(MailServers::Alice().name); }

class Pop3SyncServersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TRV_REQUIRE_SERVER(MailServers::Instance().Dovecot());
    for (const auto& p : OnServer()) std::filesystem::remove(p);
    ASSERT_EQ(account_.Start(dir_.path(), MailServers::Instance().ports().pop3), rc::kOk);
  }
  std::optional<MessageRecord> Find(std::string_view subject) {
    for (const MessageRecord& m : account_.inbox->Messages()) {
      if (WideToUtf8(m.subject) == subject) return m;
    }
    return std::nullopt;
  }
  test::TempDir dir_;
  Account account_;
};

TEST_F(Pop3SyncServersTest, LimitsDeleteRulesAndLocalDeletion) {
  Pop3Service& service = *account_.service;
  FolderFile& inbox = *account_.inbox;
  EXPECT_EQ(service.Receive(false), rc::kOk) << "an empty maildrop";
  Deliver(Sized("whole", 2847));
  Deliver(Sized("partial", 2848));
  ASSERT_EQ(service.Receive(false), rc::kOk);
  const std::optional<MessageRecord> whole = Find("whole"), partial = Find("partial");
  ASSERT_TRUE(whole && partial);
  EXPECT_EQ(std::make_tuple(whole->size, whole->server_size, whole->flags & msgflag::kPartial), std::make_tuple(2847u, 2847u, 0u));
  EXPECT_EQ(partial->flags & msgflag::kPartial, msgflag::kPartial);
  std::string text;
  ASSERT_EQ(inbox.ReadMessage(partial->key, &text), rc::kOk);
  EXPECT_EQ(std::count(text.begin() + text.find("\r\n\r\n") + 4, text.end(), '\n'), 51) << "TOP n 51";

  account_.Set([](ServiceSettings& s) { s.delete_on_server = true; });
  ASSERT_EQ(service.Receive(false), rc::kOk);
  EXPECT_EQ(inbox.MessageCount(), 2u) << "nothing downloaded twice";
  EXPECT_EQ(OnServer().size(), 1u) << "the partial message stays on the server";

  ASSERT_EQ(RequestFullDownload(inbox, partial->key), rc::kOk);
  ASSERT_EQ(service.Receive(false), rc::kOk);
  const MessageRecord reloaded = inbox.FindMessage(partial->key).value_or(MessageRecord{});
  EXPECT_EQ(std::make_tuple(reloaded.size, reloaded.flags & (msgflag::kPartial | msgflag::kFullDownloadRequested)),
            std::make_tuple(2848u, 0u));
  EXPECT_EQ(OnServer().size(), 0u);

  account_.Set([](ServiceSettings& s) { s.delete_on_server = false; });
  Deliver(Sized("deleted here", 500));
  ASSERT_EQ(service.Receive(false), rc::kOk);
  ASSERT_TRUE(Find("deleted here"));
  ASSERT_EQ(DeleteReceivedMessages(PosixFileSystem::Instance(), inbox, {Find("deleted here")->key}), rc::kOk);
  ASSERT_EQ(service.Receive(false), rc::kOk);
  EXPECT_EQ(inbox.MessageCount(), 2u) << "a message deleted here is not downloaded again";
  EXPECT_EQ(OnServer().size(), 1u);
  account_.Set([](ServiceSettings& s) { s.delete_after_local_deletion = true; });
  ASSERT_EQ(service.Receive(false), rc::kOk);
  EXPECT_EQ(OnServer().size(), 0u);
  EXPECT_FALSE(std::filesystem::exists(DeletedUids(PosixFileSystem::Instance(), inbox.path()).path()));

  // Moved out of the inbox, elsewhere or into "Deleted": never downloaded
  // again; the copy in "Deleted" counts as deleted here, the other stays.
  Deliver(Sized("moved away", 500));
  Deliver(Sized("into deleted", 500));
  ASSERT_EQ(service.Receive(false), rc::kOk);
  Storage& storage = *account_.engine->storages().front();
  MailFolder& in = *storage.SpecialFolder(kFolderInbox);
  ASSERT_EQ(MoveMessages(in, {Find("moved away")->key}, *storage.SpecialFolder(kFolderDrafts), nullptr), rc::kOk);
  ASSERT_EQ(MoveMessages(in, {Find("into deleted")->key}, *storage.SpecialFolder(kFolderDeleted), nullptr), rc::kOk);
  ASSERT_EQ(service.Receive(false), rc::kOk);
  EXPECT_EQ(inbox.MessageCount(), 2u) << "moved messages are not downloaded again";
  EXPECT_EQ(OnServer().size(), 1u);
  for (const auto& p : OnServer()) std::filesystem::remove(p);

  // A message of zero bytes arrives as one empty line and is stored; a
  // refused login ends the run with the error line.
  ASSERT_FALSE(MailServers::Instance().Deliver(MailServers::Alice().name, "").empty());
  EXPECT_EQ(service.Receive(false), rc::kOk);
  EXPECT_EQ(inbox.MessageCount(), 3u);
  account_.Set([](ServiceSettings& s) { s.incoming.password = "wrong"; });
  EXPECT_EQ(service.Receive(false), Result(0x80C20003));
  std::string log;
  ASSERT_EQ(ReadWholeFile(account_.engine->data_directory() / ActivityLog::kFileName, &log), rc::kOk);
  EXPECT_NE(log.find("(0x80C20003) Account: Test Host: 127.0.0.1 Port: "), std::string::npos);
}

// (SOCKS is set up by the code the sending runs share: send_servers_test.)
TEST_F(Pop3SyncServersTest, ImplicitTlsAndStls) {
  test::TrustTestCa();
  const test::ServerPorts& p = MailServers::Instance().ports();
  const std::function<void(ServiceSettings&)> ways[] = {
      [&](ServiceSettings& s) { s.incoming.use_ssl = true, s.incoming.ssl_explicit = false, s.incoming.port = p.pop3s; },
      [&](ServiceSettings& s) { s.incoming.use_ssl = s.incoming.ssl_explicit = true, s.incoming.port = p.pop3; },
  };
  for (int i = 0; i < 2; ++i) {
    SCOPED_TRACE(i);
    Deliver(Sized("way " + std::to_string(i), 300));
    account_.Set([&](ServiceSettings& s) {
      s.incoming.host = "localhost";
      s.delete_on_server = true;
      ways[i](s);
    });
    EXPECT_EQ(account_.service->Receive(false), rc::kOk);
    EXPECT_TRUE(Find("way " + std::to_string(i)));
    EXPECT_EQ(OnServer().size(), 0u);
  }
}

// Bad answers from a scripted server: the run ends with its code, keeps what
// it stored and sends no DELE.
TEST_F(Pop3SyncServersTest, DuplicateUidsAndADropMidRetr) {
  const auto session = [](const char* uidl, const char* then) {
    return Script()
        .ServerLine("+OK ready").ClientLine("CAPA").ServerLine("-ERR no")
        .ClientLine("USER alice").ServerLine("+OK").ClientLine("PASS alice-secret").ServerLine("+OK")
        .ClientLine("LIST").Server("+OK\r\n1 40\r\n2 40\r\n.\r\n").ClientLine("UIDL").Server(uidl)
        .ClientLine(then);
  };
  struct Row { Script script; Result want; size_t stored; } rows[] = {
      {session("+OK\r\n1 a\r\n2 a\r\n.\r\n", "QUIT").ServerLine("+OK"), rc::kPop3Malformed, 0},
      {session("+OK\r\n1 a\r\n2 b\r\n.\r\n", "RETR 1").Server("+OK\r\nSubject: a\r\n\r\nbody\r\n.\r\n")
           .ClientLine("RETR 2").Server("+OK\r\nSubject: b\r\n").Close(), rc::kSockClosed, 1},
  };
  for (Row& row : rows) {
    test::ScriptServer server(std::move(row.script));
    account_.Set([&](ServiceSettings& s) { s.incoming.port = server.port(), s.delete_on_server = true; });
    EXPECT_EQ(account_.service->Receive(false), row.want);
    EXPECT_EQ(server.Finish(), "");
    EXPECT_EQ(account_.inbox->MessageCount(), row.stored);
  }
}

// A disk that refuses every write while a message is stored: the run ends
// with the error line and sends no DELE, so the server keeps the message.
TEST(Pop3SyncFullDiskTest, AFailedCommitEndsTheRunBeforeAnyDele) {
  test::FaultVfs vfs;  // before the engine opens its folder files
  test::TempDir dir;
  Account account;
  test::ScriptServer server(Script()
      .ServerLine("+OK ready").ClientLine("CAPA").ServerLine("-ERR no")
      .ClientLine("USER alice").ServerLine("+OK").ClientLine("PASS alice-secret").ServerLine("+OK")
      .ClientLine("LIST").Server("+OK\r\n1 40\r\n.\r\n").ClientLine("UIDL").Server("+OK\r\n1 a\r\n.\r\n")
      .ClientLine("RETR 1").Server("+OK\r\nSubject: a\r\n\r\nbody\r\n.\r\n")
      .ClientLine("QUIT").ServerLine("+OK"));
  ASSERT_EQ(account.Start(dir.path(), server.port()), rc::kOk);
  account.Set([](ServiceSettings& s) { s.delete_on_server = true; });
  vfs.FreezeAfter(0);
  EXPECT_TRUE(account.service->Receive(false).failed());
  EXPECT_EQ(server.Finish(), "");
  std::string log;
  ASSERT_EQ(ReadWholeFile(account.engine->data_directory() / ActivityLog::kFileName, &log), rc::kOk);
  EXPECT_NE(log.find("Account: Test Host: 127.0.0.1 Port: " + std::to_string(server.port())), std::string::npos);
}

// The crash test's child: one run with delete on server, when started by it.
TEST(Pop3SyncCrashTest, Child) {
  const char* dir = std::getenv("TRV_POP3_CHILD_DIR");
  if (dir == nullptr) GTEST_SKIP() << "runs as the crash test's child only";
  Account account;
  ASSERT_EQ(account.Start(dir, static_cast<uint16_t>(std::atoi(std::getenv("TRV_POP3_CHILD_PORT")))), rc::kOk);
  account.Set([](ServiceSettings& s) { s.delete_on_server = true; });
  ASSERT_EQ(account.service->Receive(false), rc::kOk);
}

// Runs with delete on server killed at random moments, then one to its end:
// every message is in exactly one place, here or on the server.
TEST(Pop3SyncCrashTest, KilledRunsLoseAndDoubleNothing) {
  TRV_REQUIRE_SERVER(MailServers::Instance().Dovecot());
  for (const auto& p : OnServer()) std::filesystem::remove(p);
  test::TempDir dir;
  const std::vector<std::string> child = {
      "/usr/bin/env", "TRV_POP3_CHILD_DIR=" + dir.path().string(),
      "TRV_POP3_CHILD_PORT=" + std::to_string(MailServers::Instance().ports().pop3),
      std::filesystem::read_symlink("/proc/self/exe").string(), "--gtest_filter=Pop3SyncCrashTest.Child"};
  std::mt19937 random(std::random_device{}());
  int delivered = 0;
  for (int round = 0; round < 25; ++round) {
    // Whole messages (below 2,848 bytes): partial ones stay on the server.
    for (int i = 0; i < 20; ++i) Deliver(Sized("crash " + std::to_string(delivered++), 600 + i * 100));
    std::string error;
    const pid_t pid = test::StartProcess(child, dir.path() / "child.log", &error);
    ASSERT_GT(pid, 0) << error;
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 400));
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
  }
  ASSERT_EQ(test::RunProcess(child, dir.path() / "child.log"), 0);
  Account account;
  ASSERT_EQ(account.Start(dir.path(), 0), rc::kOk);
  // The final run deletes every message on the server: each must be here once.
  EXPECT_EQ(OnServer().size(), 0u);
  std::map<std::string, int> subjects;
  for (const MessageRecord& m : account.inbox->Messages()) ++subjects[WideToUtf8(m.subject)];
  ASSERT_EQ(subjects.size(), static_cast<size_t>(delivered));
  for (const auto& [subject, count] : subjects) EXPECT_EQ(count, 1) << subject;
}

}  // namespace
}  // namespace trv
