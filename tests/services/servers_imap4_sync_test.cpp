// Whole IMAP4 runs against the harness's Dovecot. One way: what is fetched
// (the "S " lines of the activity log), what is stored (bytes and flags in the
// folder files), partial and resumed downloads, a tree of non-ASCII mailboxes.
// Both ways: seen state, messages moved and deleted here, uploads (and one
// whose answer was lost), deletions on the server, and a mailbox recreated
// with a new UIDVALIDITY, checked through a client of the test's own. The
// one-way tests come first: they count on a fresh account's UIDs.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "base/date_value.h"
#include "core/message_import.h"
#include "mime/stream.h"
#include "net/imap4_client.h"
#include "services/deleted_uids.h"
#include "services/full_download.h"
#include "services/imap4_service.h"
#include "store/storage_messages.h"
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
  // The service `name` for `user`, and `server_` logged in as the same user.
  void Open(const std::u16string& name, const test::MailUser& user, int32_t body_size) {
    TRV_REQUIRE_SERVER(MailServers::Instance().Dovecot());
    ServiceSettings s;
    s.service_name = name, name_ = WideToUtf8(name);
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
  MailFolder& Folder(const std::string& path) {
    MailFolder* f = FindFolderByPath({&service_->storage()}, Utf8ToWide(name_ + "/" + path));
    EXPECT_TRUE(f != nullptr && f->file() != nullptr && f->file()->LoadIndex().ok()) << path;
    return *f;
  }
  // No run is under way: the record may be read and changed.
  Imap4FolderSync& Record(const std::string& mailbox) {
    MutexLock lock(service_->folders_mutex());
    Imap4FolderSync* record = service_->folders().FindByServerPath(Utf8ToWide(mailbox));
    EXPECT_NE(record, nullptr) << mailbox;
    return *record;
  }

  Imap4Service* service_ = nullptr;
  CImap4Client server_;
  std::string name_;
};

MessageRecord Find(FolderFile& file, const std::string& subject, std::string* text) {
  for (const MessageRecord& m : file.Messages()) {
    if (WideToUtf8(m.subject) != subject) continue;
    EXPECT_EQ(file.ReadMessage(m.key, text), rc::kOk);
    return m;
  }
  ADD_FAILURE() << "no message " << subject;
  return {};
}

constexpr uint32_t kFlags = msgflag::kPartial | msgflag::kRead | msgflag::kSyncedSeen | msgflag::kFullDownloadRequested;

TEST_F(Imap4SyncServersTest, LimitsPartialResumeAndNothingTwice) {
  Open(u"Imap", MailServers::Alice(), 2048);
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

  FolderFile& inbox = *Folder("Inbox").file();
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
  Open(u"Imap", MailServers::Bob(), 0);
  const std::string first = Sized("first", 900), deep = Sized("deep", 5000);
  Append(u"INBOX", first);
  ASSERT_EQ(server_.Create(u"Grüße"), rc::kOk);
  ASSERT_EQ(server_.Create(u"Grüße.Ünter"), rc::kOk);
  Append(u"Grüße.Ünter", deep);
  std::string log = Run();
  std::string text;
  const MessageRecord head = Find(*Folder("Inbox").file(), "first", &text);
  EXPECT_EQ(text, first.substr(0, first.find("\r\n\r\n") + 4)) << "LoadBodySize 0 keeps the header";
  EXPECT_EQ(head.flags & kFlags, msgflag::kPartial);
  EXPECT_NE(log.find("UID FETCH 1 BODY.PEEK[HEADER]\r\n"), std::string::npos) << log;
  const MessageRecord d = Find(*Folder("Grüße/Ünter").file(), "deep", &text);
  EXPECT_EQ(text, deep.substr(0, deep.find("\r\n\r\n") + 4));
  EXPECT_EQ(d.server_size, 5000u);

  // Download and DownloadNew list from the stored UIDNEXT; a deletion option
  // lists from 1.
  Record("INBOX").sync = imap4sync::kDownload | imap4sync::kDownloadNew;
  Append(u"INBOX", Sized("second", 700));
  log = Run();
  EXPECT_NE(log.find("UID FETCH 2:* (UID FLAGS RFC822.SIZE INTERNALDATE)"), std::string::npos) << log;
  EXPECT_NE(log.find("Options: Download, DownloadNew, \r\n"), std::string::npos) << log;
  EXPECT_EQ(Folder("Inbox").file()->MessageCount(), 2u);
  Record("INBOX").sync = imap4sync::kDownload | imap4sync::kDownloadNew | imap4sync::kDeleteOnLocal;
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
  EXPECT_EQ(Find(*Folder("Grüße").file(), "large", &text).flags & kFlags, 0u);
  EXPECT_TRUE(text == large) << text.size();
}

using Flags = std::map<std::string, uint32_t>;
constexpr uint32_t kSeenBits = msgflag::kRead | msgflag::kSyncedSeen;

std::string Text(const std::string& subject) {
  return "Subject: " + subject + "\r\nMessage-ID: <" + subject + "@two.way>\r\n\r\nbody of " + subject + "\r\n";
}

class Imap4TwoWayTest : public Imap4SyncServersTest {
 protected:
  void SetUp() override {
    Imap4SyncServersTest::SetUp();
    Open(u"Two", MailServers::Alice(), ServiceSettings{}.load_body_size);
    if (!HasFatalFailure() && !IsSkipped()) Wipe();
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
  void Put(WStringView mailbox, const std::string& subject, uint32_t flags = 0) { Append(mailbox, Text(subject), flags); }
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
  // The folder's messages by subject; a second copy is a failure.
  std::map<std::string, MessageRecord> Local(const std::string& path) {
    std::map<std::string, MessageRecord> out;
    for (const MessageRecord& m : Folder(path).file()->Messages()) {
      EXPECT_TRUE(out.emplace(WideToUtf8(m.subject), m).second) << "twice here: " << WideToUtf8(m.subject);
    }
    return out;
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
};

TEST_F(Imap4TwoWayTest, SeenBothWaysMovedAndDeletedHere) {
  for (const char* subject : {"read-here", "moved", "moved-copied", "copied-later", "deleted-here"}) {
    Put(u"INBOX", subject);
  }
  Put(u"INBOX", "unread-there", kImap4FlagSeen);
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
  for (const char* subject : {"stays", "gone-there", "gone-unlisted"}) Put(u"INBOX", subject);
  Run();
  AddLocal("made-here", msgflag::kRead);
  const uint32_t lost = AddLocal("answer-lost", 0);
  Put(u"INBOX", "answer-lost");  // uploaded by a run killed before it stored the UID
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
  for (const char* subject : {"one", "two", "three"}) Put(u"Box", subject);
  Run();
  ASSERT_EQ(Local("Box").size(), 3u);
  ASSERT_EQ(server_.Examine(u"Box"), rc::kOk);
  const uint32_t before = server_.mailbox().uid_validity.value_or(0);
  ASSERT_EQ(server_.CloseMailbox(), rc::kOk);
  ASSERT_EQ(server_.Delete(u"Box"), rc::kOk);
  ASSERT_EQ(server_.Create(u"Box"), rc::kOk);
  Put(u"Box", "two");
  Put(u"Box", "one");
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
