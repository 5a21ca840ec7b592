// The one rule for header field lines as every reader applies it; telling
// mail from other input, the stored form of a message, and mbox reading and
// writing.
#include <gtest/gtest.h>

#include "base/date_value.h"
#include "mime/field_line.h"
#include "mime/header.h"
#include "mime/mime_message.h"
#include "mime/line_source.h"
#include "mime/mbox.h"
#include "mime/message_text.h"

namespace trv {
namespace {

// The header parser, the part tree, the stored form and the input test all
// take a line for a field, or none of them does.
TEST(FieldLineTest, EveryReaderAgrees) {
  struct Row { const char* name; std::string line; WString subject; };  // subject empty: no field
  const Row rows[] = {
      {"plain", "Subject: hi", u"hi"},
      {"blanks before the colon", "Subject \t : hi", u"hi"},
      {"blank inside the name", "Sub ject: hi", u""},
      {"no name", ": hi", u""},
      {"8-bit name", "Subj\xE9" "ct: hi", u""},
      {"no colon", "Subject hi", u""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const bool field = !row.subject.empty();
    EXPECT_EQ(StartsHeaderField(row.line), field);
    EXPECT_EQ(HeaderStateOf(row.line + "\r\n"), field ? HeaderState::kHeader : HeaderState::kNoHeader);
    EXPECT_EQ(ClassifyInput(row.line + "\nFrom: a@b\n\n") == InputKind::kMessage, field);
    CXmHeader header;
    header.Parse(row.line + "\r\nX-A: 1\r\n\r\n", "iso-8859-1").Ignore();
    EXPECT_EQ(header.size(), field ? 2u : 1u);
    EXPECT_EQ(header.GetSubject(), row.subject);
    CXmMimeMessage message;
    message.ParseText(row.line + "\r\nX-A: 1\r\n\r\nbody\r\n").Ignore();
    EXPECT_EQ(message.header().GetSubject(), row.subject);
    EXPECT_EQ(message.header().empty(), !field) << "a message that starts with no field has no header";
  }
}

TEST(ClassifyInputTest, Table) {
  struct Row { const char* name; std::string head; InputKind kind; };
  const Row rows[] = {
      {"mbox", "From a@b Mon Mar  4 10:00:00 2024\nSubject: x\n", InputKind::kMbox},
      {"message, names in any case", "subject: hi\nFROM: a@b\n\nbody\n", InputKind::kMessage},
      {"unknown fields only", "X-Thing: 1\nFoo: 2\n\nbody\n", InputKind::kNotMail},
      {"NUL in the header", std::string("Subject: a\0b\nFrom: a@b\n", 24), InputKind::kNotMail},
      {"NUL only in the body", std::string("Subject: a\n\nb\0c", 15), InputKind::kMessage},
      {"more junk than fields", "Subject: a\njunk\nmore junk\n", InputKind::kNotMail},
  };
  for (const Row& row : rows) EXPECT_EQ(ClassifyInput(row.head), row.kind) << row.name;
}

// A message as read: its text, the line of its envelope, a broken envelope.
using Split = std::tuple<std::string, uint64_t, bool>;

// Splits `mbox` read in blocks of `block` bytes.
std::vector<Split> SplitMbox(const std::string& mbox, size_t block) {
  size_t pos = 0;
  LineSource source(
      [&](char* buf, size_t size, size_t* got) {
        *got = std::min(size, mbox.size() - pos);
        std::copy_n(mbox.data() + pos, *got, buf);
        pos += *got;
        return rc::kOk;
      },
      block);
  MboxReader reader(source);
  std::vector<Split> out;
  MboxMessage m;
  bool got = false;
  while (reader.Next(&m, &got).ok() && got) out.emplace_back(m.text, m.line, m.broken_envelope);
  return out;
}

TEST(MboxReaderTest, SplitsAtFromLinesAfterEmptyLines) {
  const std::string env = "From a@b Mon Mar  4 10:00:00 2024\n";
  struct Row { const char* name; std::string mbox; std::vector<Split> messages; };
  const Row rows[] = {
      {"two messages; the separating empty line is dropped",
       env + "S: 1\n\nb1\n\n" + env + "S: 2\n\nb2\n\n",
       {{"S: 1\n\nb1\n", 1, false}, {"S: 2\n\nb2\n", 6, false}}},
      {"From inside a paragraph does not split", env + "S: 1\n\nline\nFrom here\n",
       {{"S: 1\n\nline\nFrom here\n", 1, false}}},
      {"quoted From lines lose one >", env + "S: 1\n\n>From a\n>>From b\n>Fromage\n",
       {{"S: 1\n\nFrom a\n>From b\n>Fromage\n", 1, false}}},
      {"empty lines at a message's end are kept but the last", env + "S: 1\n\nb\n\n\n\n" + env + "S: 2\n",
       {{"S: 1\n\nb\n\n\n", 1, false}, {"S: 2\n", 8, false}}},
      {"CR LF file", "From a@b Mon Mar  4 10:00:00 2024\r\nS: 1\r\n\r\nb\r\n\r\nFrom c@d Tue Mar  5 1:02:03 2024\r\nS: 2\r\n",
       {{"S: 1\r\n\r\nb\r\n", 1, false}, {"S: 2\r\n", 6, false}}},
      {"last line without line end", env + "S: 1\n\nend", {{"S: 1\n\nend\n", 1, false}}},
      {"broken From line still splits", env + "S: 1\n\nFrom here on\nS: 2\n",
       {{"S: 1\n", 1, false}, {"S: 2\n", 4, true}}},
      {"empty entries", env + "\n" + env + "S: 2\n", {{"", 1, false}, {"S: 2\n", 3, false}}},
  };
  for (const Row& row : rows) {
    // The same whatever the size of the blocks the input arrives in.
    for (size_t block : {size_t{LineSource::kBlock}, size_t{1}, size_t{2}, size_t{3}, size_t{5}, size_t{7}}) {
      EXPECT_EQ(SplitMbox(row.mbox, block), row.messages) << row.name << ", blocks of " << block;
    }
  }
}

TEST(MboxTest, EnvelopeLines) {
  const std::pair<const char*, bool> rows[] = {
      {"From a@b Mon Mar  4 10:00:00 2024", true},  {"From - Sat Jan  3 01:05:34 1996", true},
      {"From ", false},       {"From a@b yesterday", false},  // no sender; neither time nor year
  };
  for (const auto& [line, ok] : rows) EXPECT_EQ(IsWellFormedEnvelope(line), ok) << line;
  const double date = DateFromCivil({2024, 3, 4, 10, 0, 7});
  EXPECT_EQ(MboxEnvelope("a@b.org", date), "From a@b.org Mon Mar  4 10:00:07 2024\n");
  EXPECT_EQ(MboxEnvelope("", date), "From MAILER-DAEMON Mon Mar  4 10:00:07 2024\n");
  EXPECT_EQ(MboxEnvelope("a b@c", date), "From MAILER-DAEMON Mon Mar  4 10:00:07 2024\n");
  EXPECT_TRUE(IsWellFormedEnvelope(MboxEnvelope("x@y", kNoDate)));
}

TEST(MboxWriterTest, EntriesReadBackToTheSameStoredBytes) {
  const std::vector<std::string> stored = {
      "Subject: plain\r\n\r\nbody\r\n",
      "Subject: from lines\r\n\r\nFrom the start\r\n\r\nFrom after a blank\r\n>From quoted\r\n>>From twice\r\n",
      "Subject: blank lines at the end\r\n\r\nb\r\n\r\n\r\n",
      "\r\nno header at all\r\n",
      "Subject: last line ends the message\r\n\r\nFrom \r\n",
  };
  std::string mbox;
  for (const std::string& s : stored) {
    mbox += MboxEnvelope("a@b", kNoDate);
    AppendMboxEntry(s, &mbox);
  }
  const std::vector<Split> back = SplitMbox(mbox, 3);
  ASSERT_EQ(back.size(), stored.size());
  for (size_t i = 0; i < stored.size(); ++i) {
    EXPECT_FALSE(std::get<2>(back[i])) << i;
    EXPECT_EQ(ToStoredForm(std::get<0>(back[i])), stored[i]);
  }
}

}  // namespace
}  // namespace trv
