#include "store/folder_file.h"
#include "store/append_batch.h"

#include <gtest/gtest.h>

#include <thread>

#include "base/byte_io.h"
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

class FolderFileTest : public ::testing::Test {
 protected:
  // Creates the folder file with `n` messages "m0".."m<n-1>" (even ones
  // read, keys 1..n) and closes it.
  void Populate(int n) {
    FolderFile f(log_);
    ASSERT_EQ(f.Create(path_), rc::kOk);
    std::vector<std::string> texts;
    for (int i = 0; i < n; ++i) texts.push_back(Text("m" + std::to_string(i)));
    std::vector<NewMessage> batch;
    for (int i = 0; i < n; ++i) batch.push_back({Record("m" + std::to_string(i), i % 2 == 0), texts[i]});
    ASSERT_EQ(f.AppendMany(batch, nullptr), rc::kOk);
  }

  TempDir dir_;
  std::filesystem::path path_ = dir_ / "{0A}.fld";
  RecordingLog log_;
};

TEST_F(FolderFileTest, AppendedMessagesComeBackFromCountsAndIndex) {
  Populate(3);
  std::vector<std::pair<uint32_t, uint32_t>> progress;
  FolderFileOptions options;
  FolderFile* self = nullptr;
  options.progress = [&](uint32_t position, uint32_t size) {
    progress.emplace_back(position, size);
    EXPECT_TRUE(self->is_open());  // no lock held: calling back does not deadlock
  };
  FolderFile f(log_, options);
  self = &f;
  ASSERT_EQ(f.Open(path_), rc::kOk);
  EXPECT_EQ(f.counts(), (FolderCounts{3, 1}));
  EXPECT_FALSE(f.index_loaded());
  EXPECT_EQ(f.counters().bytes_read, 8u);  // "/Counts" only; "/Index" not touched

  ASSERT_EQ(f.LoadIndex(), rc::kOk);
  ASSERT_EQ(f.MessageCount(), 3u);
  MessageRecord want = Record("m1");
  want.key = 2;
  want.size = static_cast<uint32_t>(Text("m1").size());
  EXPECT_EQ(*f.FindMessage(2), want);
  std::string text;
  ASSERT_EQ(f.ReadMessage(2, &text), rc::kOk);
  EXPECT_EQ(text, Text("m1"));
  EXPECT_EQ(f.ReadMessage(2, &text, 10), rc::kInvalidData);
  EXPECT_EQ(f.ReadMessage(9, &text), rc::kInvalidArg);
  ASSERT_EQ(f.ReadMessageRange(2, want.size - 2, 100, &text), rc::kOk);
  EXPECT_EQ(text, "\r\n");
  EXPECT_EQ(f.NextKey(), 4u);
  // Progress after each record, up to the size of "/Index".
  const uint32_t size = static_cast<uint32_t>(RawFolder(path_).Read(u"/Index").size());
  ASSERT_EQ(progress.size(), 3u);
  EXPECT_EQ(progress.back(), std::make_pair(size, size));

  // Create never overwrites; a closed folder file does not reopen itself.
  f.Close();
  const std::string before = test::ReadFile(path_);
  EXPECT_EQ(f.Create(path_), rc::kFileExists);
  uint32_t key = 0;
  EXPECT_EQ(f.Append(Record("late"), "x", &key), rc::kContainerClosed);
  EXPECT_EQ(f.ReadMessage(1, &text), rc::kContainerClosed);
  EXPECT_EQ(test::ReadFile(path_), before);
  // Nor does one whose file was missing at Open.
  EXPECT_EQ(f.Open(dir_ / "missing.fld"), rc::kFileMissing);
  EXPECT_EQ(f.Append(Record("late"), "x", &key), rc::kContainerClosed);
  EXPECT_FALSE(std::filesystem::exists(dir_ / "missing.fld"));
}

