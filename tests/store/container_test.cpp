#include "store/container.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cerrno>
#include <functional>
#include <optional>

#include "store/container_stream.h"
#include "tests/support/temp_dir.h"

namespace trv {
namespace {

using test::ReadFile;
using test::WriteFile;
using V = std::vector<std::string>;

class ContainerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(Reopen(), rc::kOk); }
  Result Reopen() { return c_.Open(path_, {.label = u"Mail Storage", .sync_commits = false}); }
  std::unique_ptr<ContainerStream> Stream(WStringView name, StreamOpen how = StreamOpen::kCreate) {
    std::unique_ptr<ContainerStream> s;
    EXPECT_EQ(c_.OpenStream(name, how, &s), rc::kOk);
    return s;
  }
  static std::string ReadAll(ContainerStream& s) {
    s.Seek(0, kSeekStart);
    std::string out;
    EXPECT_EQ(s.ReadRest(&out, UINT32_MAX), rc::kOk);
    return out;
  }

  test::TempDir dir_;
  std::filesystem::path path_ = dir_ / "f.fld";
  Container c_;
};

// Each row gives the stream its content, moves to `from` and does one
// operation; a second object on the same stream then sees the content. The
// long content spans several chunks; a reopen shows it persisted.
TEST_F(ContainerTest, SeekReadAndCutCases) {
  std::string big(100000, 'x');
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>('a' + i % 26);
  const std::string ten = "0123456789";
  auto s = Stream(u"/s");
  auto other = Stream(u"s");
  std::string got;
  char buf[16];
  const auto read = [&](uint32_t n) {
    got.assign(buf, s->Read(buf, n));
    return s->last_error();
  };
  const auto seek = [&](int64_t offset, int origin) {
    s->Seek(offset, origin);
    return s->last_error();
  };
  struct Row {
    const char* name;
    const std::string& content;
    uint32_t from;
    std::function<Result()> op;
    Result result;
    uint32_t position;
    std::optional<std::string> after;  // none: unchanged
    std::string read = "";
  };
  const Row rows[] = {
      {"seek from the end past the size", ten, 4, [&] { return seek(5, kSeekEnd); }, rc::kOk, 15, {}},
      {"seek before the start", ten, 4, [&] { return seek(-11, kSeekEnd); }, rc::kInvalidArg, 4, {}},
      {"seek past 4 GB", ten, 4, [&] { return seek(int64_t{1} << 32, kSeekStart); }, rc::kInvalidArg, 4, {}},
      {"read stops at the end", ten, 8, [&] { return read(16); }, rc::kOk, 10, {}, "89"},
      {"exact read past the end", ten, 7, [&] { return s->ReadExact(buf, 4); }, rc::kReadFault, 10, {}},
      {"bound below the size", ten, 0, [&] { return s->ReadRest(&got, 5); }, rc::kInvalidData, 0, {}},
      {"cut shortens", big, 40000, [&] { return s->Cut(); }, rc::kOk, 40000, big.substr(0, 40000)},
      {"cut bytes never come back", big, 40000,
       [&] { return s->Cut().ok() && s->SeekTo(70000).ok() ? s->WriteAll("tail") : rc::kFail; }, rc::kOk, 70004,
       big.substr(0, 40000) + std::string(30000, '\0') + "tail"},
      {"cut past the end adds zeros", ten, 16, [&] { return s->Cut(); }, rc::kOk, 16, ten + std::string(6, '\0')},
      {"cut at 0 empties", ten, 0, [&] { return s->Cut(); }, rc::kOk, 0, std::string()},  // the reopen below writes at 0
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    s->Seek(0, kSeekStart);
    ASSERT_EQ(s->Cut(), rc::kOk);
    ASSERT_EQ(s->WriteAll(row.content), rc::kOk);
    s->Seek(row.from, kSeekStart);
    got.clear();
    EXPECT_EQ(row.op(), row.result);
    EXPECT_EQ(s->Position(), row.position);
    EXPECT_EQ(got, row.read);
    const std::string& after = row.after ? *row.after : row.content;
    EXPECT_EQ(other->Size(), after.size());
    EXPECT_TRUE(ReadAll(*other) == after);
  }
  ASSERT_EQ(s->WriteAll(big), rc::kOk);
  s.reset();
  other.reset();
  c_.Close();
  ASSERT_EQ(Reopen(), rc::kOk);
  other = Stream(u"s", StreamOpen::kExisting);
  EXPECT_TRUE(ReadAll(*other) == big);
  ASSERT_EQ(c_.DeleteStream(u"s"), rc::kOk);
  EXPECT_EQ(other->Read(buf, 4), 0u);
  EXPECT_EQ(other->last_error(), rc::kStreamMissing);
}

