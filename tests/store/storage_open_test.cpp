// Creating and opening storages: the special folders, the log of a load,
// missing folder files, both index versions, crashes and damaged indexes.
#include <gtest/gtest.h>

#include "core/byte_io.h"
#include "store/storage.h"
#include "tests/store/storage_test_util.h"

namespace trv {
namespace {

using test::ReadFile;
using test::TestHost;
using test::TreeNames;
using test::WriteFile;
using Lines = std::vector<std::string>;

class StorageOpenTest : public ::testing::Test {
 protected:
  // A new "Local Folders" with a user folder "Work" under "Inbox", closed.
  std::filesystem::path MakeLocal() {
    Storage s(host_);
    EXPECT_EQ(s.Create(u"Local Folders", {}, true), rc::kOk);
    MailFolder* work = nullptr;
    EXPECT_EQ(s.CreateFolder(s.SpecialFolder(kFolderInbox), u"Work", &work), rc::kOk);
    for (const char* subject : {"one", "two"}) {
      MessageRecord record;
      record.subject = W(subject);
      uint32_t key = 0;
      EXPECT_EQ(work->file()->Append(record, std::string("Subject: ") + subject + "\r\n\r\nbody\r\n", &key), rc::kOk);
    }
    host_.log.lines.clear();
    host_.events.clear();
    return s.index_path();
  }

  std::filesystem::path FolderFilePath(const std::filesystem::path& index, const std::string& path) {
    Storage s(host_);
    EXPECT_EQ(s.Open(index), rc::kOk);
    const std::filesystem::path p = s.FindFolder(Utf8ToWide(path))->file_path();
    host_.log.lines.clear();
    host_.events.clear();
    return p;
  }

  bool Logged(const std::string& line) {
    return std::find(host_.log.lines.begin(), host_.log.lines.end(), line) != host_.log.lines.end();
  }

  TestHost host_;
};

TEST_F(StorageOpenTest, ANewStorageHoldsTheFiveSpecialFoldersInOrderAndOpensAgainAsItWasMade) {
  Storage made(host_);
  ASSERT_EQ(made.Create(u"Local Folders", {}, true), rc::kOk);
  EXPECT_TRUE(made.complete());
  EXPECT_EQ(made.index_path(), host_.data_dir() / "{00000000-0000-0000-0000-000000000000}.idx");
  const Lines special = {"Inbox", "Outbox", "Sent", "Deleted", "Drafts"};
  EXPECT_EQ(TreeNames(made), special);
  std::vector<std::filesystem::path> files;
  uint32_t kind = kFolderInbox;
  made.ForEachFolder([&](MailFolder& f) {
    EXPECT_EQ(f.kind(), kind++);
    EXPECT_EQ(f.file_path(), host_.data_dir() / WideToPath(f.file_name()));
    EXPECT_TRUE(Guid::Parse(WStringView(f.file_name()).substr(0, 38))) << WideToUtf8(f.file_name());
    EXPECT_TRUE(std::filesystem::exists(f.file_path()));
    files.push_back(f.file_path());
  });
  std::sort(files.begin(), files.end());
  EXPECT_EQ(std::unique(files.begin(), files.end()), files.end());

  Storage opened(host_);
  ASSERT_EQ(opened.Open(made.index_path()), rc::kOk);
  EXPECT_EQ(TreeNames(opened), special);
  EXPECT_TRUE(opened.local());
  EXPECT_TRUE(opened.id().IsNil());
  EXPECT_EQ(opened.name(), u"Local Folders");
  EXPECT_EQ(opened.SpecialFolder(kFolderDrafts)->file_name(), made.SpecialFolder(kFolderDrafts)->file_name());
}

TEST_F(StorageOpenTest, AServiceStorageIsNamedByAFreshIdentifier) {
  Storage a(host_), b(host_);
  ASSERT_EQ(a.Create(u"alice", {}, false), rc::kOk);
  ASSERT_EQ(b.Create(u"bob", host_.root() / "elsewhere", false), rc::kOk);
  EXPECT_FALSE(a.local());
  EXPECT_FALSE(a.id().IsNil());
  EXPECT_NE(a.id(), b.id());
  EXPECT_EQ(a.index_path().filename(), a.id().ToRegistryString() + ".idx");
  EXPECT_EQ(b.index_path(), host_.root() / "elsewhere" / (b.id().ToRegistryString() + ".idx"));
}

TEST_F(StorageOpenTest, CreateNeverOverwritesAndCleansUpAfterItself) {
  const std::filesystem::path index = MakeLocal();
  const std::string before = ReadFile(index);
  Storage again(host_);
  EXPECT_EQ(again.Create(u"Local Folders", {}, true), rc::kFileExists);
  EXPECT_EQ(ReadFile(index), before);

  WriteFile(host_.root() / "plain", "x");
  EXPECT_EQ(again.Create(u"x", host_.root() / "plain" / "sub", false), rc::kFileNotFound);

  // The index cannot be written: no folder file and no index stays behind.
  const size_t files_before = std::distance(std::filesystem::directory_iterator(host_.data_dir()), {});
  host_.ops.fail_at = host_.ops.changes;
  EXPECT_EQ(again.Create(u"y", {}, false), rc::kWriteFault);
  EXPECT_FALSE(again.is_open());
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(host_.data_dir()), {}), files_before);
}

