// The trust file: damaged lines are skipped and reported by number; a failed
// save changes nothing. (Decisions: tests/app/cli_accept_cert_test.cpp.)
#include <gtest/gtest.h>

#include "services/certificate_trust.h"
#include "tests/support/temp_dir.h"

namespace trv {
namespace {

struct FailingRename final : FileSystemWrapper {
  using FileSystemWrapper::FileSystemWrapper;
  Result Rename(const std::filesystem::path&, const std::filesystem::path&) override { return rc::kFail; }
};

TEST(CertificateTrustTest, DamagedFileKeepsWhatReads) {
  const std::string a(64, 'a'), b(64, 'b'), rest = "\t" + a + "\t" + b + "\ts";
  const std::pair<std::string, bool> lines[] = {  // a line, whether it reads
      {"# comment", true}, {"", true}, {"Mail.Example\t993" + rest, true},
      {"crlf.example\t995" + rest + "\tmore\r", true},  // the subject keeps its tab
      {"garbage", false}, {"h\t0" + rest, false}, {"h\t70000" + rest, false}, {"h\t99x" + rest, false},
      {"\t993" + rest, false}, {"h\t993\t" + a.substr(1) + "\t" + b + "\ts", false},
      {"h\t993\t" + std::string(64, 'A') + "\t" + b + "\ts", false}, {"h\t993\t" + a + "\t" + b, false},
      {std::string("\0\xff\t\t\t\t", 6), false}, {"cut.example\t1\t" + a, false},  // last: no line end
  };
  std::string bytes;
  std::vector<std::string> want;
  for (size_t i = 0; i < std::size(lines); ++i) {
    bytes += (i ? "\n" : "") + lines[i].first;
    if (!lines[i].second) want.push_back("line " + std::to_string(i + 1) + ":");
  }
  test::TempDir dir;
  const auto path = dir / CertificateTrust::kFileName;
  test::WriteFile(path, bytes);

  NullLogSink log;
  CertificateTrust trust(PosixFileSystem::Instance(), path, log);
  std::vector<std::string> problems;
  ASSERT_EQ(trust.Load(&problems), rc::kOk);
  ASSERT_EQ(problems.size(), want.size());
  for (size_t i = 0; i < want.size(); ++i) EXPECT_EQ(problems[i].rfind(want[i], 0), 0u) << problems[i];
  ASSERT_EQ(trust.Entries().size(), 2u);
  EXPECT_EQ(trust.Find("MAIL.example", 993)->key_sha256, a);
  EXPECT_EQ(trust.Find("crlf.example", 995)->subject, "s\tmore");

  CertificateFacts facts;
  facts.subject = "CN=a\nb";
  facts.sha256 = facts.key_sha256 = std::string(64, 'c');
  FailingRename failing(PosixFileSystem::Instance());
  CertificateTrust broken(failing, path, log);
  ASSERT_EQ(broken.Load(nullptr), rc::kOk);
  EXPECT_EQ(broken.Trust("mail.example", 993, facts), rc::kFail);
  EXPECT_EQ(broken.Find("mail.example", 993)->key_sha256, a);
  EXPECT_EQ(test::ReadFile(path), bytes);

  ASSERT_EQ(trust.Trust("new.example", 465, facts), rc::kOk);
  CertificateTrust again(PosixFileSystem::Instance(), path, log);
  problems.clear();
  ASSERT_EQ(again.Load(&problems), rc::kOk);
  EXPECT_TRUE(problems.empty()) << problems[0];
  EXPECT_EQ(again.Entries().size(), 3u);
  EXPECT_EQ(again.Find("new.example", 465)->subject, "CN=a b");
}

}  // namespace
}  // namespace trv
