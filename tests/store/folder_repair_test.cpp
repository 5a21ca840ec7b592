#include <gtest/gtest.h>

#include "core/byte_io.h"
#include "store/folder_file.h"
#include "tests/store/folder_test_util.h"
#include "tests/support/temp_dir.h"

namespace trv {
namespace {

using test::RawFolder;
using test::Record;
using test::RecordingLog;
using test::TempDir;
using test::Text;
using Lines = std::vector<std::string>;

const Lines kRepairedLoad = {"Loading messages count",
                             "Loading messages index",
                             "Folder loading error: The data is invalid. Trying to repair",
                             "Repaired OK",
                             "Loading messages index",
                             "Loading messages"};

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

  // Opens and loads with a rebuild hook that takes the subject from the text.
  Result OpenAndLoad(FolderFile& f) {
    Result r = f.Open(path_);
    return r.failed() ? r : f.LoadIndex();
  }

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

  std::vector<std::string> Subjects(FolderFile& f) {
    std::vector<std::string> out;
    for (const MessageRecord& r : f.Messages()) out.push_back(WideToUtf8(r.subject));
    return out;
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

TEST_F(FolderRepairTest, GarbageInARecordIsRepairedWithoutLosingMessages) {
  std::string damaged = index_;
  const uint32_t at = RecordOffset(2);
  PutU32(reinterpret_cast<uint8_t*>(damaged.data()) + at, 0x7FFFFFF0);  // a length beyond the stream
  for (uint32_t i = at + 80; i < at + 100; ++i) damaged[i] = '\xEE';
  RawFolder(path_).Write(u"/Index", damaged);

  FolderFile f(log_, WithRebuilder());
  ASSERT_EQ(OpenAndLoad(f), rc::kOk);
  EXPECT_EQ(log_.lines, kRepairedLoad);
  // m2's record was lost; its stream got a new record at the end, filled by the hook.
  EXPECT_EQ(Subjects(f), (std::vector<std::string>{"m0", "m1", "m3", "m4", "m2"}));
  EXPECT_EQ(rebuilt_, 1);
  const MessageRecord m2 = *f.FindMessage(3);
  EXPECT_EQ(m2.size, Text("m2").size());
  EXPECT_GT(m2.received_date, 40000.0);
  EXPECT_EQ(f.counts(), (FolderCounts{5, 5}));
  ExpectAllReadable(f);

  // The repaired file loads cleanly.
  f.Close();
  log_.lines.clear();
  ASSERT_EQ(OpenAndLoad(f), rc::kOk);
  EXPECT_EQ(log_.lines, (Lines{"Loading messages count", "Loading messages index", "Loading messages"}));
  EXPECT_EQ(f.MessageCount(), 5u);
}

TEST_F(FolderRepairTest, RecordsAfterAZeroLengthRecordAreRecovered) {
  // A zero length ends the index; the records behind it are found again.
  std::string damaged = index_;
  PutU32(reinterpret_cast<uint8_t*>(damaged.data()) + RecordOffset(1), 0);
  RawFolder(path_).Write(u"/Index", damaged);

  FolderFile f(log_);  // no hook: lost records stay minimal
  ASSERT_EQ(OpenAndLoad(f), rc::kOk);
  EXPECT_EQ(log_.lines, kRepairedLoad);
  EXPECT_EQ(Subjects(f), (std::vector<std::string>{"m0", "m2", "m3", "m4", ""}));
  const MessageRecord m1 = *f.FindMessage(2);
  EXPECT_EQ(m1.flags, msgflag::kNeedsHeaderRefresh);
  EXPECT_EQ(m1.size, Text("m1").size());
  ExpectAllReadable(f);
}

TEST_F(FolderRepairTest, IndexCutShortKeepsMessagesTheCountsPromised) {
  // Cut at a record boundary: nothing in the index itself looks wrong, but
  // "/Counts" says 5 and the sweep would otherwise delete three messages.
  RawFolder(path_).Write(u"/Index", index_.substr(0, RecordOffset(2)));
  FolderFile f(log_, WithRebuilder());
  ASSERT_EQ(OpenAndLoad(f), rc::kOk);
  EXPECT_EQ(log_.lines, kRepairedLoad);
  EXPECT_EQ(Subjects(f), (std::vector<std::string>{"m0", "m1", "m2", "m3", "m4"}));
  ExpectAllReadable(f);
}

TEST_F(FolderRepairTest, MissingOrHeaderlessIndex) {
  {
    RawFolder raw(path_);
    ASSERT_EQ(raw.container().DeleteStream(u"/Index"), rc::kOk);
  }
  FolderFile f(log_);
  ASSERT_EQ(OpenAndLoad(f), rc::kOk);
  EXPECT_EQ(log_.lines[2], "Folder loading error: The system cannot find the file specified. Trying to repair");
  EXPECT_EQ(f.MessageCount(), 5u);
  ExpectAllReadable(f);

  // An index stream shorter than its header, with no messages: a 0 header is
  // written, no repair needed.
  TempDir other;
  const auto empty = other / "e.fld";
  ASSERT_EQ(f.Create(empty), rc::kOk);
  f.Close();
  RawFolder(empty).Write(u"/Index", "\x07\x07");
  RawFolder(empty).Write(u"/Counts", "");
  log_.lines.clear();
  ASSERT_EQ(f.Open(empty), rc::kOk);
  EXPECT_EQ(log_.lines, (Lines{"Loading messages count", "Loading messages index", "Loading messages"}));
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
  for (int i = 5; i < 400; ++i) {
    uint32_t key;
    ASSERT_EQ(f.Append(Record("m" + std::to_string(i)), Text("m" + std::to_string(i), 3000), &key), rc::kOk);
  }
  f.Close();
  std::filesystem::resize_file(path_, std::filesystem::file_size(path_) * 3 / 4);
  log_.lines.clear();

  ASSERT_EQ(OpenAndLoad(f), rc::kOk);
  ASSERT_GE(log_.lines.size(), 3u);
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
  FolderFile f(log_);
  ASSERT_EQ(f.Open(path_), rc::kOk);
  ASSERT_EQ(f.CheckAndRepairFile(), rc::kOk);
  EXPECT_EQ(f.MessageCount(), 5u);
  EXPECT_EQ(rebuilt_, 0);
  f.Close();
  EXPECT_EQ(RawFolder(path_).Read(u"/Index"), index_);
}

}  // namespace
}  // namespace trv