TEST_F(StorageOpenTest, OpeningLogsEveryStepInOrder) {
  const std::filesystem::path index = MakeLocal();
  Storage s(host_);
  ASSERT_EQ(s.Open(index), rc::kOk);
  Lines want = {"Loading storage: " + index.string(), "Storage name: Local Folders"};
  s.ForEachFolder([&](MailFolder& f) {
    for (const std::string& line : {std::string("Loading folder"), "Folder name: " + WideToUtf8(f.name()),
                                    "Folder file found: " + f.file_path().string(), std::string("Loading messages count"),
                                    std::string("Folder loaded")}) {
      want.push_back(line);
    }
  });
  want.push_back("Storage loaded");
  EXPECT_EQ(host_.log.lines, want);
  EXPECT_TRUE(host_.events.empty());
  EXPECT_EQ(s.FindFolder(u"inbox/WORK")->file()->counts().messages, 2u);
}

TEST_F(StorageOpenTest, AFolderFileDeletedByHandIsRecreatedEmptyUnderItsName) {
  const std::filesystem::path index = MakeLocal();
  const std::filesystem::path work = FolderFilePath(index, "Inbox/Work");
  std::filesystem::remove(work);

  Storage s(host_);
  ASSERT_EQ(s.Open(index), rc::kOk);
  MailFolder* folder = s.FindFolder(u"Inbox/Work");
  ASSERT_TRUE(folder->available());
  EXPECT_EQ(folder->file_path(), work);
  EXPECT_EQ(folder->file()->counts().messages, 0u);
  EXPECT_TRUE(s.complete());
  ASSERT_EQ(host_.events.size(), 1u);
  EXPECT_EQ(host_.events[0].code, kEventFolderFileNotFound);
  EXPECT_EQ(host_.events[0].storage_name, u"Local Folders");
  EXPECT_EQ(host_.events[0].folder_name, u"Work");
  const auto at = std::find(host_.log.lines.begin(), host_.log.lines.end(), "Folder name: Work");
  ASSERT_NE(at, host_.log.lines.end());
  EXPECT_EQ(Lines(at + 1, at + 5), (Lines{"Folder file not found", "Recreating folder file",
                                          "Folder file recreated: " + work.string(), "Folder loaded"}));
}

