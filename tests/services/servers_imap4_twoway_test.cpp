// Whole IMAP4 runs against the harness's Dovecot, both ways: seen state,
// messages moved and deleted here, uploads (and one whose answer was lost),
// deletions on the server, and a mailbox recreated with a new UIDVALIDITY.
// The checks read the server through a client of their own.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "base/date_value.h"
#include "core/message_import.h"
#include "mime/stream.h"
#include "net/imap4_client.h"
#include "services/deleted_uids.h"
#include "services/imap4_service.h"
#include "store/storage_messages.h"
#include "tests/services/service_fixture.h"
#include "tests/support/mail_servers.h"

namespace trv {
namespace {

using test::MailServers;

std::string Text(const std::string& subject) {
  return "Subject: " + subject + "\r\nMessage-ID: <" + subject + "@two.way>\r\n\r\nbody of " + subject + "\r\n";
}

class Imap4TwoWayTest : public test::ServiceEngineTest {
 protected:
  void SetUp() override {
    test::ServiceEngineTest::SetUp();
    TRV_REQUIRE_SERVER(MailServers::Instance().Dovecot());
    const auto& user = MailServers::Alice();
    ServiceSettings s;
    s.service_name = u"Two";
    s.incoming.host = "127.0.0.1", s.incoming.port = MailServers::Instance().ports().imap;
    s.incoming.user_name = user.name, s.incoming.password = user.password, s.incoming.timeout = 10;
    MailService* created = nullptr;
    ASSERT_EQ(CreateService(*engine_, "IMAP4", s, &created), rc::kOk);
    service_ = static_cast<Imap4Service*>(created);
    ASSERT_EQ(server_.Connect("127.0.0.1", s.incoming.port), rc::kOk);
    ASSERT_EQ(server_.Login(user.name, user.password), rc::kOk);
    Wipe();
  }
  void TearDown() override {
    if (server_.connected()) Wipe();  // other tests of this binary share the account
    test::ServiceEngineTest::TearDown();
  }
  // Every mailbox but INBOX deleted, INBOX emptied.
  void Wipe() {
    ASSERT_EQ(server_.List(u"", u"*"), rc::kOk);
    std::vector<WString> boxes;
    for (const Imap4ListEntry& e : server_.result().list) boxes.push_back(e.name);
    std::sort(boxes.begin(), boxes.end(), [](const WString& a, const WString& b) { return a.size() > b.size(); });
    for (const WString& box : boxes) {
      if (!EqualsNoCase(box, u"INBOX")) EXPECT_EQ(server_.Delete(box), rc::kOk) << server_.lastReply();
    }
    ASSERT_EQ(server_.Select(u"INBOX"), rc::kOk);
    if (server_.mailbox().exists.value_or(0) > 0) {
      ASSERT_EQ(server_.Store(1, CImap4Client::kAll, 1, kImap4FlagDeleted, true, false), rc::kOk);
      ASSERT_EQ(server_.Expunge(), rc::kOk);
    }
    ASSERT_EQ(server_.CloseMailbox(), rc::kOk);
  }
  void Append(WStringView mailbox, const std::string& subject, uint32_t flags = 0) {
    const std::string text = Text(subject);
    CXmViewStream stream(text);
    ASSERT_EQ(server_.Append(mailbox, flags, kNoDate, &stream, 0), rc::kOk) << server_.lastReply();
  }
  // The mailbox's messages: subject -> flags, each subject once (a second
  // copy is a failure).
  std::map<std::string, uint32_t> Server(WStringView mailbox) {
    std::map<std::string, uint32_t> out;
    EXPECT_EQ(server_.Examine(mailbox), rc::kOk);
    if (server_.mailbox().exists.value_or(0) == 0) return out;
    EXPECT_EQ(server_.Fetch(1, CImap4Client::kAll, "FLAGS BODY.PEEK[HEADER.FIELDS (SUBJECT)]", false), rc::kOk);
    for (const Imap4FetchData& f : server_.result().fetch) {
      std::string subject(TrimView(RawHeaderValue(f.sections.at(0).bytes, "Subject")));
      EXPECT_TRUE(out.emplace(subject, f.flags.value_or(0) & ~kImap4FlagRecent).second) << "twice: " << subject;
    }
    return out;
  }
  std::string Run() {
    const size_t from = test::ReadFile(dir_ / "TarvoMail.log").size();
    EXPECT_EQ(service_->Receive(false), rc::kOk);
    return test::ReadFile(dir_ / "TarvoMail.log").substr(from);
  }
  MailFolder& Folder(const std::string& path) {
    MailFolder* f = FindFolderByPath({&service_->storage()}, Utf8ToWide("Two/" + path));
    EXPECT_TRUE(f != nullptr && f->file() != nullptr && f->file()->LoadIndex().ok()) << path;
    return *f;
  }
  // The folder's messages by subject, each subject once.
  std::map<std::string, MessageRecord> Local(const std::string& path) {
    std::map<std::string, MessageRecord> out;
    for (const MessageRecord& m : Folder(path).file()->Messages()) {
      EXPECT_TRUE(out.emplace(WideToUtf8(m.subject), m).second) << "twice here: " << WideToUtf8(m.subject);
    }
    return out;
  }
  uint32_t RecordId(const std::string& mailbox) {
    MutexLock lock(service_->folders_mutex());
    Imap4FolderSync* record = service_->folders().FindByServerPath(Utf8ToWide(mailbox));
    return record != nullptr ? record->id : 0;
  }
  void SetOptions(const std::string& mailbox, uint32_t sync) {
    MutexLock lock(service_->folders_mutex());
    service_->folders().FindByServerPath(Utf8ToWide(mailbox))->sync = sync;
  }
  uint32_t AddLocal(const std::string& path, const std::string& subject, uint32_t flags) {
    MessageRecord record = RecordFromMessage(Text(subject));
    record.flags |= flags;
    uint32_t key = 0;
    EXPECT_EQ(Folder(path).file()->Append(record, Text(subject), &key), rc::kOk);
    return key;
  }

