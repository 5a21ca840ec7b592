// Whole IMAP4 runs against the harness's Dovecot: what is fetched (the "S "
// lines of the activity log), what is stored (bytes and flags in the folder
// files), partial and resumed downloads, and a tree of non-ASCII mailboxes.
#include <gtest/gtest.h>

#include "base/date_value.h"
#include "mime/stream.h"
#include "net/imap4_client.h"
#include "services/full_download.h"
#include "services/imap4_service.h"
#include "tests/services/service_fixture.h"
#include "tests/support/mail_servers.h"

namespace trv {
namespace {

using test::MailServers;

// A message of exactly `size` bytes with CR LF line ends.
std::string Sized(const std::string& subject, size_t size) {
  std::string text = "Subject: " + subject + "\r\nMessage-ID: <" + subject + "@t>\r\n\r\n";
  while (text.size() + 42 <= size) text += std::string(38, 'x') + "\r\n";
  text += std::string(size - text.size() - 2, 'y') + "\r\n";
  return text;
}

class Imap4SyncServersTest : public test::ServiceEngineTest {
 protected:
  void Open(const test::MailUser& user, int32_t body_size) {
    TRV_REQUIRE_SERVER(MailServers::Instance().Dovecot());
    ServiceSettings s;
    s.service_name = u"Imap";
    s.load_body_size = body_size;
    s.incoming.host = "127.0.0.1", s.incoming.port = MailServers::Instance().ports().imap;
    s.incoming.user_name = user.name, s.incoming.password = user.password;
    s.incoming.timeout = 10, s.incoming.store_password = true;
    MailService* created = nullptr;
    ASSERT_EQ(CreateService(*engine_, "IMAP4", s, &created), rc::kOk);
    service_ = static_cast<Imap4Service*>(created);
    ASSERT_EQ(server_.Connect("127.0.0.1", s.incoming.port), rc::kOk);
    ASSERT_EQ(server_.Login(user.name, user.password), rc::kOk);
  }
  void Append(WStringView mailbox, const std::string& text, uint32_t flags = 0) {
    CXmViewStream stream(text);
    ASSERT_EQ(server_.Append(mailbox, flags, kNoDate, &stream, 0), rc::kOk) << server_.lastReply();
  }
  // Runs and gives the activity log's lines written by this run.
  std::string Run() {
    const size_t from = test::ReadFile(dir_ / "TarvoMail.log").size();
    EXPECT_EQ(service_->Receive(false), rc::kOk);
    return test::ReadFile(dir_ / "TarvoMail.log").substr(from);
  }
  FolderFile& Local(const std::string& path) {
    MailFolder* f = FindFolderByPath({&service_->storage()}, Utf8ToWide("Imap/" + path));
    EXPECT_TRUE(f != nullptr && f->file() != nullptr) << path;
    EXPECT_EQ(f->file()->LoadIndex(), rc::kOk);
    return *f->file();
  }
  MessageRecord Find(FolderFile& file, const std::string& subject, std::string* text) {
    for (const MessageRecord& m : file.Messages()) {
      if (WideToUtf8(m.subject) != subject) continue;
      EXPECT_EQ(file.ReadMessage(m.key, text), rc::kOk);
      return m;
    }
    ADD_FAILURE() << "no message " << subject;
    return {};
  }
  void SetOptions(const std::string& mailbox, uint32_t sync) {
    MutexLock lock(service_->folders_mutex());
    Imap4FolderSync* record = service_->folders().FindByServerPath(Utf8ToWide(mailbox));
    ASSERT_NE(record, nullptr) << mailbox;
    record->sync = sync;
  }