TEST_F(StorageOpenTest, TheAnswerToAMissingFolderFileDecides) {
  const std::filesystem::path index = MakeLocal();
  const std::filesystem::path work = FolderFilePath(index, "Inbox/Work");
  const std::filesystem::path aside = host_.root() / "aside.fld";
  std::filesystem::rename(work, aside);

  // Skip: the folder stays unopened, and its record survives a save.
  host_.answers = {kAnswerSkip};
  {
    Storage s(host_);
    ASSERT_EQ(s.Open(index), rc::kOk);
    EXPECT_FALSE(s.complete());
    EXPECT_FALSE(s.FindFolder(u"Inbox/Work")->available());
    EXPECT_FALSE(std::filesystem::exists(work));
    EXPECT_TRUE(Logged("Folder loading error: " + ResultText(rc::kFileNotFound)));
    ASSERT_EQ(host_.events.size(), 2u);
    EXPECT_EQ(host_.events[1].code, kEventFolderLoadingError);
    ASSERT_EQ(s.CreateFolder(s.root(), u"New", nullptr), rc::kOk);
  }
  // Search again, after the file has come back.
  host_.events.clear();
  host_.on_event = [&](const StorageEvent&) { std::filesystem::rename(aside, work); };
  host_.answers = {kAnswerSearchAgain};
  Storage s(host_);
  ASSERT_EQ(s.Open(index), rc::kOk);
  EXPECT_TRUE(s.complete());
  EXPECT_EQ(host_.events.size(), 1u);
  EXPECT_EQ(s.FindFolder(u"Inbox/Work")->file()->counts().messages, 2u);
  EXPECT_FALSE(Logged("Recreating folder file"));
}

TEST_F(StorageOpenTest, FolderFilesAreLookedForInTheHomeDirectoryAndOnMountedMedia) {
  const std::filesystem::path index = MakeLocal();
  const std::filesystem::path work = FolderFilePath(index, "Inbox/Work");
  const std::filesystem::path drafts = FolderFilePath(index, "Drafts");
  const std::filesystem::path card = host_.root() / "card/";
  std::filesystem::create_directories(card);
  host_.media = {card};
  std::filesystem::rename(work, host_.home() / work.filename());
  std::filesystem::rename(drafts, card / drafts.filename());

  Storage s(host_);
  ASSERT_EQ(s.Open(index), rc::kOk);
  EXPECT_TRUE(host_.events.empty());
  EXPECT_EQ(s.FindFolder(u"Inbox/Work")->file_path(), host_.home() / work.filename());
  EXPECT_EQ(s.FindFolder(u"Inbox/Work")->file()->counts().messages, 2u);
  EXPECT_EQ(s.SpecialFolder(kFolderDrafts)->found_dir(), card);
}

// The earlier version has no root view values after the root's path.
std::string AsEarlierVersion(const std::string& current, const StorageIndex& index) {
  const size_t view_at = 4 + 1 + 16 + WStrEncodedSize(index.name) + WStrEncodedSize(index.root_path);
  std::string earlier = current;
  earlier.erase(view_at, 7);
  PutU32(reinterpret_cast<uint8_t*>(earlier.data()), kIndexMagicEarlier);
  return earlier;
}