// Short "/Counts" make the open read the index, which sweeps message
// streams no record names; other streams stay.
TEST_F(FolderFileTest, ShortCountsAreRebuiltAndUnnamedMessageStreamsSwept) {
  Populate(4);
  {
    RawFolder raw(path_);
    raw.Write(u"/Counts", std::string("\x04\0\0\0\x02\0\0", 7));
    for (const char16_t* name : {u"0000002A", u"0note", u"Notes", u"1000002A"}) raw.Write(name, "x");
  }
  FolderFile f(log_);
  ASSERT_EQ(f.Open(path_), rc::kOk);
  EXPECT_TRUE(f.index_loaded());
  EXPECT_EQ(f.counts(), (FolderCounts{4, 2}));
  f.Close();
  RawFolder raw(path_);
  EXPECT_EQ(raw.Read(u"/Counts"), std::string("\x04\0\0\0\x02\0\0\0", 8));
  for (const char16_t* gone : {u"0000002A", u"0note"}) EXPECT_FALSE(raw.Exists(gone)) << WideToUtf8(gone);
  for (const char16_t* kept : {u"Notes", u"1000002A", u"00000001", u"00000004"}) {
    EXPECT_TRUE(raw.Exists(kept)) << WideToUtf8(kept);
  }
}

TEST_F(FolderFileTest, DeletesFlagsAndRecordUpdatesPersist) {
  Populate(4);
  FolderFile f(log_);
  ASSERT_EQ(f.Open(path_), rc::kOk);
  ASSERT_EQ(f.LoadIndex(), rc::kOk);
  uint32_t empty_key = 0;
  ASSERT_EQ(f.Append(Record("empty"), "", &empty_key), rc::kOk);
  const uint32_t index_size = static_cast<uint32_t>(RawFolder(path_).Read(u"/Index").size());
  EXPECT_EQ(f.Delete({4, 99}), rc::kInvalidArg);  // one unknown key: nothing deleted
  EXPECT_EQ(f.MessageCount(), 5u);
  ASSERT_EQ(f.Delete({4}), rc::kOk);
  EXPECT_FALSE(f.FindMessage(4));

  ASSERT_EQ(f.SetFlags(2, msgflag::kRead | msgflag::kFlagged, 0), rc::kOk);
  EXPECT_EQ(f.counts(), (FolderCounts{4, 1}));
  ASSERT_EQ(f.SetFlags(1, msgflag::kAnswered, msgflag::kRead), rc::kOk);
  EXPECT_EQ(f.counts(), (FolderCounts{4, 2}));
  EXPECT_EQ(f.SetFlags(42, msgflag::kRead, 0), rc::kInvalidArg);

  MessageRecord same_length = *f.FindMessage(3);
  same_length.subject = u"M2";
  same_length.size = 1;  // the stored size wins
  ASSERT_EQ(f.UpdateRecord(same_length), rc::kOk);
  MessageRecord longer = *f.FindMessage(1);
  longer.subject = u"a much longer subject than before";
  longer.imap_uid = 500;
  ASSERT_EQ(f.UpdateRecord(longer), rc::kOk);
  ASSERT_EQ(f.ReplaceMessage(*f.FindMessage(2), "whole message now"), rc::kOk);
  f.Close();

  {
    RawFolder raw(path_);
    EXPECT_FALSE(raw.Exists(u"00000004"));
    // The deleted record stays in "/Index", its flags above 32767; only the
    // record that grew went to the end.
    const std::string index = raw.Read(u"/Index");
    const auto* p = reinterpret_cast<const uint8_t*>(index.data());
    uint32_t fourth = 4;
    for (int i = 0; i < 3; ++i) fourth += GetU32(p + fourth);
    EXPECT_EQ(GetU32(p + fourth + 12), 4u);
    EXPECT_GT(GetU32(p + fourth + 4), 32767u);
    EXPECT_EQ(index.size(), index_size + EncodeMessageRecord(longer).size());
  }
  ASSERT_EQ(f.Open(path_), rc::kOk);
  EXPECT_EQ(f.counts(), (FolderCounts{4, 2}));
  ASSERT_EQ(f.LoadIndex(), rc::kOk);
  EXPECT_EQ(f.MessageCount(), 4u);
  EXPECT_EQ(*f.FindMessage(1), longer);
  EXPECT_EQ(f.FindMessage(3)->subject, u"M2");
  EXPECT_EQ(f.FindMessage(3)->size, Text("m2").size());
  EXPECT_EQ(f.FindMessage(2)->flags, msgflag::kRead | msgflag::kFlagged);
  EXPECT_EQ(f.FindMessage(2)->size, 17u);
  std::string text;
  ASSERT_EQ(f.ReadMessage(2, &text), rc::kOk);
  EXPECT_EQ(text, "whole message now");
  ASSERT_EQ(f.ReadMessage(empty_key, &text), rc::kOk);
  EXPECT_EQ(text, "");
}

