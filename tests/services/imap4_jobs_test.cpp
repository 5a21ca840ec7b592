// The IMAP4 folder run's decisions, message by message, as one table.
#include "services/imap4_jobs.h"

#include <gtest/gtest.h>

#include "services/imap4_folder_sync.h"

namespace trv {
namespace {

constexpr double kNow = 46000.5;
constexpr uint32_t kValid = 77;

struct Row {
  const char* name;
  Imap4ServerMessage server;
  int where = 0;           // local copy: 0 none, 1 this folder, 2 folder that uploads, 3 other folder, 4 deleted
  uint32_t local_flags = 0;
  uint32_t local_validity = kValid;
  Imap4Limits limits{};
  bool new_only = false;
  // Expected: a job, download, fetch_size, remove, copy, upload_seen, resume; local flags after.
  bool job = false, download = false;
  int32_t fetch_size = 0;
  bool remove = false, copy = false, upload_seen = false, resume = false;
  uint32_t flags_after = 0;
};

TEST(Imap4JobsTest, PlanByLocalStateAndLimits) {
  using namespace msgflag;
  constexpr uint32_t kSeen = 8, kDel = 4;
  const Imap4Limits days{.load_last_days = 10}, max{.load_max_size = 5000}, headers{.load_body_size = 0};
  const Row rows[] = {
      {"new, 2,800 bytes: 2,848 asked for, whole", {20, 0, 2800, kNow}, 0, 0, kValid, {}, false, true, true, 2848},
      {"new, 2,900 bytes: 2,048 + 800", {20, 0, 2900, kNow}, 0, 0, kValid, {}, false, true, true, 2848},
      {"LoadBodySize 0: headers only", {20, 0, 2900, kNow}, 0, 0, kValid, headers, false, true, true, 800},
      {"at LoadMaxSize: left", {20, 0, 5000, kNow}, 0, 0, kValid, max, false, false, false, 0},
      {"11 days back, age 10.5 > LastDays 10: left", {20, 0, 100, kNow - 11}, 0, 0, kValid, days, false, false, false, 0},
      {"10.5 days back, age 9.5: loaded", {20, 0, 100, kNow - 10.5}, 0, 0, kValid, days, false, true, true, 100},
      {"new only, below uidNext: left", {9, 0, 100, kNow}, 0, 0, kValid, {}, true, false, false, 0},
      {"new only, at uidNext: loaded", {10, 0, 100, kNow}, 0, 0, kValid, {}, true, true, true, 100},
      {"deleted flag on the server: ignored", {20, kDel, 100, kNow}, 0, 0, kValid, {}, false, false, false, 0},
      {"here, nothing changed: no job", {20, kSeen, 100, kNow}, 1, kRead | kSyncedSeen, kValid, {}, false,
       false, false, 0, false, false, false, false, kRead | kSyncedSeen},
      {"read on the server: taken here, no job", {20, kSeen, 100, kNow}, 1, 0, kValid, {}, false, false, false, 0,
       false, false, false, false, kRead | kSyncedSeen},
      {"unread on the server: taken here", {20, 0, 100, kNow}, 1, kRead | kSyncedSeen, kValid, {}, false, false,
       false, 0, false, false, false, false, 0},
      {"read here: uploaded", {20, 0, 100, kNow}, 1, kRead, kValid, {}, false, true, false, 0, false, false, true,
       false, kRead},
      {"unread here, read there: here wins", {20, kSeen, 100, kNow}, 1, kSyncedSeen, kValid, {}, false, true,
       false, 0, false, false, true, false, kSyncedSeen},
      {"partial, rest asked for: whole", {20, 0, 9000, kNow}, 1, kPartial | kFullDownloadRequested, kValid, {},
       false, true, true, 9000, false, false, false, true, kPartial | kFullDownloadRequested},
      {"partial, rest not asked for: left", {20, 0, 9000, kNow}, 1, kPartial, kValid, {}, false, false, false, 0,
       false, false, false, false, kPartial},
      {"moved to a folder that uploads: copied, removed", {20, 0, 100, kNow}, 2, 0, kValid, {}, false, true, false,
       0, true, true},
      {"moved elsewhere: removed only", {20, 0, 100, kNow}, 3, 0, kValid, {}, false, true, false, 0, true, false},
      {"deleted here: removed, not loaded", {20, 0, 100, kNow}, 4, 0, kValid, {}, false, true, false, 0, true},
      {"deleted here under an old validity: loaded", {20, 0, 100, kNow}, 4, 0, 5, {}, false, true, true, 100},
      {"here under an old validity: loaded", {20, 0, 100, kNow}, 1, 0, 5, {}, false, true, true, 100},
  };
  MailFolder* const here = reinterpret_cast<MailFolder*>(0x10);
  MailFolder* const uploads = reinterpret_cast<MailFolder*>(0x20);
  MailFolder* const other = reinterpret_cast<MailFolder*>(0x30);
  Imap4FolderTree tree;
  auto add = [&](uint32_t id, MailFolder* folder, uint32_t sync) {
    auto record = std::make_unique<Imap4FolderSync>();
    record->id = id, record->local_folder = folder, record->sync = sync, record->uid_valid = kValid;
    record->parent = &tree.root();
    tree.root().children.push_back(std::move(record));
    return tree.root().children.back().get();
  };
  Imap4FolderSync* inbox = add(1, here, imap4sync::kDefault);
  Imap4FolderSync* archive = add(2, uploads, imap4sync::kDownload | imap4sync::kUpload);
  add(3, other, imap4sync::kDownload);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Imap4LocalIndex local;
    MailFolder* const folders[] = {nullptr, here, uploads, other};
    if (row.where >= 1 && row.where <= 3) {
      MessageRecord m;
      m.flags = row.local_flags, m.imap_uid = row.server.uid, m.server_folder = 1;
      m.imap_uid_validity = row.local_validity;
      local.Put({folders[row.where], m});
    }
    if (row.where == 4) local.AddDeleted(1, row.server.uid, row.local_validity);
    const Imap4PlanInput input{inbox, &tree, true, row.new_only, 10, row.limits, kNow};
    std::vector<Imap4DownloadJob> jobs;
    std::vector<Imap4LocalMessage> seen;
    int64_t total = -1;
    ASSERT_EQ(PlanImap4Jobs({row.server}, input, local, &jobs, &seen, &total), rc::kOk);
    ASSERT_EQ(jobs.size(), row.job ? 1u : 0u);
    EXPECT_EQ(total, row.download ? row.server.size : 0);
    const uint32_t flags_after = seen.empty() ? row.local_flags : seen[0].record.flags;
    EXPECT_EQ(flags_after, row.flags_after);
    if (!row.job) continue;
    const Imap4DownloadJob& job = jobs[0];
    EXPECT_EQ(job.download, row.download);
    if (row.download) {
      EXPECT_EQ(job.fetch_size, row.fetch_size);
      const bool held = row.where == 1 && row.local_validity == kValid;
      EXPECT_EQ(job.body_limit, held ? 2147483647 : row.limits.load_body_size);
    }
    EXPECT_EQ(job.remove_from_server, row.remove);
    EXPECT_EQ(job.copy_to_folder, row.copy);
    EXPECT_EQ(job.copy_target, row.copy ? archive : nullptr);
    EXPECT_EQ(job.upload_seen, row.upload_seen);
    EXPECT_EQ(job.resume, row.resume);
  }
}

TEST(Imap4JobsTest, DeletionKeysRoundTripAndRejectDamage) {
  uint32_t id = 0, uid = 0, validity = 0;
  ASSERT_TRUE(ParseImap4DeletedKey(Imap4DeletedKey(4294967295u, 12, 0), &id, &uid, &validity));
  EXPECT_EQ(id, 4294967295u);
  EXPECT_EQ(uid, 12u);
  for (const char* bad : {"", "1:2", "1:2:", "1::3", "0:2:3", "1:0:3", "1:2:3:4", "4294967296:1:1", "1:x:3"}) {
    EXPECT_FALSE(ParseImap4DeletedKey(bad, &id, &uid, &validity)) << bad;
  }
}

}  // namespace
}  // namespace trv
