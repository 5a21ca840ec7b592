// The record a message gets when it is stored, and the repair hook the engine
// gives its folder files.
#include "core/message_import.h"

#include <gtest/gtest.h>

#include <cmath>

#include "base/date_value.h"
#include "core/engine.h"

namespace trv {
namespace {

double Civil(int y, int mo, int d, int h, int mi, int s) { return DateFromCivil({y, mo, d, h, mi, s}); }

bool Near(double a, double b) { return std::fabs(a - b) < 1.0 / 86400.0; }

// The header parsing itself is the mime layer's; here what the record takes
// from it, and how undeclared 8-bit text and a missing header are read.
TEST(RecordFromMessageTest, ListingFields) {
  struct Row {
    const char* name;
    std::string head;
    std::u16string subject, from, to, cc, message_id;
  };
  const Row rows[] = {
      {"encoded words", "Subject: =?UTF-8?B?R3LDvMOfZQ==?= =?ISO-8859-1?Q?caf=E9?=\r\n\r\n", u"Grüßecafé", u"", u"",
       u"", u""},
      {"raw UTF-8 and Latin-1 in the header", "Subject: Gr\xC3\xBC\xC3\x9F" "e \xE9t\xE9\r\n\r\n", u"Grüße été", u"",
       u"", u"", u""},
      {"names and several fields", "From: \"Doe, Jane\" <jane@x.org>\r\nTo: a@x, =?UTF-8?Q?J=C3=B6rg?= <j@x>\r\n"
       "To: c@x\r\nCC: Team: d@x, e@x;\r\nMessage-ID: (note) <abc.1@host>\r\n\r\n",
       u"", u"\"Doe, Jane\" <jane@x.org>", u"a@x, Jörg <j@x>, c@x", u"d@x, e@x", u"abc.1@host"},
      {"message id without brackets", "Message-ID: abc@host\r\n\r\n", u"", u"", u"", u"", u"abc@host"},
      {"fields after the header are body", "Subject: a\r\n\r\nFrom: not@header\r\n", u"a", u"", u"", u"", u""},
      {"no header", "\r\nSubject: body\r\n", u"", u"", u"", u"", u""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const MessageRecord r = RecordFromMessage(row.head);
    EXPECT_EQ(r.subject, row.subject);
    EXPECT_EQ(r.from, row.from);
    EXPECT_EQ(r.to, row.to);
    EXPECT_EQ(r.cc, row.cc);
    EXPECT_EQ(r.message_id, row.message_id);
    EXPECT_EQ(r.size, row.head.size());
    EXPECT_EQ(r.key, 0u);
  }
}

TEST(RecordFromMessageTest, PriorityAndUnsentFlags) {
  const std::pair<const char*, uint32_t> rows[] = {
      {"Subject: a\r\n\r\n", 0},
      {"X-Priority: 2\r\n\r\n", msgflag::kPriorityHigh},
      {"x-priority: 5\r\nx-unsent:  1 \r\n\r\n", msgflag::kPriorityLow | msgflag::kUnsent},
      {"Content-Type: multipart/mixed; boundary=b\r\n\r\n", msgflag::kHasAttachments},
  };
  for (const auto& [head, flags] : rows) EXPECT_EQ(RecordFromMessage(head).flags, flags) << head;
  // Flags other than these stay; these follow the header.
  MessageRecord r;
  r.flags = msgflag::kRead | msgflag::kPriorityHigh | msgflag::kUnsent | msgflag::kHasAttachments;
  FillRecordFromHead("X-Priority: 3\r\n\r\n", &r);
  EXPECT_EQ(r.flags, msgflag::kRead);
}

TEST(RecordFromMessageTest, Dates) {
  const MessageRecord r = RecordFromMessage(
      "Received: from b by c; Tue, 5 Mar 2024 08:00:00 +0000\r\n"
      "Received: from a by b; Tue, 5 Mar 2024 07:00:00 +0000\r\n"
      "Date: Mon, 4 Mar 2024 10:00:00 +0100\r\n\r\n");
  EXPECT_TRUE(Near(r.sent_date, Civil(2024, 3, 4, 9, 0, 0)));
  EXPECT_TRUE(Near(r.received_date, Civil(2024, 3, 5, 8, 0, 0)));  // the topmost Received
}

TEST(RebuildRecordTest, FillsFromTheHeadAndKeepsTheStreamTime) {
  const double stream_time = Civil(2023, 1, 2, 3, 4, 5);
  auto rebuilt = [&](const std::string& head) {
    MessageRecord r;
    r.key = 7;
    r.size = 999;
    r.received_date = stream_time;
    r.flags = msgflag::kNeedsHeaderRefresh;
    RebuildRecordFromHead(head, &r);
    return r;
  };
  MessageRecord r = rebuilt("Subject: back\r\nFrom: a@b\r\nDate: Mon, 4 Mar 2024 10:00:00 +0000\r\n\r\nbody");
  EXPECT_EQ(r.subject, u"back");
  EXPECT_EQ(r.from, u"a@b");
  EXPECT_EQ(r.key, 7u);
  EXPECT_EQ(r.size, 999u);
  EXPECT_TRUE(Near(r.sent_date, Civil(2024, 3, 4, 10, 0, 0)));
  EXPECT_EQ(r.received_date, stream_time);  // no Received field: the stream's time stays
  EXPECT_EQ(r.flags, 0u);

  r = rebuilt("Subject: no dates\r\n\r\n");
  EXPECT_EQ(r.sent_date, stream_time);
  EXPECT_EQ(r.received_date, stream_time);

  r = rebuilt("Received: x; Tue, 5 Mar 2024 07:00:00 +0000\r\n\r\n");
  EXPECT_TRUE(Near(r.received_date, Civil(2024, 3, 5, 7, 0, 0)));
  EXPECT_TRUE(Near(r.sent_date, Civil(2024, 3, 5, 7, 0, 0)));

  // Nothing to read: the record stays as the repair made it.
  r = rebuilt("\r\nbody only\r\n");
  EXPECT_EQ(r.subject, u"");
  EXPECT_EQ(r.flags, msgflag::kNeedsHeaderRefresh);
  EXPECT_EQ(r.received_date, stream_time);
}

TEST(RebuildRecordTest, TheEngineGivesItToFolderFiles) {
  MailEngine* engine = AcquireEngine();
  ASSERT_NE(engine, nullptr);
  const FolderFileOptions options = engine->FolderFileSettings();
  ReleaseEngine();
  ASSERT_TRUE(options.rebuilder);
  MessageRecord r;
  r.flags = msgflag::kNeedsHeaderRefresh;
  options.rebuilder("Subject: via the engine\r\n\r\n", &r);
  EXPECT_EQ(r.subject, u"via the engine");
}

}  // namespace
}  // namespace trv
