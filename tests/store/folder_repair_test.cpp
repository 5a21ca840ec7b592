#include <gtest/gtest.h>

#include <functional>

#include "base/byte_io.h"
#include "store/folder_file.h"
#include "tests/store/folder_test_util.h"
#include "tests/support/temp_dir.h"

namespace trv {
namespace {

using test::RawFolder;
using test::Record;
using test::RecordingLog;
using test::Subjects;
using test::TempDir;
using test::Text;
using Lines = std::vector<std::string>;

const Lines kCleanLoad = {"Loading messages count", "Loading messages index", "Loading messages"};
const Lines kRepairedLoad = {"Loading messages count",
                             "Loading messages index",
                             "Folder loading error: The data is invalid. Trying to repair",
                             "Repaired OK",
                             "Loading messages index",
                             "Loading messages"};

// A closed folder file with five unread messages "m0".."m4", keys 1..5.
class FolderRepairTest : public ::testing::Test {
 protected:
  void SetUp() override {
    FolderFile f(log_);
    ASSERT_EQ(f.Create(path_), rc::kOk);
    for (int i = 0; i < 5; ++i) {
      uint32_t key;
      ASSERT_EQ(f.Append(Record("m" + std::to_string(i)), Text("m" + std::to_string(i)), &key), rc::kOk);
    }
    f.Close();
    index_ = RawFolder(path_).Read(u"/Index");
    log_.lines.clear();
  }

  // Offset of record `n` (from 0) in the original index.
  uint32_t RecordOffset(int n) const {
    uint32_t at = 4;
    for (int i = 0; i < n; ++i) at += GetU32(reinterpret_cast<const uint8_t*>(index_.data()) + at);
    return at;
  }

  Result OpenAndLoad(FolderFile& f) {
    Result r = f.Open(path_);
    return r.failed() ? r : f.LoadIndex();
  }

  // A rebuild hook that takes the subject from the text.
  FolderFileOptions WithRebuilder() {
    FolderFileOptions o;
    o.rebuilder = [this](std::string_view head, MessageRecord* r) {
      ++rebuilt_;
      const size_t end = head.find("\r\n");
      r->subject = Utf8ToWide(head.substr(9, end - 9));  // after "Subject: "
      r->flags &= ~msgflag::kNeedsHeaderRefresh;
    };
    return o;
  }

  // Every message of the folder reads back as the text it was given.
  void ExpectAllReadable(FolderFile& f) {
    for (const MessageRecord& r : f.Messages()) {
      std::string text;
      ASSERT_EQ(f.ReadMessage(r.key, &text), rc::kOk) << r.key;
      EXPECT_EQ(text, Text("m" + std::to_string(r.key - 1))) << r.key;
    }
  }

