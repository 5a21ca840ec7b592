#include "store/storage_index_file.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "tests/core/recording_log.h"
#include "tests/store/storage_test_util.h"
#include "tests/support/temp_dir.h"

namespace trv {
namespace {

using test::FaultyFileOps;
using test::ReadFile;
using test::RecordingLog;
using test::TempDir;
using test::WriteFile;

// Bytes from "51 5A ..." hexadecimal pairs.
std::string Hex(std::string_view text) {
  std::string out;
  unsigned byte = 0;
  int digits = 0;
  for (char c : text) {
    if (c == ' ' || c == '\n') continue;
    byte = byte << 4 | static_cast<unsigned>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10);
    if (++digits == 2) {
      out.push_back(static_cast<char>(byte));
      byte = 0;
      digits = 0;
    }
  }
  return out;
}

// Header fields shared by both versions of the sample.
constexpr std::string_view kSampleHead =
    "01 000102030405060708090A0B0C0D0E0F"  // local, identifier
    "02000000 4C006F00"                   // "Lo"
    "01000000 5200";                      // "R"
// Root children: Inbox "I" (file "f") holding "S" (file "g").
constexpr std::string_view kSampleTree =
    "01000000"
    "01000000 01000000 4900 01000000 6600 01000000"
    "00000000 01000000 5300 01000000 6700 00000000";

std::string CurrentSample() {
  return Hex("515A4D4C") + Hex(kSampleHead) + Hex("01 02 04030201 03") + Hex(kSampleTree);
}
std::string EarlierSample() { return Hex("505A4D4C") + Hex(kSampleHead) + Hex(kSampleTree); }

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

TEST(StorageIndexFormat, CurrentVersionIsWrittenAndReadByteForByte) {
  EXPECT_EQ(EncodeStorageIndex(SampleIndex()), CurrentSample());
  StorageIndex read;
  std::optional<IndexDamage> damage;
  ASSERT_EQ(ParseStorageIndex(CurrentSample(), &read, &damage), rc::kOk);
  EXPECT_FALSE(damage);
  EXPECT_EQ(read, SampleIndex());
}

TEST(StorageIndexFormat, EarlierVersionReadsWithoutViewValuesAndIsWrittenAsCurrent) {
  StorageIndex read;
  std::optional<IndexDamage> damage;
  ASSERT_EQ(ParseStorageIndex(EarlierSample(), &read, &damage), rc::kOk);
  EXPECT_FALSE(damage);
  EXPECT_EQ(read.magic, kIndexMagicEarlier);
  EXPECT_EQ(read.view, RootViewValues{});
  EXPECT_EQ(read.children, SampleIndex().children);
  EXPECT_EQ(EncodeStorageIndex(read),
            Hex("515A4D4C") + Hex(kSampleHead) + Hex("00 00 00000000 00") + Hex(kSampleTree));
}

// Every prefix of a whole file: a cut header fails, a cut tree gives the
// records read so far (more the longer the prefix), and only the whole file
// reads without damage.
TEST(StorageIndexFormat, EveryTruncationIsReportedAndKeepsTheWholeRecordsBeforeIt) {
  const std::string whole = CurrentSample();
  const size_t header = 4 + 1 + 16 + 8 + 6 + 7;
  size_t last_count = 0;
  for (size_t n = 0; n < whole.size(); ++n) {
    SCOPED_TRACE("cut at " + std::to_string(n));
    StorageIndex read;
    std::optional<IndexDamage> damage;
    const Result r = ParseStorageIndex(std::string_view(whole).substr(0, n), &read, &damage);
    ASSERT_TRUE(damage);
    EXPECT_LE(damage->offset, n);
    if (n < header) {
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
  struct Row {
    const char* name;
    std::string bytes;
    Result result;
    const char* damage;  // null: none
    size_t folders;
  };
  const std::string head = Hex("515A4D4C") + Hex(kSampleHead) + Hex("01 02 04030201 03");
  // Each record (kind 0, two empty strings) has one child, 300 deep.
  std::string deep = head;
  for (int i = 0; i < 300; ++i) deep += Hex("01000000 00000000 00000000 00000000");
  const Row rows[] = {
      {"unknown magic", Hex("515A4D4D") + Hex(kSampleHead), rc::kInvalidData, "unknown magic", 0},
      {"empty file", "", rc::kInvalidData, "file shorter than its magic", 0},
      {"name count beyond the file", Hex("515A4D4C 01") + std::string(16, '\0') + Hex("FFFFFF7F 4100"),
       rc::kInvalidData, "storage name cut short", 0},
      {"view values cut", Hex("515A4D4C") + Hex(kSampleHead) + Hex("01 02"), rc::kInvalidData,
       "root view values cut short", 0},
      {"negative string count is empty", Hex("515A4D4C 01") + std::string(16, '\0') +
                                             Hex("FBFFFFFF 00000000 00 00 00000000 00 00000000"),
       rc::kOk, nullptr, 0},
      {"child count beyond the file", head + Hex("40420F00"), rc::kOk, "child count larger than the file", 0},
      {"record cut in its name", head + Hex("01000000 01000000 05000000 4900490049004900"), rc::kOk,
       "folder record cut short", 0},
      {"nested too deeply", deep, rc::kOk, "folders nested too deeply", kMaxFolderDepth},
      {"bytes after the tree are ignored", CurrentSample() + "junk", rc::kOk, nullptr, 2},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    StorageIndex read;
    std::optional<IndexDamage> damage;
    EXPECT_EQ(ParseStorageIndex(row.bytes, &read, &damage), row.result);
    EXPECT_EQ(damage.has_value(), row.damage != nullptr);
    if (damage && row.damage) {
      EXPECT_EQ(damage->what, row.damage);
    }
    EXPECT_EQ(CountFolders(read.children), row.folders);
  }
}

// The replace protocol on disk.
class IndexSaveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile(index_, "old");
    WriteFile(IndexBackupPath(index_), "older");
  }
  Result Save(bool keep_damaged = false) {
    return WriteStorageIndexFile(index_, "new", keep_damaged, ops_, log_);
  }
  bool Exists(const std::filesystem::path& p) { return std::filesystem::exists(p); }

  TempDir dir_;
  std::filesystem::path index_ = dir_ / "{00000000-0000-0000-0000-000000000000}.idx";
  FaultyFileOps ops_;
  RecordingLog log_;
};

TEST_F(IndexSaveTest, ReplacesThroughTheTemporaryFileAndKeepsTheOldIndexAsBackup) {
  ASSERT_EQ(Save(), rc::kOk);
  const std::string idx = "{00000000-0000-0000-0000-000000000000}";
  EXPECT_EQ(ops_.log, (std::vector<std::string>{"write " + idx + ".$$$", "remove " + idx + ".bak",
                                                "rename " + idx + ".idx -> " + idx + ".bak",
                                                "rename " + idx + ".$$$ -> " + idx + ".idx"}));
  EXPECT_EQ(ReadFile(index_), "new");
  EXPECT_EQ(ReadFile(IndexBackupPath(index_)), "old");
  EXPECT_FALSE(Exists(IndexTempPath(index_)));
}

TEST_F(IndexSaveTest, AFailedStepLeavesAnIndexAndSaysWhy) {
  for (int step = 0; step < 4; ++step) {
    SCOPED_TRACE("failing step " + std::to_string(step));
    SetUp();
    ops_ = FaultyFileOps();
    ops_.fail_at = step;
    log_.lines.clear();
    const Result r = Save();
    EXPECT_TRUE(r.failed());
    if (step == 0) {
      EXPECT_EQ(r, rc::kWriteFault);
    }
    const std::string idx = ReadFile(index_);
    EXPECT_TRUE(idx == "old" || idx == "new") << idx;
    EXPECT_FALSE(Exists(IndexTempPath(index_)));
    ASSERT_FALSE(log_.lines.empty());
    EXPECT_NE(log_.lines[0].find(step == 0 ? ".$$$" : ".idx"), std::string::npos) << log_.lines[0];
  }
}

// A crash after any step: what a later restore makes of the files is the
// old index or the new one, never nothing.
TEST_F(IndexSaveTest, ACrashAtAnyStepLeavesTheOldOrTheNewIndexAfterRestore) {
  for (int step = 0; step < 5; ++step) {
    SCOPED_TRACE("crash at step " + std::to_string(step));
    std::filesystem::remove(IndexTempPath(index_));
    SetUp();
    ops_ = FaultyFileOps();
    ops_.fail_at = step;
    ops_.crash = true;
    Save().Ignore();
    if (step == 3) {
      // Between the two renames: only the backup holds the index.
      EXPECT_FALSE(Exists(index_));
      EXPECT_EQ(ReadFile(IndexBackupPath(index_)), "old");
    }
    FaultyFileOps after;
    ASSERT_EQ(RestoreIndexFromBackup(index_, after, log_), rc::kOk);
    const std::string idx = ReadFile(index_);
    EXPECT_EQ(idx, step < 4 ? "old" : "new");
  }
  EXPECT_EQ(log_.lines.back().rfind("Storage index restored from backup: ", 0), 0u) << log_.lines.back();
}

TEST_F(IndexSaveTest, ADamagedIndexIsKeptAsideAndTheBackupStays) {
  ASSERT_EQ(Save(true), rc::kOk);
  EXPECT_EQ(ReadFile(index_), "new");
  EXPECT_EQ(ReadFile(IndexDamagedPath(index_)), "old");
  EXPECT_EQ(ReadFile(IndexBackupPath(index_)), "older");
}

TEST_F(IndexSaveTest, RestoreDoesNothingWhileTheIndexExists) {
  ASSERT_EQ(RestoreIndexFromBackup(index_, ops_, log_), rc::kOk);
  EXPECT_EQ(ReadFile(index_), "old");
  EXPECT_TRUE(ops_.log.empty());
}

}  // namespace
}  // namespace trv