  Imap4Service* service_ = nullptr;
  CImap4Client server_;
};

constexpr uint32_t kFlags = msgflag::kPartial | msgflag::kRead | msgflag::kSyncedSeen | msgflag::kFullDownloadRequested;

TEST_F(Imap4SyncServersTest, LimitsPartialResumeAndNothingTwice) {
  Open(MailServers::Alice(), 2048);
  const std::string whole = Sized("whole", 2800), partial = Sized("partial", 2900);
  Append(u"INBOX", whole, kImap4FlagSeen);
  Append(u"INBOX", partial);
  Append(u"INBOX", Sized("gone", 500), kImap4FlagDeleted);
  for (int i = 0; i < 80; ++i) Append(u"INBOX", Sized("bulk" + std::to_string(i), 1000 + i));  // > one window
  ASSERT_EQ(server_.Create(u"Empty"), rc::kOk);
  std::string log = Run();
  EXPECT_NE(log.find("UID FETCH 1:* (UID FLAGS RFC822.SIZE INTERNALDATE)"), std::string::npos) << log;
  EXPECT_NE(log.find("UID FETCH 1 (BODY.PEEK[HEADER] BODY.PEEK[])"), std::string::npos) << log;
  EXPECT_NE(log.find("UID FETCH 2 (BODY.PEEK[HEADER] BODY.PEEK[]<0.2048>)"), std::string::npos) << log;
  const size_t empty = log.find("SELECT Empty"), next = log.find("Synchronizing folder", empty);
  ASSERT_NE(empty, std::string::npos);
  EXPECT_EQ(log.substr(empty, next - empty).find("FETCH"), std::string::npos) << "EXISTS 0 sends no FETCH";

  FolderFile& inbox = Local("Inbox");
  EXPECT_EQ(inbox.MessageCount(), 82u) << "the message marked deleted stays there";
  std::string text;
  EXPECT_EQ(Find(inbox, "bulk79", &text).imap_uid, 83u);
  EXPECT_EQ(text, Sized("bulk79", 1079));
  const MessageRecord w = Find(inbox, "whole", &text);
  EXPECT_EQ(text, whole);
  EXPECT_EQ(std::make_tuple(w.flags & kFlags, w.server_size, w.imap_uid),
            std::make_tuple(msgflag::kRead | msgflag::kSyncedSeen, 2800u, 1u));
  const MessageRecord p = Find(inbox, "partial", &text);
  EXPECT_EQ(text, partial.substr(0, 2048));
  EXPECT_EQ(std::make_tuple(p.flags & kFlags, p.server_size, p.imap_uid), std::make_tuple(msgflag::kPartial, 2900u, 2u));

  // Completed: only the missing bytes are fetched, into the same message.
  ASSERT_EQ(RequestFullDownload(inbox, p.key), rc::kOk);
  log = Run();
  EXPECT_NE(log.find("UID FETCH 2 BODY.PEEK[]<2048.852>\r\n"), std::string::npos) << log;
  const MessageRecord done = Find(inbox, "partial", &text);
  EXPECT_EQ(text, partial);
  EXPECT_EQ(std::make_tuple(done.key, done.flags & kFlags, done.size), std::make_tuple(p.key, 0u, 2900u));

  log = Run();
  EXPECT_EQ(log.find("BODY.PEEK"), std::string::npos) << "a second run downloads nothing: " << log;
  EXPECT_EQ(inbox.MessageCount(), 82u);
}

TEST_F(Imap4SyncServersTest, HeadersOnlyNewOnlyAndNonAsciiTree) {
  Open(MailServers::Bob(), 0);
  const std::string first = Sized("first", 900), deep = Sized("deep", 5000);
  Append(u"INBOX", first);
  ASSERT_EQ(server_.Create(u"Grüße"), rc::kOk);
  ASSERT_EQ(server_.Create(u"Grüße.Ünter"), rc::kOk);
  Append(u"Grüße.Ünter", deep);
  std::string log = Run();
  std::string text;
  const MessageRecord head = Find(Local("Inbox"), "first", &text);
  EXPECT_EQ(text, first.substr(0, first.find("\r\n\r\n") + 4)) << "LoadBodySize 0 keeps the header";
  EXPECT_EQ(head.flags & kFlags, msgflag::kPartial);
  EXPECT_NE(log.find("UID FETCH 1 BODY.PEEK[HEADER]\r\n"), std::string::npos) << log;
  const MessageRecord d = Find(Local("Grüße/Ünter"), "deep", &text);
  EXPECT_EQ(text, deep.substr(0, deep.find("\r\n\r\n") + 4));
  EXPECT_EQ(d.server_size, 5000u);

  // Download and DownloadNew list from the stored UIDNEXT; a deletion option
  // lists from 1.
  SetOptions("INBOX", imap4sync::kDownload | imap4sync::kDownloadNew);
  Append(u"INBOX", Sized("second", 700));
  log = Run();
  EXPECT_NE(log.find("UID FETCH 2:* (UID FLAGS RFC822.SIZE INTERNALDATE)"), std::string::npos) << log;
  EXPECT_NE(log.find("Options: Download, DownloadNew, \r\n"), std::string::npos) << log;
  EXPECT_EQ(Local("Inbox").MessageCount(), 2u);
  SetOptions("INBOX", imap4sync::kDownload | imap4sync::kDownloadNew | imap4sync::kDeleteOnLocal);
  log = Run();
  EXPECT_NE(log.find("UID FETCH 1:* (UID FLAGS RFC822.SIZE INTERNALDATE)"), std::string::npos) << log;
  EXPECT_EQ(log.find("BODY.PEEK"), std::string::npos) << log;

  // A large message is streamed whole into the folder file.
  ServiceSettings s = service_->settings();
  s.load_body_size = INT32_MAX;
  service_->SetSettings(s);
  const std::string large = Sized("large", 40u << 20);
  Append(u"Grüße", large);
  Run();
  EXPECT_EQ(Find(Local("Grüße"), "large", &text).flags & kFlags, 0u);
  EXPECT_TRUE(text == large) << text.size();
}

}  // namespace
}  // namespace trv