// Deleting most messages compacts the index: it shrinks, later changes land
// at the new offsets, keys are never reused, and reference entries survive.
TEST_F(FolderFileTest, CompactionReclaimsSpaceKeepsReferencesAndNeverReusesKeys) {
  FolderFile f(log_);
  ASSERT_EQ(f.Create(path_), rc::kOk);
  std::vector<NewMessage> batch;
  for (int i = 0; i < 600; ++i) batch.push_back({Record("m" + std::to_string(i)), "text"});
  std::vector<uint32_t> keys;
  ASSERT_EQ(f.AppendMany(batch, &keys), rc::kOk);
  const size_t full = RawFolder(path_).Read(u"/Index").size();
  ASSERT_EQ(f.Delete(std::vector<uint32_t>(keys.begin() + 150, keys.end())), rc::kOk);
  EXPECT_LT(RawFolder(path_).Read(u"/Index").size(), full / 3);
  ASSERT_EQ(f.SetFlags(keys[10], msgflag::kRead, 0), rc::kOk);
  ASSERT_EQ(f.Delete({keys[0]}), rc::kOk);
  f.Close();
  ASSERT_EQ(f.Open(path_), rc::kOk);
  ASSERT_EQ(f.LoadIndex(), rc::kOk);
  ASSERT_EQ(f.MessageCount(), 149u);
  EXPECT_TRUE(f.FindMessage(keys[10])->is_read());
  EXPECT_EQ(f.counts(), (FolderCounts{149, 148}));
  EXPECT_EQ(f.NextKey(), 601u);  // the records of 151..600 are gone; the header remembers 600
  f.Close();

  MessageRecord ref = Record("reference");
  ref.key = 777;
  ref.server_uid = u"UIDL-777";
  {
    RawFolder raw(path_);
    // Bit 0 wins over a value above 32767: still a reference entry.
    raw.Write(u"/Index", raw.Read(u"/Index") + EncodeMessageRecord(ref, kRecordReference | kRecordDeleted));
  }
  for (int pass = 0; pass < 2; ++pass) {
    ASSERT_EQ(f.Open(path_), rc::kOk);
    ASSERT_EQ(f.LoadIndex(), rc::kOk);
    EXPECT_EQ(f.MessageCount(), 149u - pass);
    EXPECT_EQ(f.NextKey(), 778u);  // a reference's key is not given to a message
    ASSERT_EQ(f.References().size(), 1u);
    EXPECT_EQ(f.References()[0].string6, u"UIDL-777");
    if (pass == 0) {
      ASSERT_TRUE(f.Delete({keys[1]}).ok() && f.Compact().ok());
    }
    f.Close();
  }
}

// Keeps the added keys with the message count read back from inside the
// call (which deadlocks if the folder's lock were held).
struct AddedObserver : FolderObserver {
  void MessagesAdded(FolderFile& f, const std::vector<uint32_t>& keys) override {
    for (uint32_t key : keys) calls += std::to_string(key) + " ";
    calls += "of " + std::to_string(f.MessageCount()) + ";";
  }
  std::string calls;
};

