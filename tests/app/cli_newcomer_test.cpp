// What a newcomer meets first: the files the program leaves are private
// whatever the umask, an mbox export keeps the read state through a
// re-import, and scripts/run.sh prints the program's output and nothing else.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>

#include "tests/app/cli_runner.h"

namespace trv::test {
namespace {

constexpr const char* kInbox = "Local Folders/Inbox";

unsigned Mode(const std::filesystem::path& p) {
  struct stat st {};
  EXPECT_EQ(::stat(p.c_str(), &st), 0) << p;
  return st.st_mode & 07777;
}

class CliNewcomerTest : public CliTestBase {};

// Mail, index, log and settings 0600, the directory 0700, under the usual
// umask; a directory made open beforehand is closed and the log says so.
TEST_F(CliNewcomerTest, FilesArePrivateUnderUmask022) {
  const mode_t saved = ::umask(022);
  std::filesystem::create_directories(box_.data_dir());
  ::chmod(box_.data_dir().c_str(), 0755);
  WriteFile(box_.root() / "a.eml", "From: a@b\nSubject: a\n\nx\n");
  Ok({"import", kInbox, (box_.root() / "a.eml").string()});
  Ok({"export", kInbox, "--mbox", (box_.root() / "out.mbox").string()});
  ::umask(saved);

  EXPECT_EQ(Mode(box_.data_dir()), 0700u);
  EXPECT_EQ(Mode(box_.root() / "out.mbox"), 0600u);
  size_t kinds = 0;
  for (const auto& entry : std::filesystem::directory_iterator(box_.data_dir())) {
    const std::string ext = entry.path().extension().string();
    kinds += ext == ".fld" || ext == ".idx" || ext == ".log" || ext == ".ini";
    EXPECT_EQ(Mode(entry.path()), 0600u) << entry.path();
  }
  EXPECT_GE(kinds, 4u) << "folder files, the index, the log and the settings were all looked at";
  EXPECT_NE(ReadFile(box_.data_dir() / "TarvoMail.log").find("was open to other users; its mode is now 0700"),
            std::string::npos);
}

// Marked read, exported, imported elsewhere: read again, and the unread one
// comes back byte for byte.
TEST_F(CliNewcomerTest, MboxRoundTripKeepsTheReadState) {
  WriteFile(box_.root() / "in.mbox",
            "From a@b Mon Mar  4 10:00:00 2024\nFrom: a@b\nDate: Mon, 4 Mar 2024 10:00:00 +0000\nSubject: one\n\n"
            "first\n\nFrom c@d Mon Mar  4 11:00:00 2024\nFrom: c@d\nDate: Mon, 4 Mar 2024 11:00:00 +0000\n"
            "Subject: two\n\nsecond\n");
  Ok({"import", kInbox, (box_.root() / "in.mbox").string()});
  Ok({"mark", kInbox, "1", "read"});
  Ok({"mkdir", "Local Folders/Again"});
  const std::string mbox = (box_.root() / "out.mbox").string();
  Ok({"export", kInbox, "--mbox", mbox});
  Ok({"import", "Local Folders/Again", mbox});
  // Twice: a message that already says its state is written as it is.
  const std::string again = (box_.root() / "again.mbox").string();
  Ok({"export", "Local Folders/Again", "--mbox", again});
  EXPECT_EQ(ReadFile(again), ReadFile(mbox));

  const JsonValue before = List(kInbox);
  const JsonValue after = List("Local Folders/Again");
  ASSERT_EQ(after.size(), 2u);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(after[i]["read"].boolean, before[i]["read"].boolean) << i;
    EXPECT_EQ(after[i]["subject"].text, before[i]["subject"].text) << i;
  }
  EXPECT_TRUE(after[0]["read"].boolean);
  EXPECT_EQ(Ok({"show", "Local Folders/Again", after[1]["key"].text, "--raw"}).out,
            Ok({"show", kInbox, before[1]["key"].text, "--raw"}).out);
}

// run.sh in a copy of the scripts with a cmake that reports a build on
// standard output and a program already built: standard output is the
// program's alone, the build's lines go to standard error, and the line of a
// build with nothing to do is not said at all.
TEST_F(CliNewcomerTest, RunScriptKeepsStandardOutputClean) {
  const std::filesystem::path tree = box_.root() / "tree";
  std::filesystem::create_directories(tree / "scripts");
  std::filesystem::create_directories(tree / "bin");
  std::filesystem::create_directories(tree / "build-app/app");
  for (const char* script : {"run.sh", "install-deps.sh"}) {
    std::filesystem::copy_file(std::filesystem::path(TRV_SOURCE_DIR) / "scripts" / script, tree / "scripts" / script);
  }
  WriteFile(tree / "bin/cmake",
            "#!/bin/sh\n[ \"$1\" = --build ] && printf '[1/1] Linking CXX executable app/trvmail-cli\\n"
            "ninja: no work to do.\\n'\nexit 0\n");
  ::chmod((tree / "bin/cmake").c_str(), 0755);
  std::filesystem::create_symlink(TRVMAIL_CLI_PATH, tree / "build-app/app/trvmail-cli");

  const std::string command = "PATH='" + (tree / "bin").string() + "':\"$PATH\" sh '" +
                              (tree / "scripts/run.sh").string() + "' --version >'" + (tree / "out").string() +
                              "' 2>'" + (tree / "err").string() + "'";
  ASSERT_EQ(std::system(command.c_str()), 0) << ReadFile(tree / "err");
  EXPECT_EQ(ReadFile(tree / "out"), Ok({"--version"}).out);
  EXPECT_NE(ReadFile(tree / "err").find("Linking CXX executable"), std::string::npos);
  EXPECT_EQ(ReadFile(tree / "err").find("no work to do"), std::string::npos);
}

}  // namespace
}  // namespace trv::test