  TempDir dir_;
  std::filesystem::path path_ = dir_ / "f.fld";
  RecordingLog log_;
  std::string index_;
  int rebuilt_ = 0;
};

TEST_F(FolderRepairTest, DamagedIndexIsRepairedWithoutLosingMessages) {
  auto put_u32 = [](std::string s, uint32_t at, uint32_t v) {
    PutU32(reinterpret_cast<uint8_t*>(s.data()) + at, v);
    return s;
  };
  // `lost_key`: a message whose record had to be rebuilt.
  struct Row { const char* name; std::string index; bool hook; Lines subjects; uint32_t lost_key; int rebuilt; };
  std::string garbage = put_u32(index_, RecordOffset(2), 0x7FFFFFF0);  // a length beyond the stream
  for (uint32_t i = RecordOffset(2) + 80; i < RecordOffset(2) + 100; ++i) garbage[i] = '\xEE';
  const Row rows[] = {
      // m2's record was lost; its stream got a new record at the end.
      {"garbage in a record", garbage, true, {"m0", "m1", "m3", "m4", "m2"}, 3, 1},
      // A zero length ends the index; the records behind it are found again.
      {"zero length", put_u32(index_, RecordOffset(1), 0), false, {"m0", "m2", "m3", "m4", ""}, 2, 0},
      // Nothing in the index looks wrong, but "/Counts" says 5 and the sweep
      // would otherwise delete three messages.
      {"cut at a record boundary", index_.substr(0, RecordOffset(2)), true, {"m0", "m1", "m2", "m3", "m4"}, 5, 3},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    RawFolder(path_).Write(u"/Index", row.index);
    log_.lines.clear();
    rebuilt_ = 0;
    FolderFile f(log_, row.hook ? WithRebuilder() : FolderFileOptions{});
    ASSERT_EQ(OpenAndLoad(f), rc::kOk);
    EXPECT_EQ(log_.lines, kRepairedLoad);
    EXPECT_EQ(Subjects(f), row.subjects);
    EXPECT_EQ(rebuilt_, row.rebuilt);
    const MessageRecord lost = *f.FindMessage(row.lost_key);
    EXPECT_EQ(lost.size, Text("m0").size());
    EXPECT_GT(lost.received_date, 40000.0);
    EXPECT_EQ(lost.flags, row.hook ? 0u : msgflag::kNeedsHeaderRefresh);  // the hook clears it
    EXPECT_EQ(f.counts(), (FolderCounts{5, 5}));
    ExpectAllReadable(f);

    // The repaired file loads cleanly.
    f.Close();
    log_.lines.clear();
    ASSERT_EQ(OpenAndLoad(f), rc::kOk);
    EXPECT_EQ(log_.lines, kCleanLoad);
    EXPECT_EQ(f.MessageCount(), 5u);
  }
}

// A missing index is rebuilt from the message streams; one shorter than its
// header, with no messages, gets a 0 header without a repair.
TEST_F(FolderRepairTest, MissingOrHeaderlessIndex) {
  ASSERT_EQ(RawFolder(path_).container().DeleteStream(u"/Index"), rc::kOk);
  FolderFile f(log_);
  ASSERT_EQ(OpenAndLoad(f), rc::kOk);
  EXPECT_EQ(log_.lines[2], "Folder loading error: The system cannot find the file specified. Trying to repair");
  EXPECT_EQ(f.MessageCount(), 5u);
  ExpectAllReadable(f);
  const auto empty = dir_ / "e.fld";
  ASSERT_EQ(f.Create(empty), rc::kOk);
  f.Close();
  RawFolder(empty).Write(u"/Index", "\x07\x07");
  RawFolder(empty).Write(u"/Counts", "");
  log_.lines.clear();
  ASSERT_EQ(f.Open(empty), rc::kOk);
  EXPECT_EQ(log_.lines, kCleanLoad);
  f.Close();
  EXPECT_EQ(RawFolder(empty).Read(u"/Index"), std::string(4, '\0'));
}

TEST_F(FolderRepairTest, AFileThatIsNoContainerIsReportedAndKept) {
  const std::string mbox = "From ann@example.org Mon Jan  1 00:00:00 2024\nSubject: hi\n\nbody\n";
  test::WriteFile(path_, mbox);
  FolderFile f(log_);
  EXPECT_EQ(f.Open(path_), rc::kNotContainer);
  EXPECT_EQ(log_.lines, (Lines{"Folder loading error: The file is not a container file. Trying to repair",
                               "Repairing error: The file is not a container file."}));
  EXPECT_EQ(test::ReadFile(path_), mbox);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.path()), {}), 1);
}

TEST_F(FolderRepairTest, DamagedContainerIsRepairedAndReadAgain) {
  // Many messages, so the tables span pages; then the file loses its tail.
  FolderFile f(log_, FolderFileOptions{.sync_commits = false});
  ASSERT_EQ(f.Open(path_), rc::kOk);
  std::vector<std::string> texts;
  for (int i = 5; i < 400; ++i) texts.push_back(Text("m" + std::to_string(i), 3000));
  std::vector<NewMessage> batch;
  for (int i = 5; i < 400; ++i) batch.push_back({Record("m" + std::to_string(i)), texts[i - 5]});
  ASSERT_EQ(f.AppendMany(batch, nullptr), rc::kOk);
  f.Close();
  std::filesystem::resize_file(path_, std::filesystem::file_size(path_) * 3 / 4);
  log_.lines.clear();

  ASSERT_EQ(OpenAndLoad(f), rc::kOk);
  ASSERT_GE(log_.lines.size(), 2u);
  EXPECT_EQ(log_.lines[0].rfind("Folder loading error: The container file is damaged.", 0), 0u) << log_.lines[0];
  EXPECT_EQ(log_.lines[1], "Repaired OK");
  EXPECT_TRUE(std::filesystem::exists(dir_ / "f.fld.damaged"));
  // What survived is the start of what was written; most of it survived whole.
  int whole = 0;
  for (const MessageRecord& r : f.Messages()) {
    std::string text;
    if (f.ReadMessage(r.key, &text).failed()) continue;
    const std::string want = Text("m" + std::to_string(r.key - 1), r.key <= 5 ? 200 : 3000);
    EXPECT_TRUE(want.compare(0, text.size(), text) == 0) << "key " << r.key << " size " << text.size();
    whole += text == want;
  }
  EXPECT_GT(whole, 200);
  EXPECT_EQ(f.counts().messages, f.MessageCount());
}

TEST_F(FolderRepairTest, CheckOnRequestLeavesASoundFileAlone) {
  FolderFile f(log_, WithRebuilder());
  ASSERT_EQ(f.Open(path_), rc::kOk);
  ASSERT_EQ(f.CheckAndRepairFile(), rc::kOk);
  EXPECT_EQ(f.MessageCount(), 5u);
  EXPECT_EQ(rebuilt_, 0);
  f.Close();
  EXPECT_EQ(RawFolder(path_).Read(u"/Index"), index_);
}

}  // namespace
}  // namespace trv
