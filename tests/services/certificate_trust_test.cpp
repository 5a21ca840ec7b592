// The certificate trust store's file: a damaged file keeps the lines that
// read and reports the others; a save writes a private file; a failed save
// changes nothing. (The decisions run against real servers in
// tests/app/cli_accept_cert_test.cpp.)
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "services/certificate_trust.h"
#include "tests/support/temp_dir.h"

namespace trv {
namespace {

const std::string kA(64, 'a'), kB(64, 'b'), kC(64, 'c');

CertificateFacts Facts(const std::string& subject, const std::string& sha256, const std::string& key) {
  CertificateFacts f;
  f.subject = subject;
  f.sha256 = sha256;
  f.key_sha256 = key;
  return f;
}

struct FailingRename final : FileSystemWrapper {
  using FileSystemWrapper::FileSystemWrapper;
  Result Rename(const std::filesystem::path&, const std::filesystem::path&) override { return rc::kFail; }
};

TEST(CertificateTrustTest, DamagedFileKeepsWhatReads) {
  test::TempDir dir;
  const auto path = dir / CertificateTrust::kFileName;
  struct Line {
    std::string text;
    bool reads;
  };
  const Line lines[] = {
      {"# comment", true},
      {"Mail.Example\t993\t" + kA + "\t" + kB + "\tCN=mail", true},
      {"crlf.example\t995\t" + kB + "\t" + kA + "\tCN=x\tmore\r", true},  // the subject keeps its tab
      {"", true},
      {"garbage", false},
      {"h\t0\t" + kA + "\t" + kB + "\ts", false},
      {"h\t70000\t" + kA + "\t" + kB + "\ts", false},
      {"h\t99x\t" + kA + "\t" + kB + "\ts", false},
      {"\t993\t" + kA + "\t" + kB + "\ts", false},
      {"h\t993\t" + kA.substr(1) + "\t" + kB + "\ts", false},
      {"h\t993\t" + std::string(64, 'A') + "\t" + kB + "\ts", false},
      {"h\t993\t" + kA + "\t" + kB, false},
      {std::string("\0\xff\t\t\t\t", 6), false},
  };
  std::string bytes;
  std::vector<std::string> want_problems;
  for (size_t i = 0; i < std::size(lines); ++i) {
    bytes += lines[i].text + "\n";
    if (!lines[i].reads) want_problems.push_back("line " + std::to_string(i + 1));
  }
  test::WriteFile(path, bytes + "tail.example\t1\t" + kC);  // cut short, no line end
  want_problems.push_back("line " + std::to_string(std::size(lines) + 1));

  NullLogSink log;
  CertificateTrust trust(PosixFileSystem::Instance(), path, log);
  std::vector<std::string> problems;
  ASSERT_EQ(trust.Load(&problems), rc::kOk);
  ASSERT_EQ(problems.size(), want_problems.size());
  for (size_t i = 0; i < problems.size(); ++i) EXPECT_EQ(problems[i].rfind(want_problems[i] + ":", 0), 0u) << problems[i];
  ASSERT_EQ(trust.Entries().size(), 2u);
  const auto found = trust.Find("MAIL.example", 993);
  ASSERT_TRUE(found.has_value());
  EXPECT_EQ(found->key_sha256, kA);
  EXPECT_EQ(trust.Find("crlf.example", 995)->subject, "CN=x\tmore");

  // A failed save leaves the store and the file as they were.
  FailingRename failing(PosixFileSystem::Instance());
  CertificateTrust broken(failing, path, log);
  ASSERT_EQ(broken.Load(nullptr), rc::kOk);
  EXPECT_EQ(broken.Trust("mail.example", 993, Facts("s", kC, kC)), rc::kFail);
  EXPECT_EQ(broken.Find("mail.example", 993)->key_sha256, kA);
  EXPECT_EQ(test::ReadFile(path), bytes + "tail.example\t1\t" + kC);

  // A save keeps the entries that read, with the new one, in a private file.
  ASSERT_EQ(trust.Trust("new.example", 465, Facts("CN=a\nb", kC, kB)), rc::kOk);
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  CertificateTrust again(PosixFileSystem::Instance(), path, log);
  problems.clear();
  ASSERT_EQ(again.Load(&problems), rc::kOk);
  EXPECT_TRUE(problems.empty()) << problems[0];
  ASSERT_EQ(again.Entries().size(), 3u);
  EXPECT_EQ(again.Find("new.example", 465)->subject, "CN=a b");
}

}  // namespace
}  // namespace trv