TEST_F(StorageOpenTest, BothIndexVersionsOpenSideBySideAndSavingWritesTheCurrentOne) {
  const std::filesystem::path local = MakeLocal();
  Storage service(host_);
  ASSERT_EQ(service.Create(u"alice", {}, false), rc::kOk);
  const std::filesystem::path earlier = service.index_path();
  service.Close();
  StorageIndex parsed;
  std::optional<IndexDamage> damage;
  ASSERT_EQ(ParseStorageIndex(ReadFile(earlier), &parsed, &damage), rc::kOk);
  WriteFile(earlier, AsEarlierVersion(ReadFile(earlier), parsed));

  Storage a(host_), b(host_);
  ASSERT_EQ(a.Open(local), rc::kOk);
  ASSERT_EQ(b.Open(earlier), rc::kOk);
  EXPECT_EQ(TreeNames(a), (Lines{"Inbox", "  Work", "Outbox", "Sent", "Deleted", "Drafts"}));
  EXPECT_EQ(TreeNames(b), (Lines{"Inbox", "Outbox", "Sent", "Deleted", "Drafts"}));
  EXPECT_EQ(b.root()->view(), RootViewValues{});
  EXPECT_EQ(ReadFile(earlier).substr(0, 4), "PZML");

  ASSERT_EQ(b.RenameFolder(b.SpecialFolder(kFolderSent), u"Sent Items"), rc::kOk);
  EXPECT_EQ(ReadFile(earlier).substr(0, 4), "QZML");
  Storage again(host_);
  ASSERT_EQ(again.Open(earlier), rc::kOk);
  EXPECT_EQ(again.SpecialFolder(kFolderSent)->name(), u"Sent Items");
  EXPECT_EQ(again.id(), parsed.id);
}

TEST_F(StorageOpenTest, ACrashBetweenTheTwoRenamesIsRestoredFromTheBackup) {
  const std::filesystem::path index = MakeLocal();
  // What the crash leaves: the new index still under its temporary name, the
  // old one under the backup name, no index.
  Storage s(host_);
  ASSERT_EQ(s.Open(index), rc::kOk);
  host_.ops.fail_at = host_.ops.changes + 3;
  host_.ops.crash = true;
  EXPECT_TRUE(s.CreateFolder(s.root(), u"Lost", nullptr).failed());
  s.Close();
  ASSERT_FALSE(std::filesystem::exists(index));
  ASSERT_TRUE(std::filesystem::exists(IndexBackupPath(index)));

  host_.ops = {};
  host_.log.lines.clear();
  Storage after(host_);
  ASSERT_EQ(after.Open(index), rc::kOk);
  EXPECT_EQ(host_.log.lines[1], "Storage index restored from backup: " + IndexBackupPath(index).string());
  EXPECT_EQ(TreeNames(after), (Lines{"Inbox", "  Work", "Outbox", "Sent", "Deleted", "Drafts"}));
  EXPECT_TRUE(after.complete());
}

class DamagedIndexTest : public StorageOpenTest {
 protected:
  void SetUp() override {
    index_ = MakeLocal();
    Storage s(host_);
    ASSERT_EQ(s.Open(index_), rc::kOk);
    ASSERT_EQ(s.CreateFolder(s.root(), u"Archive", nullptr), rc::kOk);  // the backup lacks it
    host_.log.lines.clear();
    host_.events.clear();
    whole_ = ReadFile(index_);
  }

  // Cuts the index inside the record of "Sent" (the third child of the root).
  std::string Truncated() { return whole_.substr(0, whole_.find(std::string("S\0e\0n\0t\0", 8)) + 2); }

  std::filesystem::path index_;
  std::string whole_;
};

TEST_F(DamagedIndexTest, AWholeBackupIsUsedAndTheDamagedFileIsLeftAlone) {
  const std::string damaged = Truncated();
  WriteFile(index_, damaged);
  Storage s(host_);
  ASSERT_EQ(s.Open(index_), rc::kOk);
  EXPECT_TRUE(s.complete());
  EXPECT_EQ(TreeNames(s), (Lines{"Inbox", "  Work", "Outbox", "Sent", "Deleted", "Drafts"}));
  EXPECT_NE(s.index_problem().find(index_.string()), std::string::npos) << s.index_problem();
  EXPECT_EQ(host_.log.lines[1], "Storage index " + s.index_problem() + "; loading its backup " +
                                    IndexBackupPath(index_).string());
  EXPECT_EQ(ReadFile(index_), damaged);

  // The first change keeps the damaged file aside and the backup as it was.
  const std::string backup = ReadFile(IndexBackupPath(index_));
  ASSERT_EQ(s.CreateFolder(s.root(), u"Later", nullptr), rc::kOk);
  EXPECT_EQ(ReadFile(IndexDamagedPath(index_)), damaged);
  EXPECT_EQ(ReadFile(IndexBackupPath(index_)), backup);
}