TEST_F(FolderFileTest, BatchWritesPiecesCommitsOnceAndLeavesNothingOnFailure) {
  Populate(1);
  FolderFile f(log_);
  AddedObserver o;
  f.AddObserver(&o);
  ASSERT_EQ(f.Open(path_), rc::kOk);
  const std::string big = Text("big") + std::string(200000, 'x');
  std::vector<uint32_t> keys;
  {
    AppendBatch batch(f);
    for (const char* uid : {"UID-A", "UID-B"}) {
      MessageRecord record = Record(uid);
      record.server_uid = Utf8ToWide(uid);
      ASSERT_EQ(batch.Begin(), rc::kOk);
      for (size_t at = 0; at < big.size(); at += 65536) {
        ASSERT_EQ(batch.Write(std::string_view(big).substr(at, 65536)), rc::kOk);
      }
      ASSERT_EQ(batch.Finish(record, nullptr), rc::kOk);
    }
    EXPECT_EQ(f.MessageCount(), 1u);  // nothing shows before the commit
    const uint64_t commits = f.counters().commits;
    ASSERT_EQ(batch.Commit(&keys), rc::kOk);
    EXPECT_EQ(f.counters().commits, commits + 1);
  }
  EXPECT_EQ(o.calls, "2 3 of 3;");  // once, after the commit
  ASSERT_EQ(keys, (std::vector<uint32_t>{2, 3}));
  uint32_t key = 0;
  ASSERT_TRUE(f.FindByServerUid(u"UID-B", &key));
  EXPECT_EQ(key, 3u);
  std::string text;
  ASSERT_EQ(f.ReadMessage(key, &text), rc::kOk);
  EXPECT_TRUE(text == big);
  ASSERT_EQ(f.Delete({3}), rc::kOk);
  EXPECT_FALSE(f.FindByServerUid(u"UID-B", &key));

  // A failure mid-batch (a message begun before the last one was finished)
  // rolls back the whole batch: no stream, no record, no count.
  {
    AppendBatch batch(f);
    ASSERT_EQ(batch.Begin(), rc::kOk);
    ASSERT_EQ(batch.Write("first"), rc::kOk);
    ASSERT_EQ(batch.Finish(Record("first"), nullptr), rc::kOk);
    ASSERT_EQ(batch.Begin(), rc::kOk);
    ASSERT_EQ(batch.Write("half"), rc::kOk);
    EXPECT_EQ(batch.Begin(), rc::kInvalidArg);
    EXPECT_EQ(batch.Commit(), rc::kInvalidArg);
  }
  EXPECT_EQ(o.calls, "2 3 of 3;");  // a failed batch tells nothing
  f.RemoveObserver(&o);
  f.Close();
  ASSERT_EQ(f.Open(path_), rc::kOk);
  ASSERT_EQ(f.LoadIndex(), rc::kOk);
  EXPECT_EQ(f.counts(), (FolderCounts{2, 1}));
  EXPECT_EQ(Subjects(f), (Lines{"m0", "UID-A"}));
  f.Close();
  RawFolder raw(path_);
  EXPECT_FALSE(raw.Exists(MessageStreamName(4)) || raw.Exists(MessageStreamName(5)));
}

TEST_F(FolderFileTest, WorkerAppendsWhileTheListingIsRead) {
  FolderFile f(log_, FolderFileOptions{.sync_commits = false});
  ASSERT_EQ(f.Create(path_), rc::kOk);
  std::thread worker([&] {
    for (int i = 0; i < 300; ++i) {
      uint32_t key;
      ASSERT_EQ(f.Append(Record("w" + std::to_string(i)), Text("w"), &key), rc::kOk);
    }
  });
  size_t seen = 0;
  while (seen < 300) {
    const std::vector<MessageRecord> list = f.Messages();
    ASSERT_GE(list.size(), seen);  // never shrinks, never torn
    for (size_t i = 0; i < list.size(); ++i) ASSERT_EQ(list[i].key, i + 1);
    seen = list.size();
    if (seen) {
      std::string text;
      ASSERT_EQ(f.ReadMessage(static_cast<uint32_t>(seen), &text), rc::kOk);
    }
  }
  worker.join();
  EXPECT_EQ(f.counts(), (FolderCounts{300, 300}));
}

}  // namespace
}  // namespace trv
