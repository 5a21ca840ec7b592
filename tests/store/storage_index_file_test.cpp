#include "store/storage_index_file.h"

#include <gtest/gtest.h>

#include "tests/store/storage_test_util.h"

namespace trv {
namespace {

using test::FaultyFileOps;
using test::ReadFile;
using test::WriteFile;

// Bytes from "51 5A ..." hexadecimal pairs.
std::string Hex(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != ' ') out.push_back(static_cast<char>(std::stoi(std::string(text.substr(i++, 2)), nullptr, 16)));
  }
  return out;
}

// Magic "QZML", local, identifier 00..0F, name "Lo", root path "R".
const std::string kHead = Hex("515A4D4C 01 000102030405060708090A0B0C0D0E0F 02000000 4C006F00 01000000 5200");
const std::string kView = Hex("01 02 04030201 03");
// Root children: Inbox "I" (file "f") holding "S" (file "g").
const std::string kTree = Hex("01000000 01000000 01000000 4900 01000000 6600 01000000"
                              "00000000 01000000 5300 01000000 6700 00000000");

StorageIndex SampleIndex() {
  StorageIndex index;
  index.local = true;
  for (int i = 0; i < 16; ++i) index.id.bytes[i] = static_cast<uint8_t>(i);
  index.name = u"Lo";
  index.root_path = u"R";
  index.view = {1, 2, 0x01020304, 3};
  index.children = {{1, u"I", u"f", {{0, u"S", u"g", {}}}}};
  return index;
}

size_t CountFolders(const std::vector<FolderRecord>& records) {
  size_t n = records.size();
  for (const FolderRecord& r : records) n += CountFolders(r.children);
  return n;
}

TEST(StorageIndexFormat, BothVersionsAreReadAndTheCurrentOneIsWritten) {
  EXPECT_EQ(EncodeStorageIndex(SampleIndex()), kHead + kView + kTree);
  StorageIndex read;
  std::optional<IndexDamage> damage;
  ASSERT_EQ(ParseStorageIndex(kHead + kView + kTree, &read, &damage), rc::kOk);
  EXPECT_FALSE(damage);
  EXPECT_EQ(read, SampleIndex());

  // The earlier version ("PZML") has no view values.
  ASSERT_EQ(ParseStorageIndex("P" + kHead.substr(1) + kTree, &read, &damage), rc::kOk);
  EXPECT_FALSE(damage);
  EXPECT_EQ(read.magic, kIndexMagicEarlier);
  EXPECT_EQ(read.view, RootViewValues{});
  EXPECT_EQ(read.children, SampleIndex().children);
  EXPECT_EQ(EncodeStorageIndex(read), kHead + Hex("00 00 00000000 00") + kTree);
}

// Every prefix of a whole file: a cut header fails, a cut tree gives the
// records read so far (more the longer the prefix), and only the whole file
// reads without damage.
TEST(StorageIndexFormat, EveryTruncationIsReportedAndKeepsTheWholeRecordsBeforeIt) {
  const std::string whole = kHead + kView + kTree;
  size_t last_count = 0;
  for (size_t n = 0; n < whole.size(); ++n) {
    SCOPED_TRACE("cut at " + std::to_string(n));
    StorageIndex read;
    std::optional<IndexDamage> damage;
    const Result r = ParseStorageIndex(std::string_view(whole).substr(0, n), &read, &damage);
    ASSERT_TRUE(damage);
    EXPECT_LE(damage->offset, n);
    if (n < kHead.size() + kView.size()) {
      EXPECT_EQ(r, rc::kInvalidData);
      EXPECT_TRUE(read.name.empty());
      continue;
    }
    ASSERT_EQ(r, rc::kOk);
    EXPECT_EQ(read.name, u"Lo");
    const size_t count = CountFolders(read.children);
    EXPECT_GE(count, last_count);
    EXPECT_LE(count, 2u);
    last_count = count;
  }
}

