// The sending run without a real server: the transmitted text, which
// messages a service sends, messages accepted before a crash, STARTTLS
// refused, a hang-up in DATA and a hard stop by a scripted server.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "core/message_import.h"
#include "services/outgoing_text.h"
#include "tests/services/service_fixture.h"
#include "tests/support/script_server.h"

namespace trv {
namespace {

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

class SendRunTest : public test::SendFixture {};

const char kMessage[] = "From: me@localhost\r\nTo: to@localhost\r\nSubject: s\r\nMessage-ID: <m1@localhost>\r\n\r\n.\r\nx\r\n";

// Another service's mail stays; mail the server accepted before a crash is
// moved once (one copy reached "Sent" before the crash), never sent again.
TEST_F(SendRunTest, OnlyMovesWhatWasAcceptedAndLeavesOtherServicesMail) {
  Edit([](ServiceSettings& s) { s.smtp.port = 1; });  // nothing listens: a connection would fail
  MessageRecord other = RecordFromMessage(kMessage);
  SetSendingService(&other, Guid::NewRandom());
  ASSERT_EQ(File(kFolderOutbox).Append(other, kMessage, &other.key), rc::kOk);
  EXPECT_FALSE(service_->HasOutgoingMail());
  std::string second = kMessage;
  second.replace(second.find("m1"), 2, "m2");
  uint32_t copied = 0, accepted = 0;
  ASSERT_EQ(QueueForSending(*service_, kMessage, &copied), rc::kOk);
  ASSERT_EQ(QueueForSending(*service_, second, &accepted), rc::kOk);
  for (uint32_t key : {copied, accepted}) ASSERT_EQ(MarkSent(File(kFolderOutbox), key), rc::kOk);
  MessageRecord copy = *File(kFolderOutbox).FindMessage(copied);
  copy.flags = (copy.flags | msgflag::kSent) & ~msgflag::kUnsent;
  ASSERT_EQ(File(kFolderSent).Append(copy, kMessage, &copy.key), rc::kOk);
  EXPECT_TRUE(service_->HasOutgoingMail());

  EXPECT_EQ(service_->Send(), rc::kOk);
  EXPECT_EQ(Log().find("Synchronizing"), std::string::npos);
  EXPECT_TRUE(events_.empty());
  const std::vector<MessageRecord> left = Folder(kFolderOutbox), sent = Folder(kFolderSent);
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(left[0].key, other.key);
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
    ASSERT_EQ(QueueForSending(*service_, kMessage), rc::kOk);
    const size_t logged = Log().size();
    EXPECT_EQ(service_->Send(), allow ? rc::kOk : Result(0x80C3A036));
    EXPECT_EQ(server.Finish(), "");
    EXPECT_EQ(Folder(kFolderOutbox).size(), allow ? 0u : 1u);
    const std::string log = Log().substr(logged);
    EXPECT_EQ(log.find("Warning: STARTTLS failed") != std::string::npos, allow);
    EXPECT_EQ(log.find("- Error: ") != std::string::npos, !allow);
  }
}

// A session that reaches DATA's "354" for kMessage.
Script UpToData() {
  Script script;
  script.ServerLine("220 scripted").ClientLine("EHLO [127.0.0.1]").ServerLine("250 scripted")
      .ClientLine("MAIL FROM:<me@localhost>").ServerLine("250 ok").ClientLine("RCPT TO:<to@localhost>")
      .ServerLine("250 ok").ClientLine("DATA").ServerLine("354 go");
  return script;
}

// The server hangs up in the middle of DATA: the message stays in the
// outbox, not marked sent, and the run ends with the error line.
TEST_F(SendRunTest, AHangUpInDataLeavesTheMessageUnsent) {
  test::ScriptServer server(UpToData().Close());
  Edit([&](ServiceSettings& s) { s.smtp.port = server.port(); });
  ASSERT_EQ(QueueForSending(*service_, kMessage), rc::kOk);
  EXPECT_TRUE(service_->Send().failed());
  EXPECT_EQ(server.Finish(), "");
  const std::vector<MessageRecord> left = Folder(kFolderOutbox);
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(left[0].flags & msgflag::kSent, 0u);
  EXPECT_TRUE(Folder(kFolderSent).empty());
  EXPECT_NE(Log().find("- Error: "), std::string::npos);
}

// A hard stop while the server is silent after DATA ends the run at once,
// without an error line; the message stays in the outbox.
TEST_F(SendRunTest, AHardStopInDataEndsQuietly) {
  test::ScriptServer server(UpToData().Silence());
  Edit([&](ServiceSettings& s) { s.smtp.port = server.port(); });
  ASSERT_EQ(QueueForSending(*service_, kMessage), rc::kOk);
  std::thread stopper([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    service_->Stop(true);
  });
  EXPECT_EQ(service_->Send(), rc::kOk) << "an interruption is no error";
  stopper.join();
  EXPECT_EQ(Folder(kFolderOutbox).size(), 1u);
  EXPECT_EQ(Log().find("- Error: "), std::string::npos);
  EXPECT_NE(Log().find("Synchronization interrupted by user"), std::string::npos);
}

}  // namespace
}  // namespace trv
