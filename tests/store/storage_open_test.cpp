// Creating and opening storages: the special folders, missing folder files,
// crashes and damaged indexes.
#include <gtest/gtest.h>

#include <optional>

#include "store/storage.h"
#include "tests/store/storage_test_util.h"

namespace trv {
namespace {

using test::ReadFile;
using test::TestHost;
using test::TreeNames;
using test::WriteFile;
using Lines = std::vector<std::string>;

const Lines kMadeTree = {"Inbox", "  Work", "Outbox", "Sent", "Deleted", "Drafts"};

class StorageOpenTest : public ::testing::Test {
 protected:
  // A new "Local Folders" with a user folder "Work" (two messages) under
  // "Inbox", closed; remembers the folder files' paths.
  void SetUp() override {
    Storage s(host_);
    ASSERT_EQ(s.Create(u"Local Folders", {}, true), rc::kOk);
    MailFolder* work = nullptr;
    ASSERT_EQ(s.CreateFolder(s.SpecialFolder(kFolderInbox), u"Work", &work), rc::kOk);
    for (const char* subject : {"one", "two"}) {
      MessageRecord record;
      record.subject = W(subject);
      uint32_t key = 0;
      ASSERT_EQ(work->file()->Append(record, std::string("Subject: ") + subject + "\r\n\r\nbody\r\n", &key), rc::kOk);
    }
    index_ = s.index_path();
    work_ = work->file_path();
    inbox_ = s.SpecialFolder(kFolderInbox)->file_path();
    drafts_ = s.SpecialFolder(kFolderDrafts)->file_path();
    Clear();
  }

  void Clear() {
    host_.log.lines.clear();
    host_.events.clear();
  }
  bool Logged(const std::string& line) {
    return std::find(host_.log.lines.begin(), host_.log.lines.end(), line) != host_.log.lines.end();
  }
  static uint32_t Messages(Storage& s, const char16_t* path) { return s.FindFolder(path)->file()->counts().messages; }

  TestHost host_;
  std::filesystem::path index_, work_, inbox_, drafts_;
};

TEST_F(StorageOpenTest, ANewStorageHoldsTheFiveSpecialFoldersInOrderAndOpensAgainAsItWasMade) {
  Storage made(host_);
  ASSERT_EQ(made.Create(u"alice", {}, false), rc::kOk);
  EXPECT_TRUE(made.complete());
  EXPECT_FALSE(made.id().IsNil());
  EXPECT_EQ(made.index_path(), host_.data_dir() / (made.id().ToRegistryString() + ".idx"));
  const Lines special = {"Inbox", "Outbox", "Sent", "Deleted", "Drafts"};
  EXPECT_EQ(TreeNames(made), special);
  uint32_t kind = kFolderInbox;
  made.ForEachFolder([&](MailFolder& f) {
    EXPECT_EQ(f.kind(), kind++);
    EXPECT_EQ(f.file_path(), host_.data_dir() / WideToPath(f.file_name()));
    EXPECT_TRUE(Guid::Parse(WStringView(f.file_name()).substr(0, 38))) << WideToUtf8(f.file_name());
    EXPECT_TRUE(std::filesystem::exists(f.file_path()));
  });

  Storage opened(host_);
  ASSERT_EQ(opened.Open(made.index_path()), rc::kOk);
  EXPECT_EQ(TreeNames(opened), special);
  EXPECT_FALSE(opened.local());
  EXPECT_EQ(opened.id(), made.id());
  EXPECT_EQ(opened.name(), u"alice");
  EXPECT_EQ(opened.SpecialFolder(kFolderDrafts)->file_name(), made.SpecialFolder(kFolderDrafts)->file_name());

  // The local storage has the all-zero identifier; another directory holds
  // another storage's index.
  Storage local(host_), elsewhere(host_);
  ASSERT_EQ(local.Open(index_), rc::kOk);
  EXPECT_TRUE(local.local());
  EXPECT_TRUE(local.id().IsNil());
  EXPECT_EQ(index_, host_.data_dir() / "{00000000-0000-0000-0000-000000000000}.idx");
  ASSERT_EQ(elsewhere.Create(u"bob", host_.root() / "elsewhere", false), rc::kOk);
  EXPECT_NE(elsewhere.id(), made.id());
  EXPECT_EQ(elsewhere.index_path(), host_.root() / "elsewhere" / (elsewhere.id().ToRegistryString() + ".idx"));
}

TEST_F(StorageOpenTest, CreateNeverOverwritesAndCleansUpAfterItself) {
  const std::string before = ReadFile(index_);
  Storage again(host_);
  EXPECT_EQ(again.Create(u"Local Folders", {}, true), rc::kFileExists);
  EXPECT_EQ(ReadFile(index_), before);

  WriteFile(host_.root() / "plain", "x");
  EXPECT_EQ(again.Create(u"x", host_.root() / "plain" / "sub", false), rc::kFileNotFound);

  // The index cannot be written: no folder file and no index stays behind.
  const size_t files_before = std::distance(std::filesystem::directory_iterator(host_.data_dir()), {});
  host_.ops.fail_at = host_.ops.changes;
  EXPECT_EQ(again.Create(u"y", {}, false), rc::kWriteFault);
  EXPECT_FALSE(again.is_open());
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(host_.data_dir()), {}), files_before);
}

