// What a newcomer meets first: private files whatever the umask, an mbox
// export that keeps the read state, and a run.sh whose output is the program's.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <set>

#include "tests/app/cli_runner.h"

namespace trv::test {
namespace {

constexpr const char* kInbox = "Local Folders/Inbox";

unsigned Mode(const std::filesystem::path& p) {
  struct stat st {};
  return ::stat(p.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

using CliNewcomerTest = CliTestBase;

// Under umask 022, with the data directory made 0755 beforehand.
TEST_F(CliNewcomerTest, FilesArePrivateUnderUmask022) {
  const mode_t saved = ::umask(022);
  std::filesystem::create_directories(data_dir());
  WriteFile(root() / "a.eml", "Subject: a\n\nx\n");
  Ok({"import", kInbox, (root() / "a.eml").string()});
  Ok({"export", kInbox, "--mbox", (root() / "out.mbox").string()});
  ::umask(saved);
  EXPECT_EQ(Mode(data_dir()), 0700u);
  EXPECT_EQ(Mode(root() / "out.mbox"), 0600u);
  std::set<std::string> kinds;
  for (const auto& entry : std::filesystem::directory_iterator(data_dir())) {
    kinds.insert(entry.path().extension().string());
    EXPECT_EQ(Mode(entry.path()), 0600u) << entry.path();
  }
  EXPECT_EQ(kinds, (std::set<std::string>{".fld", ".idx", ".log", ".ini"}));
  EXPECT_NE(ReadFile(data_dir() / "TarvoMail.log").find("its mode is now 0700"), std::string::npos);
}

// Marked read, exported, imported elsewhere: read again; the unread message
// comes back byte for byte.
TEST_F(CliNewcomerTest, MboxRoundTripKeepsTheReadState) {
  WriteFile(root() / "in.mbox", "From a@b Mon Mar  4 10:00:00 2024\nSubject: one\n\n1\n\n"
                                     "From c@d Mon Mar  4 11:00:00 2024\nSubject: two\n\n2\n");
  Ok({"import", kInbox, (root() / "in.mbox").string()});
  Ok({"mark", kInbox, "1", "read"});
  Ok({"mkdir", "Local Folders/Again"});
  Ok({"export", kInbox, "--mbox", (root() / "out.mbox").string()});
  Ok({"import", "Local Folders/Again", (root() / "out.mbox").string()});
  JsonList again = List("Local Folders/Again");
  ASSERT_EQ(again.size(), 2u);
  EXPECT_TRUE(again[0]["read"].boolean);
  EXPECT_FALSE(again[1]["read"].boolean);
  EXPECT_EQ(Ok({"show", "Local Folders/Again", again[1]["key"].text, "--raw"}).out,
            Ok({"show", kInbox, "2", "--raw"}).out);
}

// A copy of the scripts, a cmake that reports a build on standard output, a
// program already built: the build's lines go to standard error, "no work
// to do" nowhere, and standard output is the program's alone.
TEST_F(CliNewcomerTest, RunScriptKeepsStandardOutputClean) {
  const std::filesystem::path tree = root() / "tree";
  for (const char* dir : {"scripts", "bin", "build-app/app"}) std::filesystem::create_directories(tree / dir);
  for (const char* script : {"run.sh", "install-deps.sh"}) {
    std::filesystem::copy_file(std::filesystem::path(TRV_SOURCE_DIR) / "scripts" / script, tree / "scripts" / script);
  }
  WriteFile(tree / "bin/cmake", "#!/bin/sh\n[ \"$1\" = --build ] && printf '[1/1] Linking trvmail-cli\\n"
                                "ninja: no work to do.\\n'\nexit 0\n");
  ::chmod((tree / "bin/cmake").c_str(), 0755);
  std::filesystem::create_symlink(TRVMAIL_CLI_PATH, tree / "build-app/app/trvmail-cli");
  const std::string command = "PATH='" + (tree / "bin").string() + "':\"$PATH\" sh '" + tree.string() +
                              "/scripts/run.sh' --version >'" + tree.string() + "/out' 2>'" + tree.string() + "/err'";
  ASSERT_EQ(std::system(command.c_str()), 0) << ReadFile(tree / "err");
  EXPECT_EQ(ReadFile(tree / "out"), Ok({"--version"}).out);
  EXPECT_EQ(ReadFile(tree / "err"), "[1/1] Linking trvmail-cli\n");
}

}  // namespace
}  // namespace trv::test
