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
using Flags = std::map<std::string, uint32_t>;
constexpr uint32_t kSeenBits = msgflag::kRead | msgflag::kSyncedSeen;

std::string Text(const std::string& subject) {
  return "Subject: " + subject + "\r\nMessage-ID: <" + subject + "@two.way>\r\n\r\nbody of " + subject + "\r\n";
}

class Imap4TwoWayTest : public test::ServiceEngineTest {
 protected:
  void SetUp() override {
    test::ServiceEngineTest::SetUp();
    TRV_REQUIRE_SERVER(MailServers::Instance().Dovecot());
    ServiceSettings s;
    s.service_name = u"Two";
    s.incoming.host = "127.0.0.1", s.incoming.port = MailServers::Instance().ports().imap;
    s.incoming.user_name = MailServers::Alice().name, s.incoming.password = MailServers::Alice().password;
    s.incoming.timeout = 10, s.incoming.store_password = true;
    MailService* created = nullptr;
    ASSERT_EQ(CreateService(*engine_, "IMAP4", s, &created), rc::kOk);
    service_ = static_cast<Imap4Service*>(created);
    ASSERT_EQ(server_.Connect("127.0.0.1", s.incoming.port), rc::kOk);
    ASSERT_EQ(server_.Login(s.incoming.user_name, s.incoming.password), rc::kOk);
    Wipe();
  }
  void TearDown() override {
    if (server_.connected()) Wipe();  // the binary's other tests share the account
    test::ServiceEngineTest::TearDown();
  }
  // Every mailbox but INBOX deleted (children first), INBOX emptied.
  void Wipe() {
    ASSERT_EQ(server_.Select(u"INBOX"), rc::kOk) << server_.lastReply();
    ASSERT_EQ(server_.List(u"", u"*"), rc::kOk);
    std::vector<WString> boxes;
    for (const Imap4ListEntry& e : server_.result().list) boxes.push_back(e.name);
    std::sort(boxes.begin(), boxes.end(), [](const WString& a, const WString& b) { return a.size() > b.size(); });
    for (const WString& box : boxes) EXPECT_TRUE(EqualsNoCase(box, u"INBOX") || server_.Delete(box).ok()) << WideToUtf8(box);
    if (server_.mailbox().exists.value_or(0) > 0) {
      ASSERT_EQ(server_.Store(1, CImap4Client::kAll, 1, kImap4FlagDeleted, true, false), rc::kOk);
    }
    ASSERT_EQ(server_.CloseMailbox(), rc::kOk);
  }
  void Append(WStringView mailbox, const std::string& subject, uint32_t flags = 0) {
    const std::string text = Text(subject);
    CXmViewStream stream(text);
    ASSERT_EQ(server_.Append(mailbox, flags, kNoDate, &stream, 0), rc::kOk) << server_.lastReply();
  }
  // The mailbox's messages, subject -> flags; a second copy is a failure.
  Flags Server(WStringView mailbox) {
    Flags out;
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
  // The folder's messages by subject; a second copy is a failure.
  std::map<std::string, MessageRecord> Local(const std::string& path) {
    std::map<std::string, MessageRecord> out;
    for (const MessageRecord& m : Folder(path).file()->Messages()) {
      EXPECT_TRUE(out.emplace(WideToUtf8(m.subject), m).second) << "twice here: " << WideToUtf8(m.subject);
    }
    return out;
  }
  // No run is under way: the record may be read and changed.
  Imap4FolderSync& Record(const std::string& mailbox) {
    MutexLock lock(service_->folders_mutex());
    return *service_->folders().FindByServerPath(Utf8ToWide(mailbox));
  }
  uint32_t AddLocal(const std::string& subject, uint32_t flags) {
    MessageRecord record = RecordFromMessage(Text(subject));
    record.flags |= flags;
    uint32_t key = 0;
    EXPECT_EQ(Folder("Inbox").file()->Append(record, Text(subject), &key), rc::kOk);
    return key;
  }
  void ExpungeOnServer(uint32_t number) {
    ASSERT_EQ(server_.Select(u"INBOX"), rc::kOk);
    ASSERT_EQ(server_.Store(number, number, 1, kImap4FlagDeleted, true, false), rc::kOk);
    ASSERT_EQ(server_.Expunge(), rc::kOk);
  }

  Imap4Service* service_ = nullptr;
  CImap4Client server_;
};

TEST_F(Imap4TwoWayTest, SeenBothWaysMovedAndDeletedHere) {
  for (const char* subject : {"read-here", "moved", "moved-copied", "copied-later", "deleted-here"}) {
    Append(u"INBOX", subject);
  }
  Append(u"INBOX", "unread-there", kImap4FlagSeen);
  ASSERT_EQ(server_.Create(u"Archive"), rc::kOk);  // synchronized before INBOX, INBOX.Later after it
  ASSERT_EQ(server_.Create(u"INBOX.Later"), rc::kOk);
  Run();
  auto inbox = Local("Inbox");
  ASSERT_EQ(inbox.size(), 6u);
  EXPECT_EQ(inbox["unread-there"].flags & kSeenBits, kSeenBits);

  ASSERT_EQ(Folder("Inbox").file()->SetFlags(inbox["read-here"].key, msgflag::kRead, 0), rc::kOk);
  ASSERT_EQ(server_.Select(u"INBOX"), rc::kOk);
  const uint32_t there = inbox["unread-there"].imap_uid, copied = inbox["moved-copied"].imap_uid,
                 later = inbox["copied-later"].imap_uid;
  ASSERT_EQ(server_.Store(there, there, 2, kImap4FlagSeen, true, true), rc::kOk);
  ASSERT_EQ(MoveMessages(Folder("Inbox"), {inbox["moved"].key, inbox["moved-copied"].key}, Folder("Archive"), nullptr),
            rc::kOk);
  ASSERT_EQ(MoveMessages(Folder("Inbox"), {inbox["copied-later"].key}, Folder("Inbox/Later"), nullptr), rc::kOk);
  // Copied already by a run killed before it stored the new key.
  ASSERT_EQ(server_.Copy(copied, copied, u"Archive", true), rc::kOk);
  ASSERT_EQ(server_.Copy(later, later, u"INBOX.Later", true), rc::kOk);
  FolderFile& file = *Folder("Inbox").file();
  ASSERT_EQ(DeleteReceivedMessages(PosixFileSystem::Instance(), file, file, {inbox["deleted-here"].key}), rc::kOk);
  const auto record = file.path().string() + kImap4DeletedSuffix;
  EXPECT_TRUE(std::filesystem::exists(record)) << "the deletion is recorded";

  const std::string log = Run();
  EXPECT_NE(log.find("UID STORE " + std::to_string(inbox["read-here"].imap_uid) + " +FLAGS.SILENT (\\Seen)"),
            std::string::npos) << log;
  EXPECT_NE(log.find("UID COPY " + std::to_string(inbox["moved"].imap_uid) + " Archive"), std::string::npos);
  EXPECT_NE(log.find("is already on the server"), std::string::npos) << log;
  EXPECT_NE(log.find("is already in INBOX.Later"), std::string::npos) << log;
  EXPECT_NE(log.find("UID EXPUNGE"), std::string::npos) << log;
  EXPECT_EQ(Server(u"INBOX"), (Flags{{"read-here", kImap4FlagSeen}, {"unread-there", 0}}));
  EXPECT_EQ(Server(u"Archive"), (Flags{{"moved", 0}, {"moved-copied", 0}}));
  EXPECT_EQ(Server(u"INBOX.Later"), (Flags{{"copied-later", 0}}));
  inbox = Local("Inbox");
  EXPECT_EQ(inbox["read-here"].flags & kSeenBits, kSeenBits);
  EXPECT_EQ(inbox["unread-there"].flags & kSeenBits, 0u);
  for (const auto& [box, path] : {std::pair{"Archive", "Archive"}, {"INBOX.Later", "Inbox/Later"}}) {
    for (const auto& [subject, m] : Local(path)) {
      EXPECT_EQ(std::make_pair(m.server_folder, m.imap_uid != 0), std::make_pair(Record(box).id, true)) << subject;
    }
  }
  EXPECT_FALSE(std::filesystem::exists(record)) << "done deletions are forgotten";

  const std::string again = Run();
  EXPECT_EQ(again.find("BODY.PEEK"), std::string::npos) << "nothing downloaded twice: " << again;
  EXPECT_EQ(again.find("UID STORE"), std::string::npos) << again;
  EXPECT_EQ(std::make_tuple(Local("Archive").size(), Local("Inbox/Later").size(), Local("Inbox").size()),
            std::make_tuple(size_t{2}, size_t{1}, size_t{2}));
}

TEST_F(Imap4TwoWayTest, UploadsLostAnswersAndDeletionsOnTheServer) {
  for (const char* subject : {"stays", "gone-there", "gone-unlisted"}) Append(u"INBOX", subject);
  Run();
  AddLocal("made-here", msgflag::kRead);
  const uint32_t lost = AddLocal("answer-lost", 0);
  Append(u"INBOX", "answer-lost");  // uploaded by a run killed before it stored the UID
  ExpungeOnServer(2);

  std::string log = Run();
  EXPECT_EQ(log.find(" APPEND "), log.rfind(" APPEND ")) << "one upload: " << log;
  EXPECT_NE(log.find("is already on the server"), std::string::npos) << log;
  EXPECT_EQ(Server(u"INBOX"),
            (Flags{{"stays", 0}, {"gone-unlisted", 0}, {"made-here", kImap4FlagSeen}, {"answer-lost", 0}}));
  auto inbox = Local("Inbox");
  EXPECT_EQ(inbox.count("gone-there"), 0u) << "DeleteOnLocal";
  for (const char* subject : {"made-here", "answer-lost"}) {
    EXPECT_EQ(std::make_pair(inbox[subject].server_folder, inbox[subject].imap_uid != 0),
              std::make_pair(Record("INBOX").id, true)) << subject;
  }
  EXPECT_EQ(inbox["answer-lost"].key, lost);
  EXPECT_EQ(inbox["made-here"].flags & kSeenBits, kSeenBits);
  log = Run();
  EXPECT_EQ(log.find(" APPEND "), std::string::npos) << "a second run uploads nothing: " << log;

  // Without DeleteOnLocal, or with Upload alone (no list fetched), nothing goes here.
  ExpungeOnServer(2);
  for (const uint32_t sync : {imap4sync::kDownload | imap4sync::kUpload, imap4sync::kUpload}) {
    Record("INBOX").sync = sync;
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
  EXPECT_EQ(Server(u"Box"), (Flags{{"one", 0}, {"two", 0}, {"three", 0}})) << "the unmatched one went up again";
  for (const auto& [subject, m] : box) EXPECT_EQ(m.imap_uid_validity, server_.mailbox().uid_validity) << subject;
  EXPECT_EQ(std::make_pair(box.at("two").imap_uid, box.at("one").imap_uid), std::make_pair(1u, 2u));
}

}  // namespace
}  // namespace trv
