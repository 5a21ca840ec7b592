#include <gtest/gtest.h>

#include <set>
#include <sys/stat.h>

#include "core/search_index.h"
#include "tests/support/recording_log.h"
#include "tests/support/temp_dir.h"

namespace trv {
namespace {

using Subjects = std::multiset<std::string>;

MessageRecord Rec(const char* subject, const char* from, const char* to, double date, bool read) {
  MessageRecord r;
  r.subject = Utf8ToWide(subject);
  r.from = Utf8ToWide(from);
  r.to = Utf8ToWide(to);
  r.sent_date = date;
  if (read) r.flags |= msgflag::kRead;
  return r;
}

std::string Mail(const std::string& subject, const std::string& body) {
  return "Subject: " + subject + "\r\nFrom: x@example.org\r\n\r\n" + body + "\r\n";
}

class SearchTest : public ::testing::Test {
 protected:
  SearchTest() {
    for (auto* f : {&inbox_, &archive_}) {
      EXPECT_EQ(f->Create(dir_ / (f == &inbox_ ? "inbox.fld" : "archive.fld")), rc::kOk);
    }
    Add(inbox_, Rec("Quarterly report", "Alice Smith <alice@example.org>", "bob@example.org", 45355, false),
        Mail("Quarterly report", "The red fox jumps over the lazy dog. C++ NEAR^ *star*"));
    const std::string mixed =
        "Subject: Lunch\r\nContent-Type: multipart/mixed; boundary=B\r\n\r\n--B\r\nContent-Type: text/html\r\n\r\n"
        "<p>Shall we eat <b>pizza</b>?</p><style>p{hidden}</style>\r\n--B\r\nContent-Type: application/pdf\r\n"
        "Content-Disposition: attachment; filename=\"menu-card.pdf\"\r\nContent-Transfer-Encoding: base64\r\n\r\n"
        "QUFB\r\n--B--\r\n";
    Add(inbox_, Rec("Lunch", "Carol <carol@example.org>", "alice@example.org", 45422, true), mixed);
    Add(inbox_, Rec("Caf\xC3\xA9 menu", "Dave <dave@example.org>", "bob@example.org", 45300, true),
        Mail("Cafe", "=?not encoded words?= and quoted-printable=3D"));
  }
  uint32_t Add(FolderFile& f, const MessageRecord& r, const std::string& text) {
    uint32_t key = 0;
    EXPECT_EQ(f.Append(r, text, &key), rc::kOk);
    return key;
  }
  // The subjects of the hits, as "folder:subject" when not in the inbox.
  Subjects Find(const std::string& query) {
    std::vector<SearchFolder> folders = {{"inbox.fld", &inbox_}, {"archive.fld", &archive_}};
    std::vector<SearchHit> hits;
    EXPECT_EQ(index_.Search(query, folders, true, {}, &hits), rc::kOk) << query;
    Subjects out;
    for (const SearchHit& h : hits) {
      const auto r = folders[h.folder].file->FindMessage(h.key);
      out.insert((h.folder == 1 ? "archive:" : "") + (r ? WideToUtf8(r->subject) : "<gone>"));
    }
    return out;
  }
  std::filesystem::path db() const { return dir_ / "Search.db"; }

  test::TempDir dir_;
  test::RecordingLog log_;
  FolderFile inbox_{log_, {.sync_commits = false}};
  FolderFile archive_{log_, {.sync_commits = false}};
  SearchIndex index_{log_};
};

const std::pair<const char*, Subjects> kQueries[] = {
    {"fox", {"Quarterly report"}},
    {"FOX Lazy", {"Quarterly report"}},
    {"\"lazy dog\"", {"Quarterly report"}},
    {"\"dog lazy\"", {}},
    {"from:alice", {"Quarterly report"}},
    {"from:\"alice smith\"", {"Quarterly report"}},
    {"to:alice", {"Lunch"}},
    {"subject:menu", {"Caf\xC3\xA9 menu"}},
    {"menu", {"Lunch", "Caf\xC3\xA9 menu"}},  // attachment's file name, subject
    {"cafe", {"Caf\xC3\xA9 menu"}},
    {"pizza", {"Lunch"}},
    {"hidden", {}},  // style sheets are no text
    {"has:attachment", {"Lunch"}},
    {"is:unread", {"Quarterly report"}},
    {"before:2024-03-04", {"Caf\xC3\xA9 menu"}},
    {"after:2024-03-04 before:2024-05-10", {"Quarterly report"}},
    {"after:2024-13-01", {}},  // not a date: the literal word
    // Taken literally: FTS5 syntax never works as syntax, never fails.
    {"\"lazy fox", {"Quarterly report"}},
    {"fox OR pizza", {}},
    {"NEAR(fox dog)", {}},
    {"fo*", {}},  // no prefix search
    {"* ^ : - ( ) \"\" '", {}},
    {"near^", {"Quarterly report"}},
    {"fox\"jumps", {"Quarterly report"}},
    {"subject:", {}},
    {"", {}},
};

TEST_F(SearchTest, QueryTable) {
  ASSERT_EQ(index_.Open(db()), rc::kOk);
  for (const auto& [query, expected] : kQueries) EXPECT_EQ(Find(query), expected) << query;
  struct stat st{};
  ASSERT_EQ(::stat(db().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(SearchTest, FollowsAppendMoveDeleteAndReadState) {
  ASSERT_EQ(index_.Open(db()), rc::kOk);
  EXPECT_EQ(Find("walrus"), Subjects{});
  const uint32_t key = Add(inbox_, Rec("Zoo", "z@example.org", "", 45400, false), Mail("Zoo", "a walrus"));
  EXPECT_EQ(Find("walrus is:unread"), Subjects{"Zoo"});
  ASSERT_EQ(inbox_.SetFlags(key, msgflag::kRead, 0), rc::kOk);
  EXPECT_EQ(Find("walrus is:unread"), Subjects{});
  // A move: appended there, then deleted here.
  Add(archive_, *inbox_.FindMessage(key), Mail("Zoo", "a walrus"));
  ASSERT_EQ(inbox_.Delete({key}), rc::kOk);
  EXPECT_EQ(Find("walrus"), Subjects{"archive:Zoo"});
  // A key used again for another message is indexed afresh.
  ASSERT_EQ(archive_.Delete({archive_.Messages().front().key}), rc::kOk);
  Add(archive_, Rec("Other", "o@example.org", "", 45400, false), Mail("Other", "an elephant, longer text"));
  EXPECT_EQ(Find("walrus"), Subjects{});
  EXPECT_EQ(Find("elephant"), Subjects{"archive:Other"});
}

TEST_F(SearchTest, DeletedOrDamagedDatabaseIsRebuiltWithTheSameResults) {
  ASSERT_EQ(index_.Open(db()), rc::kOk);
  std::vector<Subjects> before;
  for (const auto& [query, expected] : kQueries) before.push_back(Find(query));
  const std::function<void()> damages[] = {
      [&] { std::filesystem::remove(db()); },
      [&] { test::WriteFile(db(), std::string(8192, 'x')); },
      [&] {  // the header intact, the pages after it not
        std::string bytes = test::ReadFile(db());
        for (size_t i = 4096; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7);
        test::WriteFile(db(), bytes);
      },
  };
  for (const auto& damage : damages) {
    index_.Close();
    std::filesystem::remove(db().string() + "-wal");
    damage();
    ASSERT_EQ(index_.Open(db()), rc::kOk);
    for (size_t i = 0; i < std::size(kQueries); ++i) EXPECT_EQ(Find(kQueries[i].first), before[i]) << i;
  }
}

}  // namespace
}  // namespace trv
