// Creating and opening storages: the special folders, missing folder files,
// crashes and damaged indexes.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
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

// A closed "Local Folders" in `host` with a user folder "Work" (two
// messages) under "Inbox".
struct Made {
  explicit Made(TestHost& host) {
    Storage s(host);
    EXPECT_EQ(s.Create(u"Local Folders", {}, true), rc::kOk);
    MailFolder* work = nullptr;
    EXPECT_EQ(s.CreateFolder(s.SpecialFolder(kFolderInbox), u"Work", &work), rc::kOk);
    for (const char* subject : {"one", "two"}) {
      uint32_t key = 0;
      EXPECT_EQ(work->file()->Append(MessageRecord{}, std::string("Subject: ") + subject + "\r\n\r\nx\r\n", &key), rc::kOk);
    }
    index = s.index_path();
    work_file = work->file_path();
    inbox = s.SpecialFolder(kFolderInbox)->file_path();
    drafts = s.SpecialFolder(kFolderDrafts)->file_path();
    host.log.lines.clear();
  }
  std::filesystem::path index, work_file, inbox, drafts;
};

bool Logged(const TestHost& host, const std::string& prefix) {
  return std::any_of(host.log.lines.begin(), host.log.lines.end(),
                     [&](const std::string& line) { return line.rfind(prefix, 0) == 0; });
}

TEST(StorageOpenTest, ANewStorageHoldsTheFiveSpecialFoldersAndOpensAgainAsItWasMade) {
  TestHost host;
  Storage made(host);
  ASSERT_EQ(made.Create(u"alice", {}, false), rc::kOk);
  EXPECT_EQ(made.index_path(), host.data_dir() / (made.id().ToRegistryString() + ".idx"));
  uint32_t kind = kFolderInbox;
  made.ForEachFolder([&](MailFolder& f) {
    EXPECT_EQ(f.kind(), kind++);
    EXPECT_EQ(f.file_path(), host.data_dir() / WideToPath(f.file_name()));
    EXPECT_TRUE(std::filesystem::exists(f.file_path()));
  });
  Storage opened(host);
  ASSERT_EQ(opened.Open(made.index_path()), rc::kOk);
  EXPECT_EQ(TreeNames(opened), (Lines{"Inbox", "Outbox", "Sent", "Deleted", "Drafts"}));
  EXPECT_EQ(opened.id(), made.id());
  EXPECT_EQ(opened.name(), u"alice");
  EXPECT_FALSE(opened.local());
  Storage elsewhere(host);  // the local storage's all-zero name: the engine tests
  ASSERT_EQ(elsewhere.Create(u"bob", host.root() / "elsewhere", false), rc::kOk);
  EXPECT_EQ(elsewhere.index_path(), host.root() / "elsewhere" / (elsewhere.id().ToRegistryString() + ".idx"));
}

// Create never overwrites; when the index cannot be written, no folder file
// and no index stays behind.
TEST(StorageOpenTest, CreateNeverOverwritesAndCleansUpAfterItself) {
  TestHost host;
  const Made m(host);
  const std::string before = ReadFile(m.index);
  Storage again(host);
  EXPECT_EQ(again.Create(u"Local Folders", {}, true), rc::kFileExists);
  EXPECT_EQ(ReadFile(m.index), before);
  WriteFile(host.root() / "plain", "x");
  EXPECT_EQ(again.Create(u"x", host.root() / "plain" / "sub", false), rc::kFileNotFound);
  const auto files = [&] { return std::distance(std::filesystem::directory_iterator(host.data_dir()), {}); };
  const auto files_before = files();
  host.ops.fail_at = host.ops.changes;
  EXPECT_EQ(again.Create(u"y", {}, false), rc::kWriteFault);
  EXPECT_FALSE(again.is_open());
  EXPECT_EQ(files(), files_before);
}

// A folder file that is not where the index says: the answer to the event
// decides. Whatever happens, the index keeps every folder's record.
TEST(StorageOpenTest, MissingFolderFilesAreLookedForOrAskedAbout) {
  struct Row {
    const char* name;
    std::function<void(TestHost&, const Made&)> setup;
    std::vector<int> answers;
    bool complete;
    int work_messages;  // -1: "Work" unavailable
    std::vector<int> events;
    std::string logged;  // the start of a line the log must have
  };
  const auto aside = [](TestHost& host, const Made& m) { std::filesystem::rename(m.work_file, host.root() / "aside"); };
  const Row rows[] = {
      {"skipped", aside, {kAnswerSkip}, false, -1, {kEventFolderFileNotFound, kEventFolderLoadingError},
       "Folder loading error: " + ResultText(rc::kFileNotFound)},
      {"looked for again after it came back",
       [&](TestHost& host, const Made& m) {
         aside(host, m);
         host.on_event = [&host, m](const StorageEvent&) { std::filesystem::rename(host.root() / "aside", m.work_file); };
       },
       {kAnswerSearchAgain}, true, 2, {kEventFolderFileNotFound}, "Folder loaded"},
      {"recreated empty by default", aside, {}, true, 0, {kEventFolderFileNotFound}, "Folder file recreated: "},
      {"a stop leaves the rest unopened", [](TestHost&, const Made& m) { std::filesystem::remove(m.inbox); },
       {kAnswerSkip, kAnswerStop}, false, -1, {kEventFolderFileNotFound, kEventFolderLoadingError}, "Loading folder"},
      {"found in the home directory and on mounted media",
       [](TestHost& host, const Made& m) {
         host.media = {host.root() / "card/"};
         std::filesystem::create_directories(host.media[0]);
         std::filesystem::rename(m.work_file, host.home() / m.work_file.filename());
         std::filesystem::rename(m.drafts, host.media[0] / m.drafts.filename());
       },
       {}, true, 2, {}, "Folder loaded"},
      // A crash between the two renames of a save leaves the old index only
      // under the backup name.
      {"index only under its backup name",
       [](TestHost&, const Made& m) { std::filesystem::rename(m.index, IndexBackupPath(m.index)); }, {}, true, 2, {},
       "Storage index restored from backup: "},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    TestHost host;
    const Made m(host);
    row.setup(host, m);
    host.answers = row.answers;
    Storage s(host);
    ASSERT_EQ(s.Open(m.index), rc::kOk);
    EXPECT_EQ(s.complete(), row.complete);
    MailFolder* work = s.FindFolder(u"Inbox/Work");
    EXPECT_EQ(work->available() ? static_cast<int>(work->file()->counts().messages) : -1, row.work_messages);
    std::vector<int> codes;
    for (const StorageEvent& e : host.events) codes.push_back(e.code);
    EXPECT_EQ(codes, row.events);
    EXPECT_TRUE(Logged(host, row.logged)) << ::testing::PrintToString(host.log.lines);
    ASSERT_EQ(s.SaveIndex(), rc::kOk);
    host.on_event = nullptr;
    host.answers.assign(6, kAnswerSkip);
    Storage again(host);
    ASSERT_EQ(again.Open(m.index), rc::kOk);
    EXPECT_EQ(TreeNames(again), kMadeTree);
  }
}

class DamagedIndexTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Storage s(host_);
    ASSERT_EQ(s.Open(made_.index), rc::kOk);
    ASSERT_EQ(s.CreateFolder(s.root(), u"Archive", nullptr), rc::kOk);  // the backup lacks it
    host_.log.lines.clear();
    whole_ = ReadFile(index());
    // Cut inside the record of "Sent" (the third child of the root).
    cut_ = whole_.substr(0, whole_.find(std::string("S\0e\0n\0t\0", 8)) + 2);
  }
  const std::filesystem::path& index() const { return made_.index; }
  TestHost host_;
  Made made_{host_};
  std::string whole_, cut_;
};

// A whole backup is loaded in place of a damaged index; without one, the
// folders before the damage are. The damaged file is left alone either way.
TEST_F(DamagedIndexTest, ABackupReplacesTheDamagedPartOrTheRecordsBeforeItAreLoaded) {
  WriteFile(index(), cut_);
  {
    Storage s(host_);
    ASSERT_EQ(s.Open(index()), rc::kOk);
    EXPECT_TRUE(s.complete());
    EXPECT_EQ(TreeNames(s), kMadeTree);
    EXPECT_EQ(host_.log.lines[1],
              "Storage index " + s.index_problem() + "; loading its backup " + IndexBackupPath(index()).string());
    // The first change keeps the damaged file aside and the backup as it was.
    const std::string backup = ReadFile(IndexBackupPath(index()));
    ASSERT_EQ(s.CreateFolder(s.root(), u"Later", nullptr), rc::kOk);
    EXPECT_EQ(ReadFile(IndexDamagedPath(index())), cut_);
    EXPECT_EQ(ReadFile(IndexBackupPath(index())), backup);
  }
  std::filesystem::remove(IndexBackupPath(index()));
  WriteFile(index(), cut_);
  host_.events.clear();
  Storage s(host_);
  ASSERT_EQ(s.Open(index()), rc::kOk);
  EXPECT_FALSE(s.complete());
  EXPECT_EQ(TreeNames(s), (Lines{"Inbox", "  Work", "Outbox"}));
  ASSERT_EQ(host_.events.size(), 1u);
  EXPECT_EQ(host_.events[0].code, kEventFolderLoadingError);
  EXPECT_NE(host_.events[0].detail.find(index().string()), std::string::npos);
  EXPECT_EQ(ReadFile(index()), cut_);
}

TEST_F(DamagedIndexTest, AnUnreadableHeaderFailsNamingTheFileAndChangesNothing) {
  const std::pair<std::optional<std::string>, Result> rows[] = {
      {"XZML" + whole_.substr(4), rc::kInvalidData},  // wrong magic
      {whole_.substr(0, 30), rc::kInvalidData},       // cut in the name
      {std::nullopt, FromWin32(2)},                    // no index file
  };
  std::filesystem::remove(IndexBackupPath(index()));
  for (const auto& [bytes, result] : rows) {
    SCOPED_TRACE(bytes ? bytes->size() : 0);
    std::filesystem::remove(index());
    if (bytes) WriteFile(index(), *bytes);
    host_.events.clear();
    Storage s(host_);
    EXPECT_EQ(s.Open(index()), result);
    EXPECT_FALSE(s.is_open());
    EXPECT_EQ(host_.log.lines.back(), "Storage loading error: " + ResultText(result));
    ASSERT_EQ(host_.events.size(), 1u);
    EXPECT_EQ(host_.events[0].code, kEventStorageLoadingError);
    EXPECT_EQ(s.index_problem().rfind(index().string(), 0), 0u) << s.index_problem();
    EXPECT_EQ(std::filesystem::exists(index()), bytes.has_value());
    EXPECT_EQ(ReadFile(index()), bytes.value_or(""));
  }
}

}  // namespace
}  // namespace trv
