// The POP3 run's decisions, message by message, as one table.
#include "services/pop3_jobs.h"

#include <gtest/gtest.h>

namespace trv {
namespace {

constexpr double kNow = 46000.5;

struct Row {
  const char* name;
  int32_t size;
  Pop3Rules rules;
  std::optional<Pop3LocalCopy> local;
  std::optional<double> deleted;
  bool job, download, whole, del;
  uint32_t top_lines = 0;
  int heads = 0;             // TOP n 0 sent
  double head_date = kNow;   // what TOP n 0 tells
  std::string uid = "u1";    // "" as from a server without UIDL
};

TEST(Pop3JobsTest, DecisionsByLimitsAndRules) {
  const Pop3LocalCopy whole{7, kNow - 5, false, false}, partial{7, kNow - 5, true, false};
  const Pop3Rules on_server{.delete_on_server = true}, last_days{.load_last_days = 10, .header_mode = true};
  const Row rows[] = {
      {"2,847 bytes by RETR; with UIDL and default LastDays no TOP n 0", 2847, {}, {}, {}, true, true, true, false},
      {"2,848 bytes by TOP n 51", 2848, {}, {}, {}, true, true, false, false, 51},
      {"LoadBodySize 0: headers only", 100, {.load_body_size = 0}, {}, {}, true, true, false, false, 0},
      {"at LoadMaxSize: left alone", 5000, {.load_max_size = 5000}, {}, {}, false, false, false, false},
      {"too big and DeleteOnServer: kept", 5000, {.load_max_size = 5000, .delete_on_server = true}, {}, {},
       false, false, false, false},
      {"older than LastDays", 100, last_days, {}, {}, false, false, false, false, 0, 1, kNow - 12},
      {"within LastDays", 100, last_days, {}, {}, true, true, true, false, 0, 1, kNow - 10},
      {"no UIDL: UID from the header, known here", 100, {.header_mode = true}, whole, {},
       false, false, false, false, 0, 1, kNow, ""},
      {"DeleteOnServer, new message", 100, on_server, {}, {}, true, true, true, true},
      {"DeleteOnServer, whole copy here", 100, on_server, whole, {}, true, false, false, true},
      {"DeleteOnServer, partial copy here: kept", 100, on_server, partial, {}, false, false, false, false},
      {"partial copy, rest asked for: whole again", 5000, {}, Pop3LocalCopy{7, 0, true, true}, {},
       true, true, true, false},
      {"AfterDays 3, copy 5 days old", 100, {.delete_after_days = 3}, whole, {}, true, false, false, true},
      {"AfterDays 6, copy 5 days old", 100, {.delete_after_days = 6}, whole, {}, false, false, false, false},
      {"deleted here: never downloaded again", 100, {}, {}, kNow, false, false, false, false},
      {"deleted here, AfterLocal", 100, {.delete_after_local_deletion = true}, {}, kNow, true, false, false, true},
      {"AfterLocal, not deleted here: kept despite AfterDays", 100,
       {.delete_after_days = 1, .delete_after_local_deletion = true}, whole, {}, false, false, false, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    int heads = 0;
    Pop3PlanSources sources;
    sources.local = [&](std::string_view uid) { return uid.empty() ? std::nullopt : row.local; };
    sources.deleted = [&](std::string_view) { return row.deleted; };
    sources.read_head = [&](int32_t number, Pop3Head* head) {
      EXPECT_EQ(number, 3);
      ++heads;
      head->uid = "from-head";
      head->sent_date = row.head_date;
      return rc::kOk;
    };
    std::vector<Pop3DownloadJob> jobs;
    ASSERT_EQ(PlanPop3Jobs({{3, row.size, row.uid}}, row.rules, kNow, sources, &jobs), rc::kOk);
    EXPECT_EQ(heads, row.heads);
    ASSERT_EQ(jobs.size(), row.job ? 1u : 0u);
    if (!row.job) continue;
    const Pop3DownloadJob& j = jobs[0];
    EXPECT_EQ(j.uid, row.uid.empty() ? "from-head" : row.uid);
    EXPECT_EQ(std::make_tuple(j.download, j.download && j.whole, j.del), std::make_tuple(row.download, row.whole, row.del));
    if (row.download && !row.whole) {
      EXPECT_EQ(j.top_lines(), row.top_lines);
    }
    EXPECT_EQ(j.local_key, row.local && row.download ? row.local->key : 0u);
  }
}

TEST(Pop3JobsTest, UidFromHead) {
  EXPECT_EQ(Pop3UidFromHead("Subject: a\r\nMessage-ID: <a b@c>\r\n\r\nbody"), "a_b@c");
  const std::string hashed = Pop3UidFromHead("Subject: a\r\n\r\nbody");
  EXPECT_EQ(hashed.size(), 17u);
  EXPECT_EQ(hashed, Pop3UidFromHead("Subject: a\r\n\r\nanother body"));
  EXPECT_NE(hashed, Pop3UidFromHead("Subject: b\r\n\r\nbody"));
}

}  // namespace
}  // namespace trv