TEST(StorageIndexFormat, DamagedInputs) {
  struct Row { const char* name; std::string bytes; Result result; const char* damage; size_t folders; };  // damage null: none
  const std::string head = kHead + kView;
  // Each record (kind 0, two empty strings) has one child, 300 deep.
  std::string deep = head;
  for (int i = 0; i < 300; ++i) deep += Hex("01000000 00000000 00000000 00000000");
  const Row rows[] = {
      {"unknown magic", "R" + kHead.substr(1), rc::kInvalidData, "unknown magic", 0},
      {"name count beyond the file", kHead.substr(0, 21) + Hex("FFFFFF7F 4100"), rc::kInvalidData,
       "storage name cut short", 0},
      {"negative string count is empty", kHead.substr(0, 21) + Hex("FBFFFFFF 00000000") + kView + Hex("00000000"),
       rc::kOk, nullptr, 0},
      {"child count beyond the file", head + Hex("40420F00"), rc::kOk, "child count larger than the file", 0},
      {"record cut in its name", head + Hex("01000000 01000000 05000000 4900490049004900"), rc::kOk,
       "folder record cut short", 0},
      {"nested too deeply", deep, rc::kOk, "folders nested too deeply", kMaxFolderDepth},
      {"bytes after the tree are ignored", head + kTree + "junk", rc::kOk, nullptr, 2},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    StorageIndex read;
    std::optional<IndexDamage> damage;
    EXPECT_EQ(ParseStorageIndex(row.bytes, &read, &damage), row.result);
    EXPECT_EQ(damage ? damage->what : "", row.damage ? row.damage : "");
    EXPECT_EQ(CountFolders(read.children), row.folders);
  }
}

// The replace protocol on disk.
class IndexSaveTest : public ::testing::Test {
 protected:
  // The files before a save, and the file operations failing at `step`.
  void Reset(int step, bool crash) {
    std::filesystem::remove(IndexTempPath(index_));
    WriteFile(index_, "old");
    WriteFile(IndexBackupPath(index_), "older");
    ops_ = FaultyFileOps();
    ops_.fail_at = step;
    ops_.crash = crash;
    log_.lines.clear();
  }
  Result Save() { return WriteStorageIndexFile(index_, "new", false, ops_, log_); }

  test::TempDir dir_;
  std::filesystem::path index_ = dir_ / "{00000000-0000-0000-0000-000000000000}.idx";
  FaultyFileOps ops_;
  test::RecordingLog log_;
};

// A failed step says why and leaves an index; a crash after any step
// leaves what a later restore turns into the old index or the new one.
TEST_F(IndexSaveTest, AFailureOrCrashAtAnyStepLeavesTheOldOrTheNewIndex) {
  for (int step = 0; step < 5; ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    if (step < 4) {
      Reset(step, false);
      EXPECT_EQ(Save(), step == 0 ? rc::kWriteFault : FaultyFileOps::kFault);
      const std::string idx = ReadFile(index_);
      EXPECT_TRUE(idx == "old" || idx == "new") << idx;
      EXPECT_FALSE(std::filesystem::exists(IndexTempPath(index_)));
      ASSERT_FALSE(log_.lines.empty());
      EXPECT_NE(log_.lines[0].find(step == 0 ? ".$$$" : ".idx"), std::string::npos) << log_.lines[0];
    }
    Reset(step, true);
    Save().Ignore();  // the crash is the point; the files are checked below
    // Between the two renames only the backup holds the index.
    if (step == 3) {
      EXPECT_FALSE(std::filesystem::exists(index_));
    }
    log_.lines.clear();
    FaultyFileOps after;
    ASSERT_EQ(RestoreIndexFromBackup(index_, after, log_), rc::kOk);
    EXPECT_EQ(ReadFile(index_), step < 4 ? "old" : "new");
    // Nothing failed at step 4: the old index is the backup, no temporary file is left.
    if (step == 4) {
      EXPECT_EQ(ReadFile(IndexBackupPath(index_)), "old");
      EXPECT_FALSE(std::filesystem::exists(IndexTempPath(index_)));
    }
    const std::vector<std::string> restored{"Storage index restored from backup: " + IndexBackupPath(index_).string()};
    EXPECT_EQ(log_.lines, step == 3 ? restored : std::vector<std::string>{});
  }
}

}  // namespace
}  // namespace trv