  Imap4Service* service_ = nullptr;
  CImap4Client server_;
};

constexpr uint32_t kSeenBits = msgflag::kRead | msgflag::kSyncedSeen;

TEST_F(Imap4TwoWayTest, SeenBothWaysMovedAndDeletedHere) {
  Append(u"INBOX", "read-here");
  Append(u"INBOX", "unread-there", kImap4FlagSeen);
  Append(u"INBOX", "moved");
  Append(u"INBOX", "deleted-here");
  ASSERT_EQ(server_.Create(u"Archive"), rc::kOk);
  Run();
  auto inbox = Local("Inbox");
  ASSERT_EQ(inbox.size(), 4u);
  EXPECT_EQ(inbox["unread-there"].flags & kSeenBits, kSeenBits);

  ASSERT_EQ(Folder("Inbox").file()->SetFlags(inbox["read-here"].key, msgflag::kRead, 0), rc::kOk);
  ASSERT_EQ(server_.Select(u"INBOX"), rc::kOk);
  ASSERT_EQ(server_.Store(inbox["unread-there"].imap_uid, inbox["unread-there"].imap_uid, 2, kImap4FlagSeen, true,
                          true), rc::kOk);
  ASSERT_EQ(MoveMessages(Folder("Inbox"), {inbox["moved"].key}, Folder("Archive"), nullptr), rc::kOk);
  ASSERT_EQ(DeleteReceivedMessages(PosixFileSystem::Instance(), *Folder("Inbox").file(), *Folder("Inbox").file(),
                                   {inbox["deleted-here"].key}), rc::kOk);
  const auto record = Folder("Inbox").file()->path().string() + kImap4DeletedSuffix;
  EXPECT_TRUE(std::filesystem::exists(record)) << "the deletion is recorded";

  const std::string log = Run();
  EXPECT_NE(log.find("UID STORE " + std::to_string(inbox["read-here"].imap_uid) + " +FLAGS.SILENT (\\Seen)"),
            std::string::npos) << log;
  EXPECT_NE(log.find("UID COPY " + std::to_string(inbox["moved"].imap_uid)), std::string::npos) << log;
  EXPECT_NE(log.find("UID EXPUNGE"), std::string::npos) << log;
  EXPECT_EQ(Server(u"INBOX"), (std::map<std::string, uint32_t>{{"read-here", kImap4FlagSeen}, {"unread-there", 0}}));
  EXPECT_EQ(Server(u"Archive"), (std::map<std::string, uint32_t>{{"moved", 0}}));
  inbox = Local("Inbox");
  EXPECT_EQ(inbox["read-here"].flags & kSeenBits, kSeenBits);
  EXPECT_EQ(inbox["unread-there"].flags & kSeenBits, 0u);
  const MessageRecord moved = Local("Archive")["moved"];
  EXPECT_EQ(moved.server_folder, RecordId("Archive")) << "the copy's key names the new mailbox";
  EXPECT_NE(moved.imap_uid, 0u);
  EXPECT_FALSE(std::filesystem::exists(record)) << "done deletions are forgotten";

  const std::string again = Run();
  EXPECT_EQ(again.find("BODY.PEEK"), std::string::npos) << "nothing downloaded twice: " << again;
  EXPECT_EQ(again.find("UID STORE"), std::string::npos) << again;
  EXPECT_EQ(Local("Archive").size(), 1u);
  EXPECT_EQ(Local("Inbox").size(), 2u);
}

TEST_F(Imap4TwoWayTest, UploadsLostAnswersAndDeletionsOnTheServer) {
  Append(u"INBOX", "stays");
  Append(u"INBOX", "gone-there");
  Append(u"INBOX", "gone-unlisted");
  Run();
  AddLocal("Inbox", "made-here", msgflag::kRead);
  const uint32_t lost = AddLocal("Inbox", "answer-lost", 0);
  Append(u"INBOX", "answer-lost");  // uploaded by a run killed before it stored the UID
  ASSERT_EQ(server_.Select(u"INBOX"), rc::kOk);
  ASSERT_EQ(server_.Store(2, 2, 1, kImap4FlagDeleted, true, false), rc::kOk);
  ASSERT_EQ(server_.Expunge(), rc::kOk);

  std::string log = Run();
  EXPECT_EQ(log.find("APPEND"), log.rfind("APPEND")) << "one upload: " << log;
  EXPECT_NE(log.find("is already on the server"), std::string::npos) << log;
  EXPECT_EQ(Server(u"INBOX"), (std::map<std::string, uint32_t>{
                                  {"stays", 0}, {"gone-unlisted", 0}, {"made-here", kImap4FlagSeen}, {"answer-lost", 0}}));
  auto inbox = Local("Inbox");
  EXPECT_EQ(inbox.count("gone-there"), 0u) << "DeleteOnLocal";
  for (const char* subject : {"made-here", "answer-lost"}) {
    EXPECT_EQ(inbox[subject].server_folder, RecordId("INBOX")) << subject;
    EXPECT_NE(inbox[subject].imap_uid, 0u) << subject;
  }
  EXPECT_EQ(inbox["answer-lost"].key, lost);
  EXPECT_EQ(inbox["made-here"].flags & kSeenBits, kSeenBits);
  log = Run();
  EXPECT_EQ(log.find("APPEND"), std::string::npos) << "a second run uploads nothing: " << log;

  // Without DeleteOnLocal, or with Upload alone (no list fetched), nothing goes here.
  ASSERT_EQ(server_.Select(u"INBOX"), rc::kOk);
  ASSERT_EQ(server_.Store(2, 2, 1, kImap4FlagDeleted, true, false), rc::kOk);
  ASSERT_EQ(server_.Expunge(), rc::kOk);
  for (const uint32_t sync : {imap4sync::kDownload | imap4sync::kUpload, imap4sync::kUpload}) {
    SetOptions("INBOX", sync);
    Run();
    EXPECT_EQ(Local("Inbox").count("gone-unlisted"), 1u) << sync;
  }
}

TEST_F(Imap4TwoWayTest, UidValidityChangeMatchesAgain) {
  ASSERT_EQ(server_.Create(u"Box"), rc::kOk);
  for (const char* subject : {"one", "two", "three"}) Append(u"Box", subject);
  Run();
  ASSERT_EQ(Local("Box").size(), 3u);
  ASSERT_EQ(server_.Examine(u"Box"), rc::kOk);
  const uint32_t before = server_.mailbox().uid_validity.value_or(0);
  ASSERT_EQ(server_.CloseMailbox(), rc::kOk);
  ASSERT_EQ(server_.Delete(u"Box"), rc::kOk);
  ASSERT_EQ(server_.Create(u"Box"), rc::kOk);
  Append(u"Box", "two");
  Append(u"Box", "one");
  ASSERT_EQ(server_.Examine(u"Box"), rc::kOk);
  ASSERT_NE(server_.mailbox().uid_validity.value_or(0), before);

  const std::string log = Run();
  EXPECT_NE(log.find("2 local messages matched, 1 kept without a UID"), std::string::npos) << log;
  EXPECT_EQ(log.find("BODY.PEEK[]"), std::string::npos) << "matched messages are not downloaded again: " << log;
  const auto box = Local("Box");
  EXPECT_EQ(box.size(), 3u);
  EXPECT_EQ(Server(u"Box"), (std::map<std::string, uint32_t>{{"one", 0}, {"two", 0}, {"three", 0}}))
      << "the unmatched one went up again";
  ASSERT_EQ(server_.Examine(u"Box"), rc::kOk);
  for (const auto& [subject, m] : box) EXPECT_EQ(m.imap_uid_validity, server_.mailbox().uid_validity) << subject;
  EXPECT_EQ(box.at("two").imap_uid, 1u);
}

}  // namespace
}  // namespace trv