TEST_F(StorageOpenTest, TheAnswerToAMissingFolderFileDecides) {
  const std::filesystem::path aside = host_.root() / "aside.fld";
  std::filesystem::rename(work_, aside);

  // Skip: the folder stays unopened, and its record survives a save.
  host_.answers = {kAnswerSkip};
  {
    Storage s(host_);
    ASSERT_EQ(s.Open(index_), rc::kOk);
    EXPECT_FALSE(s.complete());
    EXPECT_FALSE(s.FindFolder(u"Inbox/Work")->available());
    EXPECT_FALSE(std::filesystem::exists(work_));
    EXPECT_TRUE(Logged("Folder loading error: " + ResultText(rc::kFileNotFound)));
    ASSERT_EQ(host_.events.size(), 2u);
    EXPECT_EQ(host_.events[0].code, kEventFolderFileNotFound);
    EXPECT_EQ(host_.events[0].storage_name, u"Local Folders");
    EXPECT_EQ(host_.events[0].folder_name, u"Work");
    EXPECT_EQ(host_.events[1].code, kEventFolderLoadingError);
    ASSERT_EQ(s.CreateFolder(s.root(), u"New", nullptr), rc::kOk);
  }
  // Search again, after the file has come back.
  Clear();
  host_.on_event = [&](const StorageEvent&) { std::filesystem::rename(aside, work_); };
  host_.answers = {kAnswerSearchAgain};
  {
    Storage s(host_);
    ASSERT_EQ(s.Open(index_), rc::kOk);
    EXPECT_TRUE(s.complete());
    EXPECT_EQ(host_.events.size(), 1u);
    EXPECT_EQ(Messages(s, u"Inbox/Work"), 2u);
    EXPECT_FALSE(Logged("Recreating folder file"));
  }
  // The default answer: the file is recreated empty under its name.
  std::filesystem::remove(work_);
  Clear();
  host_.on_event = nullptr;
  Storage s(host_);
  ASSERT_EQ(s.Open(index_), rc::kOk);
  EXPECT_TRUE(s.complete());
  EXPECT_EQ(s.FindFolder(u"Inbox/Work")->file_path(), work_);
  EXPECT_EQ(Messages(s, u"Inbox/Work"), 0u);
  const auto at = std::find(host_.log.lines.begin(), host_.log.lines.end(), "Folder name: Work");
  ASSERT_NE(at, host_.log.lines.end());
  EXPECT_EQ(Lines(at + 1, at + 5), (Lines{"Folder file not found", "Recreating folder file",
                                          "Folder file recreated: " + work_.string(), "Folder loaded"}));
}

TEST_F(StorageOpenTest, AStopAnswerLeavesTheRestUnopenedButKeepsThemInTheIndex) {
  std::filesystem::remove(inbox_);
  host_.answers = {kAnswerSkip, kAnswerStop};
  Storage s(host_);
  ASSERT_EQ(s.Open(index_), rc::kOk);
  EXPECT_FALSE(s.complete());
  EXPECT_EQ(std::count(host_.log.lines.begin(), host_.log.lines.end(), "Loading folder"), 1);
  int available = 0;
  s.ForEachFolder([&](MailFolder& f) { available += f.available(); });
  EXPECT_EQ(available, 0);
  ASSERT_EQ(s.SaveIndex(), rc::kOk);

  Storage again(host_);
  host_.answers = {kAnswerSkip};
  ASSERT_EQ(again.Open(index_), rc::kOk);
  EXPECT_EQ(TreeNames(again), kMadeTree);
  EXPECT_EQ(Messages(again, u"Inbox/Work"), 2u);
}

TEST_F(StorageOpenTest, FolderFilesAreLookedForInTheHomeDirectoryAndOnMountedMedia) {
  const std::filesystem::path card = host_.root() / "card/";
  std::filesystem::create_directories(card);
  host_.media = {card};
  std::filesystem::rename(work_, host_.home() / work_.filename());
  std::filesystem::rename(drafts_, card / drafts_.filename());

  Storage s(host_);
  ASSERT_EQ(s.Open(index_), rc::kOk);
  EXPECT_TRUE(host_.events.empty());
  EXPECT_EQ(s.FindFolder(u"Inbox/Work")->file_path(), host_.home() / work_.filename());
  EXPECT_EQ(Messages(s, u"Inbox/Work"), 2u);
  EXPECT_EQ(s.SpecialFolder(kFolderDrafts)->found_dir(), card);
}

