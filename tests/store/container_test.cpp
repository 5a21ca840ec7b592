#include "store/container.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sqlite3.h>

#include <random>

#include "store/container_stream.h"
#include "tests/support/temp_dir.h"

namespace trv {
namespace {

using test::ReadFile;
using test::TempDir;
using test::WriteFile;

class ContainerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(Reopen(), rc::kOk); }

  Result Reopen() { return c_.Open(path_, {.label = u"Mail Storage", .sync_commits = false}); }

  std::unique_ptr<ContainerStream> Stream(WStringView name, bool create = true) {
    std::unique_ptr<ContainerStream> s;
    EXPECT_EQ(c_.OpenStream(name, create ? StreamOpen::kCreate : StreamOpen::kExisting, &s), rc::kOk);
    return s;
  }

  static std::string ReadAll(ContainerStream& s) {
    s.Seek(0, kSeekStart);
    std::string out;
    EXPECT_EQ(s.ReadRest(&out, UINT32_MAX), rc::kOk);
    return out;
  }

  TempDir dir_;
  std::filesystem::path path_ = dir_ / "f.fld";
  Container c_;
};

TEST_F(ContainerTest, SeeksAndReadsStayInBounds) {
  auto s = Stream(u"/s");
  ASSERT_EQ(s->WriteAll("0123456789"), rc::kOk);
  struct Row {
    const char* name;
    int64_t offset;
    int origin;
    uint32_t want;  // 4 (unchanged) when refused
    bool ok;
  } rows[] = {
      {"end forwards past size", 5, kSeekEnd, 15, true},   {"current backwards to 0", -4, kSeekCurrent, 0, true},
      {"before start", -11, kSeekEnd, 4, false},           {"past 4 GB", int64_t{1} << 32, kSeekStart, 4, false},
      {"unknown origin", 0, 3, 4, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    s->Seek(4, kSeekStart);
    EXPECT_EQ(s->Seek(row.offset, row.origin), row.want);
    EXPECT_EQ(s->Position(), row.want);
    EXPECT_EQ(s->last_error().ok(), row.ok);
  }

  char buf[16] = {};
  s->Seek(8, kSeekStart);
  EXPECT_EQ(s->Read(buf, sizeof buf), 2u);
  EXPECT_EQ(std::string(buf, 2), "89");
  EXPECT_EQ(s->Read(buf, sizeof buf), 0u);
  s->Seek(100, kSeekStart);
  EXPECT_EQ(s->Read(buf, sizeof buf), 0u);
  EXPECT_EQ(s->last_error(), rc::kOk);
  s->Seek(7, kSeekStart);
  EXPECT_EQ(s->ReadExact(buf, 4), rc::kReadFault);
  s->Seek(0, kSeekStart);
  std::string rest;
  EXPECT_EQ(s->ReadRest(&rest, 5), rc::kInvalidData);  // bound below the size: refused, not cut
}

// Two objects on one stream see each other's changes of the size.
TEST_F(ContainerTest, CutShortensAndWritePastEndFillsZeros) {
  auto s = Stream(u"s");
  auto other = Stream(u"s");
  std::string data(100000, 'x');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>('a' + i % 26);
  ASSERT_EQ(s->WriteAll(data), rc::kOk);
  EXPECT_EQ(other->Size(), 100000u);

  other->Seek(40000, kSeekStart);
  ASSERT_EQ(other->Cut(), rc::kOk);
  EXPECT_EQ(s->Size(), 40000u);
  // The bytes cut away must not come back when the stream grows again.
  s->Seek(70000, kSeekStart);
  ASSERT_EQ(s->WriteAll("tail"), rc::kOk);
  const std::string got = ReadAll(*s);
  ASSERT_EQ(got.size(), 70004u);
  EXPECT_EQ(got.substr(0, 40000), data.substr(0, 40000));
  EXPECT_EQ(got.substr(40000, 30000), std::string(30000, '\0'));
  EXPECT_EQ(got.substr(70000), "tail");

  // Cut past the end lengthens with zeros; cut at 0 empties.
  s->Seek(70010, kSeekStart);
  ASSERT_EQ(s->Cut(), rc::kOk);
  EXPECT_EQ(ReadAll(*s).substr(70004), std::string(6, '\0'));
  s->Seek(0, kSeekStart);
  ASSERT_EQ(s->Cut(), rc::kOk);
  EXPECT_EQ(other->Size(), 0u);

  ASSERT_EQ(c_.DeleteStream(u"s"), rc::kOk);
  char buf[4];
  EXPECT_EQ(other->Read(buf, 4), 0u);
  EXPECT_EQ(other->last_error(), rc::kStreamMissing);
}

TEST_F(ContainerTest, WritesAcrossChunksAndSmallAppendsPersist) {
  std::mt19937 rng(7);
  std::string expect;
  {
    auto s = Stream(u"/Index");
    // Many small appends (the index's pattern), then overwrites that
    // straddle chunk boundaries.
    for (int i = 0; i < 600; ++i) {
      std::string rec(50 + rng() % 300, static_cast<char>('A' + i % 26));
      ASSERT_EQ(s->WriteAll(rec), rc::kOk) << i;
      expect += rec;
    }
    for (uint32_t at : {32760u, 65530u, 100u}) {
      ASSERT_LT(at + 20, expect.size());
      s->Seek(at, kSeekStart);
      ASSERT_EQ(s->WriteAll(std::string(20, '#')), rc::kOk);
      expect.replace(at, 20, std::string(20, '#'));
    }
    // Odd-sized reads give the same bytes.
    s->Seek(0, kSeekStart);
    std::string pieces;
    char buf[777];
    while (uint32_t n = s->Read(buf, sizeof buf)) pieces.append(buf, n);
    EXPECT_EQ(pieces, expect);
  }
  c_.Close();
  ASSERT_EQ(Reopen(), rc::kOk);
  auto s = Stream(u"Index", false);
  ASSERT_TRUE(s);
  EXPECT_EQ(ReadAll(*s), expect);
}

TEST_F(ContainerTest, TransactionsRollBackAndNest) {
  auto s = Stream(u"s");
  ASSERT_EQ(s->WriteAll("base"), rc::kOk);

  ASSERT_EQ(c_.Begin(), rc::kOk);
  ASSERT_EQ(s->WriteAll("+outer"), rc::kOk);
  ASSERT_EQ(c_.Begin(), rc::kOk);
  ASSERT_EQ(s->WriteAll("+inner"), rc::kOk);
  auto t = Stream(u"t");
  ASSERT_EQ(c_.Rollback(), rc::kOk);  // undoes "+inner" and the stream t
  EXPECT_EQ(ReadAll(*s), "base+outer");
  EXPECT_FALSE(c_.StreamExists(u"t"));
  ASSERT_EQ(c_.Rollback(), rc::kOk);
  EXPECT_EQ(ReadAll(*s), "base");
  EXPECT_EQ(s->Size(), 4u);

  {
    ContainerTransaction txn(c_);
    ASSERT_EQ(txn.begin_result(), rc::kOk);
    s->Seek(0, kSeekEnd);
    ASSERT_EQ(s->WriteAll("!"), rc::kOk);
  }  // not committed: rolled back
  EXPECT_EQ(ReadAll(*s), "base");

  ASSERT_EQ(c_.Begin(), rc::kOk);
  s->Seek(0, kSeekEnd);
  ASSERT_EQ(s->WriteAll("!"), rc::kOk);
  ASSERT_EQ(c_.Commit(), rc::kOk);
  EXPECT_EQ(c_.Commit(), rc::kInvalidArg);
  s.reset();
  c_.Close();
  ASSERT_EQ(Reopen(), rc::kOk);
  EXPECT_EQ(ReadAll(*Stream(u"s", false)), "base!");
}

TEST_F(ContainerTest, RootListingFollowsPatternOrderAndLimit) {
  for (const char16_t* name : {u"0000001A", u"Index", u"00000002", u"Counts", u"1abc", u"0x/nested", u"0"}) {
    Stream(name);
  }
  auto list = [&](WStringView pattern, int32_t limit) {
    std::vector<std::string> out;
    auto search = c_.FindRoot(pattern, limit);
    WString name;
    while (search->Next(&name)) out.push_back(WideToUtf8(name));
    EXPECT_EQ(search->last_error(), rc::kOk);
    return out;
  };
  using V = std::vector<std::string>;
  EXPECT_EQ(list(u"\\0*", -1), (V{"0", "00000002", "0000001A"}));
  EXPECT_EQ(list(u"\\0*", 2), (V{"0", "00000002"}));
  EXPECT_EQ(list(u"\\0*", 0), V{});
  EXPECT_EQ(list(u"*", -1), (V{"0", "00000002", "0000001A", "1abc", "Counts", "Index"}));
  EXPECT_EQ(list(u"????????", -1), (V{"00000002", "0000001A"}));
  EXPECT_EQ(list(u"0x", -1), V{});  // "0x" exists only as a directory of a nested stream

  // Deleting entries while the search runs (past one batch of names)
  // neither skips nor repeats names.
  for (int i = 0; i < 600; ++i) {
    char name[16];
    std::snprintf(name, sizeof name, "1%07X", i);
    Stream(W(name));
  }
  auto search = c_.FindRoot(u"1*");
  WString name;
  int seen = 0;
  while (search->Next(&name)) {
    ++seen;
    ASSERT_EQ(c_.DeleteStream(name), rc::kOk);
  }
  EXPECT_EQ(seen, 601);
  EXPECT_EQ(list(u"1*", -1), V{});
}

TEST_F(ContainerTest, StreamNamesAndErrors) {
  std::unique_ptr<ContainerStream> s;
  EXPECT_EQ(c_.OpenStream(u"/missing", StreamOpen::kExisting, &s), rc::kStreamMissing);
  EXPECT_EQ(c_.last_error(), rc::kStreamMissing);
  EXPECT_FALSE(s);
  for (const char16_t* bad : {u"", u"/", u"a//b", u"a/"}) {
    EXPECT_EQ(c_.OpenStream(bad, StreamOpen::kCreate, &s), rc::kInvalidArg) << WideToUtf8(bad);
  }
  EXPECT_EQ(c_.DeleteStream(u"missing"), rc::kStreamMissing);

  ASSERT_EQ(c_.OpenStream(u"/ro", StreamOpen::kCreate, &s), rc::kOk);
  ASSERT_EQ(c_.OpenStream(u"/ro", StreamOpen::kReadOnly, &s), rc::kOk);
  EXPECT_EQ(s->Write("x", 1), 0u);
  EXPECT_EQ(s->last_error(), rc::kStreamReadOnly);

  c_.Close();
  EXPECT_EQ(s->Write("x", 1), 0u);
  EXPECT_EQ(s->last_error(), rc::kContainerClosed);
  EXPECT_FALSE(c_.StreamExists(u"ro"));
  EXPECT_EQ(c_.last_error(), rc::kContainerClosed);
}

TEST_F(ContainerTest, ForeignFilesAreRefusedUntouched) {
  c_.Close();
  const std::string text = "From: someone\r\n\r\nnot a container\r\n";
  WriteFile(path_, text);
  EXPECT_EQ(Reopen(), rc::kNotContainer);
  EXPECT_EQ(ReadFile(path_), text);
  EXPECT_FALSE(std::filesystem::exists(dir_ / "f.fld-wal"));
  EXPECT_EQ(CheckAndRepair(path_, 512, true, u""), rc::kNotContainer);
  EXPECT_EQ(ReadFile(path_), text);

  // An SQLite database of some other program is not ours either.
  const auto other = dir_ / "other.db";
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(other.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE t(x)", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);
  const std::string before = ReadFile(other);
  EXPECT_EQ(c_.Open(other, {.label = u"L", .sync_commits = false}), rc::kNotContainer);
  EXPECT_EQ(ReadFile(other), before);

  // An empty file becomes an empty container; a missing one cannot be checked.
  WriteFile(dir_ / "empty.fld", "");
  EXPECT_EQ(c_.Open(dir_ / "empty.fld", {.label = u"L", .sync_commits = false}), rc::kOk);
  EXPECT_EQ(CheckAndRepair(dir_ / "nothing.fld", 512, true, u""), ResultFromErrno(ENOENT));
}

// Damages the headers of `count` table leaf pages (first byte 0x0D) found
// from the middle of a closed container on. Only page structure is hit: the
// database engine keeps no checksums of stream bytes, so damage inside them
// cannot be told from content by anyone.
void DamageLeafPages(const std::filesystem::path& p, int count) {
  std::string bytes = ReadFile(p);
  for (size_t at = bytes.size() / 2 / 4096 * 4096; at + 4096 <= bytes.size() && count > 0; at += 4096) {
    if (bytes[at] != 0x0D) continue;
    for (size_t i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>(0xA5 ^ i);
    --count;
  }
  ASSERT_EQ(count, 0) << "not enough leaf pages";
  WriteFile(p, bytes);
}

TEST_F(ContainerTest, DamagedPagesAreSalvagedAndTheOriginalKept) {
  auto body = [](int i) { return std::string(6000, static_cast<char>('a' + i % 26)); };
  for (int i = 0; i < 200; ++i) ASSERT_EQ(Stream(W("m" + std::to_string(i)))->WriteAll(body(i)), rc::kOk);
  c_.Close();
  DamageLeafPages(path_, 2);
  const std::string damaged = ReadFile(path_);

  EXPECT_EQ(CheckAndRepair(path_, 512, false, u""), rc::kContainerDamaged);
  EXPECT_EQ(ReadFile(path_), damaged);
  ASSERT_EQ(CheckAndRepair(path_, 512, true, (dir_ / "kept").u16string()), rc::kOk);
  EXPECT_TRUE(ReadFile(dir_ / "kept") == damaged);

  ASSERT_EQ(Reopen(), rc::kOk);
  int intact = 0;
  for (int i = 0; i < 200; ++i) {
    std::unique_ptr<ContainerStream> s;
    if (c_.OpenStream(W("m" + std::to_string(i)), StreamOpen::kExisting, &s).failed()) continue;
    const std::string got = ReadAll(*s);
    // A stream keeps only bytes that could be read: a prefix of the original.
    EXPECT_TRUE(got == body(i).substr(0, got.size())) << "stream m" << i;
    intact += got == body(i);
  }
  EXPECT_GT(intact, 100);
  EXPECT_LT(intact, 200);
  c_.Close();
  // The result is sound: checked clean, nothing more kept aside.
  EXPECT_EQ(CheckAndRepair(path_, 512, true, u""), rc::kOk);
  EXPECT_FALSE(std::filesystem::exists(dir_ / "f.fld.damaged"));
}

}  // namespace
}  // namespace trv