TEST_F(DamagedIndexTest, WithoutABackupTheFoldersBeforeTheDamageAreLoaded) {
  std::filesystem::remove(IndexBackupPath(index_));
  const std::string damaged = Truncated();
  WriteFile(index_, damaged);
  Storage s(host_);
  ASSERT_EQ(s.Open(index_), rc::kOk);
  EXPECT_FALSE(s.complete());
  EXPECT_EQ(TreeNames(s), (Lines{"Inbox", "  Work", "Outbox"}));
  EXPECT_TRUE(Logged("Folder loading error: " + ResultText(rc::kInvalidData)));
  ASSERT_EQ(host_.events.size(), 1u);
  EXPECT_EQ(host_.events[0].code, kEventFolderLoadingError);
  EXPECT_NE(host_.events[0].detail.find(index_.string()), std::string::npos);
  EXPECT_EQ(ReadFile(index_), damaged);
}

TEST_F(DamagedIndexTest, AnUnreadableHeaderFailsNamingTheFileAndChangesNothing) {
  struct Row {
    const char* name;
    std::function<void()> damage;
    Result result;
  };
  const Row rows[] = {
      {"wrong magic", [&] { WriteFile(index_, "XZML" + whole_.substr(4)); }, rc::kInvalidData},
      {"cut in the name", [&] { WriteFile(index_, whole_.substr(0, 30)); }, rc::kInvalidData},
      {"missing", [&] { std::filesystem::remove(index_); }, FromWin32(2)},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::filesystem::remove(IndexBackupPath(index_));
    WriteFile(index_, whole_);
    row.damage();
    const bool existed = std::filesystem::exists(index_);
    const std::string before = existed ? ReadFile(index_) : "";
    host_.log.lines.clear();
    host_.events.clear();
    Storage s(host_);
    EXPECT_EQ(s.Open(index_), row.result);
    EXPECT_FALSE(s.is_open());
    EXPECT_EQ(host_.log.lines.back(), "Storage loading error: " + ResultText(row.result));
    ASSERT_EQ(host_.events.size(), 1u);
    EXPECT_EQ(host_.events[0].code, kEventStorageLoadingError);
    EXPECT_EQ(host_.events[0].path, index_);
    EXPECT_EQ(s.index_problem().rfind(index_.string(), 0), 0u) << s.index_problem();
    EXPECT_EQ(std::filesystem::exists(index_), existed);
    if (existed) {
      EXPECT_EQ(ReadFile(index_), before);
    }
  }
}

TEST_F(StorageOpenTest, AStopAnswerLeavesTheRestUnopenedButKeepsThemInTheIndex) {
  const std::filesystem::path index = MakeLocal();
  std::filesystem::remove(FolderFilePath(index, "Inbox"));
  host_.answers = {kAnswerSkip, kAnswerStop};
  Storage s(host_);
  ASSERT_EQ(s.Open(index), rc::kOk);
  EXPECT_FALSE(s.complete());
  EXPECT_EQ(std::count(host_.log.lines.begin(), host_.log.lines.end(), "Loading folder"), 1);
  int available = 0;
  s.ForEachFolder([&](MailFolder& f) { available += f.available(); });
  EXPECT_EQ(available, 0);
  ASSERT_EQ(s.SaveIndex(), rc::kOk);

  Storage again(host_);
  host_.answers = {kAnswerSkip};
  ASSERT_EQ(again.Open(index), rc::kOk);
  EXPECT_EQ(TreeNames(again), (Lines{"Inbox", "  Work", "Outbox", "Sent", "Deleted", "Drafts"}));
  EXPECT_EQ(again.FindFolder(u"Inbox/Work")->file()->counts().messages, 2u);
}

}  // namespace
}  // namespace trv