// A crash between the two renames of a save leaves the old index only under
// the backup name.
TEST_F(StorageOpenTest, AMissingIndexIsRestoredFromTheBackup) {
  std::filesystem::rename(index_, IndexBackupPath(index_));
  Storage s(host_);
  ASSERT_EQ(s.Open(index_), rc::kOk);
  EXPECT_EQ(host_.log.lines[1], "Storage index restored from backup: " + IndexBackupPath(index_).string());
  EXPECT_EQ(TreeNames(s), kMadeTree);
  EXPECT_TRUE(s.complete());
}

class DamagedIndexTest : public StorageOpenTest {
 protected:
  void SetUp() override {
    StorageOpenTest::SetUp();
    Storage s(host_);
    ASSERT_EQ(s.Open(index_), rc::kOk);
    ASSERT_EQ(s.CreateFolder(s.root(), u"Archive", nullptr), rc::kOk);  // the backup lacks it
    Clear();
    whole_ = ReadFile(index_);
    // Cut inside the record of "Sent" (the third child of the root).
    cut_ = whole_.substr(0, whole_.find(std::string("S\0e\0n\0t\0", 8)) + 2);
  }
  std::string whole_, cut_;
};

// A whole backup is loaded in place of a damaged index; without one, the
// folders before the damage are. The damaged file is left alone either way.
TEST_F(DamagedIndexTest, ABackupReplacesTheDamagedPartOrTheRecordsBeforeItAreLoaded) {
  WriteFile(index_, cut_);
  {
    Storage s(host_);
    ASSERT_EQ(s.Open(index_), rc::kOk);
    EXPECT_TRUE(s.complete());
    EXPECT_EQ(TreeNames(s), kMadeTree);
    EXPECT_NE(s.index_problem().find(index_.string()), std::string::npos) << s.index_problem();
    EXPECT_EQ(host_.log.lines[1],
              "Storage index " + s.index_problem() + "; loading its backup " + IndexBackupPath(index_).string());
    EXPECT_EQ(ReadFile(index_), cut_);
    // The first change keeps the damaged file aside and the backup as it was.
    const std::string backup = ReadFile(IndexBackupPath(index_));
    ASSERT_EQ(s.CreateFolder(s.root(), u"Later", nullptr), rc::kOk);
    EXPECT_EQ(ReadFile(IndexDamagedPath(index_)), cut_);
    EXPECT_EQ(ReadFile(IndexBackupPath(index_)), backup);
  }
  std::filesystem::remove(IndexBackupPath(index_));
  WriteFile(index_, cut_);
  Clear();
  Storage s(host_);
  ASSERT_EQ(s.Open(index_), rc::kOk);
  EXPECT_FALSE(s.complete());
  EXPECT_EQ(TreeNames(s), (Lines{"Inbox", "  Work", "Outbox"}));
  EXPECT_TRUE(Logged("Folder loading error: " + ResultText(rc::kInvalidData)));
  ASSERT_EQ(host_.events.size(), 1u);
  EXPECT_EQ(host_.events[0].code, kEventFolderLoadingError);
  EXPECT_NE(host_.events[0].detail.find(index_.string()), std::string::npos);
  EXPECT_EQ(ReadFile(index_), cut_);
}

TEST_F(DamagedIndexTest, AnUnreadableHeaderFailsNamingTheFileAndChangesNothing) {
  struct Row {
    const char* name;
    std::optional<std::string> bytes;  // none: no index file
    Result result;
  };
  const Row rows[] = {
      {"wrong magic", "XZML" + whole_.substr(4), rc::kInvalidData},
      {"cut in the name", whole_.substr(0, 30), rc::kInvalidData},
      {"missing", std::nullopt, FromWin32(2)},
  };
  std::filesystem::remove(IndexBackupPath(index_));
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::filesystem::remove(index_);
    if (row.bytes) WriteFile(index_, *row.bytes);
    Clear();
    Storage s(host_);
    EXPECT_EQ(s.Open(index_), row.result);
    EXPECT_FALSE(s.is_open());
    EXPECT_EQ(host_.log.lines.back(), "Storage loading error: " + ResultText(row.result));
    ASSERT_EQ(host_.events.size(), 1u);
    EXPECT_EQ(host_.events[0].code, kEventStorageLoadingError);
    EXPECT_EQ(host_.events[0].path, index_);
    EXPECT_EQ(s.index_problem().rfind(index_.string(), 0), 0u) << s.index_problem();
    EXPECT_EQ(std::filesystem::exists(index_), row.bytes.has_value());
    if (row.bytes) EXPECT_EQ(ReadFile(index_), *row.bytes);
  }
}

}  // namespace
}  // namespace trv