TEST_F(ContainerTest, TransactionsRollBackAndNest) {
  auto s = Stream(u"s");
  ASSERT_EQ(s->WriteAll("base"), rc::kOk);
  ASSERT_EQ(c_.Begin(), rc::kOk);
  ASSERT_EQ(s->WriteAll("+outer"), rc::kOk);
  ASSERT_EQ(c_.Begin(), rc::kOk);
  ASSERT_EQ(s->WriteAll("+inner"), rc::kOk);
  Stream(u"t");
  ASSERT_EQ(c_.Rollback(), rc::kOk);  // undoes "+inner" and the stream t
  EXPECT_EQ(ReadAll(*s), "base+outer");
  EXPECT_FALSE(c_.StreamExists(u"t"));
  ASSERT_EQ(c_.Rollback(), rc::kOk);
  EXPECT_EQ(ReadAll(*s), "base");
  EXPECT_EQ(s->Size(), 4u);
  {
    ContainerTransaction txn(c_);
    ASSERT_EQ(txn.begin_result(), rc::kOk);
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
  EXPECT_EQ(ReadAll(*Stream(u"s", StreamOpen::kExisting)), "base!");
}

TEST_F(ContainerTest, RootListingFollowsPatternOrderAndLimit) {
  for (const char16_t* name : {u"0000001A", u"Index", u"00000002", u"Counts", u"1abc", u"0x/nested", u"0"}) Stream(name);
  auto list = [&](WStringView pattern, int32_t limit = -1) {
    V out;
    auto search = c_.FindRoot(pattern, limit);
    for (WString name; search->Next(&name);) out.push_back(WideToUtf8(name));
    EXPECT_EQ(search->last_error(), rc::kOk);
    return out;
  };
  EXPECT_EQ(list(u"\\0*"), (V{"0", "00000002", "0000001A"}));
  EXPECT_EQ(list(u"\\0*", 2), (V{"0", "00000002"}));
  EXPECT_EQ(list(u"\\0*", 0), V{});
  EXPECT_EQ(list(u"*"), (V{"0", "00000002", "0000001A", "1abc", "Counts", "Index"}));
  EXPECT_EQ(list(u"0x"), V{});  // only a directory of a nested stream

  // Deleting entries while the search runs (past one batch of names)
  // neither skips nor repeats names.
  for (int i = 0; i < 600; ++i) Stream(W("1" + std::to_string(1000000 + i)));
  auto search = c_.FindRoot(u"1*");
  int seen = 0;
  for (WString name; search->Next(&name); ++seen) ASSERT_EQ(c_.DeleteStream(name), rc::kOk);
  EXPECT_EQ(seen, 601);
  EXPECT_EQ(list(u"1*"), V{});
}

TEST_F(ContainerTest, StreamNamesAndErrors) {
  std::unique_ptr<ContainerStream> s;
  EXPECT_EQ(c_.OpenStream(u"/missing", StreamOpen::kExisting, &s), rc::kStreamMissing);
  EXPECT_FALSE(s);
  for (const char16_t* bad : {u"", u"/", u"a//b", u"a/"}) {
    EXPECT_EQ(c_.OpenStream(bad, StreamOpen::kCreate, &s), rc::kInvalidArg) << WideToUtf8(bad);
  }
  EXPECT_EQ(c_.DeleteStream(u"missing"), rc::kStreamMissing);
  Stream(u"/ro");
  s = Stream(u"/ro", StreamOpen::kReadOnly);
  EXPECT_EQ(s->Write("x", 1), 0u);
  EXPECT_EQ(s->last_error(), rc::kStreamReadOnly);
  c_.Close();
  EXPECT_EQ(s->Write("x", 1), 0u);
  EXPECT_EQ(s->last_error(), rc::kContainerClosed);
  EXPECT_FALSE(c_.StreamExists(u"ro"));
  EXPECT_EQ(c_.last_error(), rc::kContainerClosed);
}

// Another program's SQLite database is refused and left as it was (a file
// that is no database at all: see the folder repair tests); an empty file
// becomes an empty container.
TEST_F(ContainerTest, ForeignFilesAreRefusedUntouched) {
  c_.Close();
  const auto other = dir_ / "other.db";
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(other.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE t(x)", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);
  const std::string before = ReadFile(other);
  EXPECT_EQ(c_.Open(other, {.label = u"L", .sync_commits = false}), rc::kNotContainer);
  EXPECT_EQ(ReadFile(other), before);

  WriteFile(dir_ / "empty.fld", "");
  EXPECT_EQ(c_.Open(dir_ / "empty.fld", {.label = u"L", .sync_commits = false}), rc::kOk);
  EXPECT_EQ(CheckAndRepair(dir_ / "nothing.fld", 512, true, u""), ResultFromErrno(ENOENT));
}

// Damages the headers of two table leaf pages (first byte 0x0D) from the
// middle of the file on. Only page structure can be hit: the database keeps
// no checksums of stream bytes, so damage inside them looks like content.
TEST_F(ContainerTest, DamagedPagesAreSalvagedAndTheOriginalKept) {
  auto body = [](int i) { return std::string(6000, static_cast<char>('a' + i % 26)); };
  for (int i = 0; i < 200; ++i) ASSERT_EQ(Stream(W("m" + std::to_string(i)))->WriteAll(body(i)), rc::kOk);
  c_.Close();
  std::string bytes = ReadFile(path_);
  int count = 2;
  for (size_t at = bytes.size() / 2 / 4096 * 4096; at + 4096 <= bytes.size() && count > 0; at += 4096) {
    if (bytes[at] != 0x0D) continue;
    for (size_t i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>(0xA5 ^ i);
    --count;
  }
  ASSERT_EQ(count, 0) << "not enough leaf pages";
  WriteFile(path_, bytes);

  EXPECT_EQ(CheckAndRepair(path_, 512, false, u""), rc::kContainerDamaged);
  EXPECT_TRUE(ReadFile(path_) == bytes);
  ASSERT_EQ(CheckAndRepair(path_, 512, true, (dir_ / "kept").u16string()), rc::kOk);
  EXPECT_TRUE(ReadFile(dir_ / "kept") == bytes);
  ASSERT_EQ(Reopen(), rc::kOk);
  int intact = 0;
  for (int i = 0; i < 200; ++i) {
    std::unique_ptr<ContainerStream> s;
    if (c_.OpenStream(W("m" + std::to_string(i)), StreamOpen::kExisting, &s).failed()) continue;
    const std::string got = ReadAll(*s);
    EXPECT_TRUE(got == body(i).substr(0, got.size())) << "stream m" << i;  // a prefix of the original
    intact += got == body(i);
  }
  EXPECT_GT(intact, 100);
  EXPECT_LT(intact, 200);
  c_.Close();
  EXPECT_EQ(CheckAndRepair(path_, 512, true, u""), rc::kOk);  // sound now: nothing more kept aside
  EXPECT_FALSE(std::filesystem::exists(dir_ / "f.fld.damaged"));
}

}  // namespace
}  // namespace trv
