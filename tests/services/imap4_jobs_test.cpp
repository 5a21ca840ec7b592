// The IMAP4 folder run's decisions, message by message, as one table.
#include "services/imap4_jobs.h"

#include <gtest/gtest.h>

#include "services/deleted_uids.h"
#include "services/imap4_folder_sync.h"

namespace trv {
namespace {

constexpr double kNow = 46000.5;
constexpr uint32_t kValid = 77, kSeen = 8;
// Where the local copy is: this folder, a folder whose record uploads,
// a folder whose record does not, the deletion record; "Old": under another
// UIDVALIDITY.
enum Where { kNone, kHere, kUploads, kOther, kDeleted, kHereOld, kDeletedOld };

struct Row {
  const char* name;
  Imap4ServerMessage server;
  Where where;
  uint32_t local_flags;
  Imap4Limits limits;
  bool new_only;
  const char* job;  // "" no job; D download, R remove, C copy, U upload seen, Z resume
  int32_t fetch_size = 0;
  uint32_t flags_after = 0;  // the local copy's flags after the plan
};

TEST(Imap4JobsTest, PlanByLocalStateAndLimits) {
  using namespace msgflag;
  const Imap4Limits none, days{.load_last_days = 10}, max{.load_max_size = 5000}, heads{.load_body_size = 0};
  const Row rows[] = {
      {"new, 2,800 bytes: 2,848 asked for, whole", {20, 0, 2800, kNow}, kNone, 0, none, false, "D", 2848},
      {"new, 2,900 bytes: 2,048 + 800", {20, 0, 2900, kNow}, kNone, 0, none, false, "D", 2848},
      {"LoadBodySize 0: headers only", {20, 0, 2900, kNow}, kNone, 0, heads, false, "D", 800},
      {"at LoadMaxSize: left", {20, 0, 5000, kNow}, kNone, 0, max, false, ""},
      {"11 days back, age 10.5 > LastDays 10: left", {20, 0, 100, kNow - 11}, kNone, 0, days, false, ""},
      {"10.5 days back, age 9.5: loaded", {20, 0, 100, kNow - 10.5}, kNone, 0, days, false, "D", 100},
      {"new only, below uidNext: left", {9, 0, 100, kNow}, kNone, 0, none, true, ""},
      {"new only, at uidNext: loaded", {10, 0, 100, kNow}, kNone, 0, none, true, "D", 100},
      {"deleted flag on the server: ignored", {20, 4, 100, kNow}, kNone, 0, none, false, ""},
      {"here, nothing changed", {20, kSeen, 100, kNow}, kHere, kRead | kSyncedSeen, none, false, "", 0,
       kRead | kSyncedSeen},
      {"read there: taken here", {20, kSeen, 100, kNow}, kHere, 0, none, false, "", 0, kRead | kSyncedSeen},
      {"unread there: taken here", {20, 0, 100, kNow}, kHere, kRead | kSyncedSeen, none, false, "", 0, 0},
      {"read here: uploaded", {20, 0, 100, kNow}, kHere, kRead, none, false, "U", 0, kRead},
      {"unread here, read there: here wins", {20, kSeen, 100, kNow}, kHere, kSyncedSeen, none, false, "U", 0,
       kSyncedSeen},
      {"partial, rest asked for: whole", {20, 0, 9000, kNow}, kHere, kPartial | kFullDownloadRequested, none, false,
       "DZ", 9000, kPartial | kFullDownloadRequested},
      {"partial, rest not asked for: left", {20, 0, 9000, kNow}, kHere, kPartial, none, false, "", 0, kPartial},
      {"moved to a folder that uploads", {20, 0, 100, kNow}, kUploads, 0, none, false, "RC"},
      {"moved elsewhere", {20, 0, 100, kNow}, kOther, 0, none, false, "R"},
      {"deleted here", {20, 0, 100, kNow}, kDeleted, 0, none, false, "R"},
      {"deleted here under an old validity", {20, 0, 100, kNow}, kDeletedOld, 0, none, false, "D", 100},
      {"here under an old validity", {20, 0, 100, kNow}, kHereOld, 0, none, false, "D", 100},
  };
  MailFolder* const folders[] = {reinterpret_cast<MailFolder*>(0x10), reinterpret_cast<MailFolder*>(0x20),
                                 reinterpret_cast<MailFolder*>(0x30)};
  Imap4FolderTree tree;
  for (uint32_t id = 1; id <= 3; ++id) {
    auto record = std::make_unique<Imap4FolderSync>();
    record->id = id, record->local_folder = folders[id - 1], record->uid_valid = kValid, record->parent = &tree.root();
    record->sync = id == 3 ? imap4sync::kDownload : imap4sync::kDefault;
    tree.root().children.push_back(std::move(record));
  }
  Imap4FolderSync* inbox = tree.root().children[0].get();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Imap4LocalIndex local;
    const bool old = row.where == kHereOld || row.where == kDeletedOld;
    const uint32_t validity = old ? 5 : kValid;
    if (row.where == kDeleted || row.where == kDeletedOld) local.AddDeleted(1, row.server.uid, validity);
    if ((row.where >= kHere && row.where <= kOther) || row.where == kHereOld) {
      MessageRecord m;
      m.flags = row.local_flags, m.imap_uid = row.server.uid, m.server_folder = 1, m.imap_uid_validity = validity;
      local.Put({folders[row.where == kHereOld ? 0 : row.where - kHere], m});
    }
    const Imap4PlanInput input{inbox, &tree, true, row.new_only, 10, row.limits, kNow};
    std::vector<Imap4DownloadJob> jobs;
    std::vector<Imap4LocalMessage> seen;
    int64_t total = -1;
    ASSERT_EQ(PlanImap4Jobs({row.server}, input, local, &jobs, &seen, &total), rc::kOk);
    EXPECT_EQ(seen.empty() ? row.local_flags : seen[0].record.flags, row.flags_after);
    const std::string expected = row.job;
    ASSERT_EQ(jobs.size(), expected.empty() ? 0u : 1u);
    EXPECT_EQ(total, expected.find('D') != std::string::npos ? row.server.size : 0);
    if (jobs.empty()) continue;
    const Imap4DownloadJob& job = jobs[0];
    std::string got;
    for (const auto& [bit, letter] : {std::pair{job.download, 'D'}, {job.remove_from_server, 'R'},
                                      {job.copy_to_folder, 'C'}, {job.upload_seen, 'U'}, {job.resume, 'Z'}}) {
      if (bit) got += letter;
    }
    EXPECT_EQ(got, expected);
    EXPECT_EQ(job.copy_target, job.copy_to_folder ? tree.root().children[1].get() : nullptr);
    if (!job.download) continue;
    EXPECT_EQ(job.fetch_size, row.fetch_size);
    EXPECT_EQ(job.body_limit, row.where == kHere ? 2147483647 : row.limits.load_body_size);
  }
}

TEST(Imap4JobsTest, DeletionKeysRoundTripAndRejectDamage) {
  uint32_t id = 0, uid = 0, validity = 0;
  ASSERT_TRUE(ParseImap4DeletedKey(Imap4DeletedKey(4294967295u, 12, 0), &id, &uid, &validity));
  EXPECT_EQ(std::make_tuple(id, uid, validity), std::make_tuple(4294967295u, 12u, 0u));
  for (const char* bad : {"", "1:2", "1:2:", "1::3", "0:2:3", "1:0:3", "1:2:3:4", "4294967296:1:1", "1:x:3"}) {
    EXPECT_FALSE(ParseImap4DeletedKey(bad, &id, &uid, &validity)) << bad;
  }
}

}  // namespace
}  // namespace trv
