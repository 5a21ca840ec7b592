// The sending run without a real server: the transmitted text, which
// messages a service sends, messages accepted before a crash, and STARTTLS
// refused by a scripted server.
#include <gtest/gtest.h>

#include "core/message_import.h"
#include "services/outgoing_text.h"
#include "tests/services/send_fixture.h"
#include "tests/support/script_server.h"

namespace trv {
namespace {

using test::SendFixture;

TEST(OutgoingTextTest, HiddenFieldsLeaveAndLeadingDotsDouble) {
  struct Row { std::string stored, want; };
  const Row rows[] = {
      {"To: a@x\r\nbcc: b@x,\r\n c@x\r\nX-UNSENT: 1\r\nResent-Bcc: d@x\r\nSubject: s\r\n\r\nbody\r\n",
       "To: a@x\r\nSubject: s\r\n\r\nbody"},
      {"To: a@x\r\n\r\n.\r\n..two\r\n.x\r\nBcc: stays in the body\r\n\r\n",
       "To: a@x\r\n\r\n..\r\n...two\r\n..x\r\nBcc: stays in the body\r\n"},
      {".Odd: field\r\n\r\nno final line end", "..Odd: field\r\n\r\nno final line end"},
  };
  for (const Row& row : rows) EXPECT_EQ(OutgoingText(row.stored), row.want) << row.stored;
}

class SendRunTest : public SendFixture {};

const char kMessage[] = "From: me@localhost\r\nTo: to@localhost\r\nSubject: s\r\nMessage-ID: <m1@localhost>\r\n\r\n.\r\nx\r\n";

TEST_F(SendRunTest, OtherServicesMailMakesNoConnection) {
  Edit([](ServiceSettings& s) { s.smtp.port = 1; });  // nothing listens: a connection would fail
  MessageRecord other = RecordFromMessage(kMessage);
  SetSendingService(&other, Guid::NewRandom());
  uint32_t key = 0;
  ASSERT_EQ(storage_.SpecialFolder(kFolderOutbox)->file()->Append(other, kMessage, &key), rc::kOk);
  EXPECT_FALSE(service_.HasOutgoingMail());
  EXPECT_EQ(service_.Send(), rc::kOk);
  EXPECT_EQ(Log().find("Synchronizing"), std::string::npos);
  EXPECT_TRUE(events_.codes.empty());
  EXPECT_EQ(Folder(kFolderOutbox).size(), 1u);
  ASSERT_EQ(QueueForSending(service_, kMessage), rc::kOk);
  EXPECT_TRUE(service_.HasOutgoingMail());
}

// A crash after the server's acceptance: the next run only moves, once.
TEST_F(SendRunTest, MessagesMarkedSentAreMovedNotSent) {
  Edit([](ServiceSettings& s) { s.smtp.port = 1; });
  FolderFile& outbox = *storage_.SpecialFolder(kFolderOutbox)->file();
  std::string second = kMessage;
  second.replace(second.find("m1"), 2, "m2");
  uint32_t copied = 0, accepted = 0;
  ASSERT_EQ(QueueForSending(service_, kMessage, &copied), rc::kOk);
  ASSERT_EQ(QueueForSending(service_, second, &accepted), rc::kOk);
  for (uint32_t key : {copied, accepted}) ASSERT_EQ(MarkSent(outbox, key), rc::kOk);
  // For the first, the crash came between the copy into "Sent" and the delete.
  MessageRecord copy = *outbox.FindMessage(copied);
  copy.flags = (copy.flags | msgflag::kSent) & ~msgflag::kUnsent;
  ASSERT_EQ(storage_.SpecialFolder(kFolderSent)->file()->Append(copy, kMessage, &copy.key), rc::kOk);

  EXPECT_EQ(service_.Send(), rc::kOk);
  EXPECT_EQ(Log().find("Synchronizing"), std::string::npos);
  EXPECT_TRUE(Folder(kFolderOutbox).empty());
  const std::vector<MessageRecord> sent = Folder(kFolderSent);
  ASSERT_EQ(sent.size(), 2u);
  for (const MessageRecord& r : sent) EXPECT_EQ(r.flags & (msgflag::kSent | msgflag::kUnsent), msgflag::kSent);
}

TEST_F(SendRunTest, RefusedStartTlsGoesOnInTheClearOnlyWhenAllowed) {
  for (const bool allow : {true, false}) {
    SCOPED_TRACE(allow ? "allowed" : "not allowed");
    Script script;
    script.ServerLine("220 scripted").ClientLine("EHLO [127.0.0.1]").ServerLine("250-scripted")
        .ServerLine("250 STARTTLS").ClientLine("STARTTLS").ServerLine("454 4.7.0 TLS not available");
    if (allow) {
      script.ClientLine("MAIL FROM:<me@localhost>").ServerLine("250 ok").ClientLine("RCPT TO:<to@localhost>")
          .ServerLine("250 ok").ClientLine("DATA").ServerLine("354 go")
          .Client("From: me@localhost\r\nTo: to@localhost\r\nSubject: s\r\nMessage-ID: <m1@localhost>\r\n\r\n"
                  "..\r\nx\r\n.\r\n")
          .ServerLine("250 queued");
    }
    script.ClientLine("QUIT").ServerLine("221 bye");
    test::ScriptServer server(script);
    Edit([&](ServiceSettings& s) {
      s.smtp.port = server.port();
      s.smtp.use_ssl = true;
      s.smtp.ssl_allow_insecure = allow;
    });
    ASSERT_EQ(QueueForSending(service_, kMessage), rc::kOk);
    const size_t logged = Log().size();
    EXPECT_EQ(service_.Send(), allow ? rc::kOk : Result(0x80C3A036));
    EXPECT_EQ(server.Finish(), "");
    EXPECT_EQ(Folder(kFolderOutbox).size(), allow ? 0u : 1u);
    const std::string log = Log().substr(logged);
    EXPECT_EQ(log.find("Warning: STARTTLS failed") != std::string::npos, allow);
    EXPECT_EQ(log.find("Error: ") != std::string::npos, !allow);
  }
}

}  // namespace
}  // namespace trv
