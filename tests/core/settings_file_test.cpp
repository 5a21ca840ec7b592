#include "core/settings_file.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/recording_log.h"
#include "tests/support/temp_dir.h"

namespace trv {
namespace {

using test::ReadFile;
using test::RecordingLog;
using test::TempDir;
using test::WriteFile;
using Lines = std::vector<std::string>;

mode_t ModeOf(const std::filesystem::path& p) {
  struct stat st;
  EXPECT_EQ(::stat(p.c_str(), &st), 0);
  return st.st_mode & 07777;
}

// Opens a file in `mode` and reads it into `settings`.
std::unique_ptr<SettingsStream> OpenAndLoad(const std::filesystem::path& p, Settings& settings,
                                            LogSink* log = nullptr, int mode = kSettingsOpenRead) {
  auto stream = OpenSettingsStream(p, mode);
  EXPECT_NE(stream, nullptr);
  EXPECT_TRUE(stream && LoadSettings(settings, *stream, log).ok());
  return stream;
}

// A large tree, so that a save needs many writes.
void FillLarge(Settings& s) {
  for (int i = 0; i < 2000; ++i) ASSERT_TRUE(s.WriteString("F." + std::to_string(i), "Name", std::string(40, 'n')).ok());
}

TEST(SettingsFileTest, OpenModes) {
  TempDir dir;
  const auto path = dir / "sub/dir/Settings.ini";
  Result r;
  EXPECT_EQ(OpenSettingsStream(path, kSettingsOpenRead, &r), nullptr);
  EXPECT_EQ(r, ResultFromErrno(ENOENT));
  EXPECT_EQ(OpenSettingsStream(path, 2, &r), nullptr);
  EXPECT_EQ(r, rc::kInvalidArg);
  EXPECT_FALSE(std::filesystem::exists(path));
  auto created = OpenSettingsStream(path, kSettingsOpenAlways, &r);
  ASSERT_NE(created, nullptr);
  EXPECT_TRUE(r.ok());
  EXPECT_EQ(std::filesystem::file_size(path), 0u);
  EXPECT_EQ(ModeOf(path), 0600u);

  // Now that it exists, mode 4 does not empty it.
  WriteFile(path, "K=v\r\n");
  Settings s;
  OpenAndLoad(path, s, nullptr, kSettingsOpenAlways);
  EXPECT_EQ(s.ReadString("", "K"), "v");

  std::filesystem::create_directory(dir / "Settings.ini");  // a directory in the place of the file
  EXPECT_EQ(OpenSettingsStream(dir / "Settings.ini", kSettingsOpenAlways, &r), nullptr);
  EXPECT_EQ(r, ResultFromErrno(EISDIR));
}

TEST(SettingsFileTest, SaveReplacesTheWholeFileAndLeavesNoTemporary) {
  TempDir dir;
  const auto path = dir / "Settings.ini";
  WriteFile(path, "[Service.{1}]\nClass=\xEF\xBB\xBFPOP3\r\nOld=1\r\n");
  ::chmod(path.c_str(), 0640);
  Settings s;
  auto stream = OpenAndLoad(path, s);
  ASSERT_TRUE(s.DeleteValue("Service.{1}", "Old").ok());
  ASSERT_TRUE(s.WriteInteger("Service.{1}", "POP3Port", 995).ok());
  ASSERT_TRUE(SaveSettings(s, *stream, nullptr).ok());
  EXPECT_EQ(ReadFile(path), s.SaveToBytes());
  EXPECT_FALSE(std::filesystem::exists(dir / "Settings.ini.tmp"));
  EXPECT_EQ(ModeOf(path), 0600u);  // private whatever it was: it holds passwords

  // A symbolic link is written through: the file it names gets the content.
  std::filesystem::rename(path, dir / "real.ini");
  std::filesystem::create_symlink(dir / "real.ini", path);
  auto linked = OpenAndLoad(path, s);
  ASSERT_TRUE(s.WriteInteger("", "K", 2).ok());
  ASSERT_TRUE(SaveSettings(s, *linked, nullptr).ok());
  EXPECT_TRUE(std::filesystem::is_symlink(path));
  EXPECT_EQ(ReadFile(dir / "real.ini"), s.SaveToBytes());
}

// Settings that could not be read are never replaced, and a failed read
// leaves the tree as it was.
TEST(SettingsFileTest, UnreadContentIsNeverOverwritten) {
  TempDir dir;
  const auto path = dir / "Settings.ini";
  WriteFile(path, "Precious=1\r\n");
  auto stream = OpenSettingsStream(path, kSettingsOpenRead);
  ASSERT_NE(stream, nullptr);
  Settings s;
  ASSERT_TRUE(s.WriteInteger("", "Kept", 7).ok());
  RecordingLog log;
  EXPECT_TRUE(SaveSettings(s, *stream, &log).failed());
  EXPECT_EQ(ReadFile(path), "Precious=1\r\n");

  std::filesystem::rename(path, dir / "away");
  EXPECT_EQ(LoadSettings(s, *stream, &log), ResultFromErrno(ENOENT));
  EXPECT_EQ(s.ReadInteger("", "Kept", 0), 7);
  EXPECT_EQ(log.lines, (Lines{"Cannot save settings file " + path.string() +
                                   ": its content could not be read, so it is left unchanged",
                               "Cannot read settings file " + path.string() + ": " + ResultText(ResultFromErrno(ENOENT))}));

  // A file created empty by mode 4 has nothing to lose.
  auto fresh = OpenSettingsStream(dir / "New.ini", kSettingsOpenAlways);
  ASSERT_NE(fresh, nullptr);
  EXPECT_TRUE(SaveSettings(s, *fresh, nullptr).ok());
  EXPECT_EQ(ReadFile(dir / "New.ini"), s.SaveToBytes());
}

TEST(SettingsFileTest, GarbageIsReportedWithFileAndLineAndNothingIsLost) {
  TempDir dir;
  const auto path = dir / "Settings.ini";
  const std::string text = "# Automatically generated file. DO NOT MODIFY!!!\r\n\n[S]\nA=1\r\nSMTPPsswd garbage 123\r\nB=2\r\n";
  WriteFile(path, text);
  Settings s;
  RecordingLog log;
  auto stream = OpenAndLoad(path, s, &log);
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0].rfind("Settings file " + path.string() + ", line 5: ", 0), 0u) << log.lines[0];
  EXPECT_EQ(log.lines[0].find("garbage"), std::string::npos) << "the line's text is not quoted";
  EXPECT_EQ(s.ReadInteger("S", "B", 0), 2);
  ASSERT_TRUE(SaveSettings(s, *stream, &log).ok());
  EXPECT_EQ(ReadFile(path), text);
}

// Runs `body` in a child process that is killed when a file grows past
// `limit` bytes; returns the wait status.
template <typename F>
int RunWithFileSizeLimit(rlim_t limit, F body) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::signal(SIGXFSZ, SIG_DFL);
    const rlimit rl{limit, limit};
    ::setrlimit(RLIMIT_FSIZE, &rl);
    ::_exit(body());
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return status;
}

// A process killed in the middle of a save leaves the old file whole.
TEST(SettingsFileTest, CrashDuringSaveKeepsTheOldFile) {
  TempDir dir;
  const auto path = dir / "Settings.ini";
  const std::string old_text = "# Automatically generated file. DO NOT MODIFY!!!\r\n\n[Service.{1}]\nClass=POP3\r\n";
  WriteFile(path, old_text);
  Settings s;
  auto stream = OpenAndLoad(path, s);
  FillLarge(s);
  ASSERT_GT(s.SaveToBytes().size(), 50000u);

  const int status = RunWithFileSizeLimit(20000, [&] { return SaveSettings(s, *stream, nullptr).ok() ? 0 : 1; });
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ) << "the child should have been killed mid-write";
  EXPECT_EQ(ReadFile(path), old_text);
  EXPECT_LE(std::filesystem::file_size(dir / "Settings.ini.tmp"), 20000u);  // the torn write

  // The next start reads the old settings, and the next save succeeds over
  // the stale temporary file.
  Settings after;
  auto next = OpenAndLoad(path, after);
  EXPECT_EQ(after.ReadString("Service.{1}", "Class"), "POP3");
  ASSERT_TRUE(SaveSettings(s, *next, nullptr).ok());
  EXPECT_EQ(ReadFile(path), s.SaveToBytes());
  EXPECT_FALSE(std::filesystem::exists(dir / "Settings.ini.tmp"));
}

// A file system that fails writes (torn: half the bytes reach the file) or
// renames with the code of EIO.
class FailingFileSystem : public FileSystemWrapper {
 public:
  explicit FailingFileSystem(bool fail_write) : FileSystemWrapper(PosixFileSystem::Instance()), fail_write_(fail_write) {}
  Result WriteNewFile(const std::filesystem::path& p, std::string_view bytes) override {
    if (!fail_write_) return FileSystemWrapper::WriteNewFile(p, bytes);
    FileSystemWrapper::WriteNewFile(p, bytes.substr(0, bytes.size() / 2)).Ignore();  // the failure is EIO
    return ResultFromErrno(EIO);
  }
  Result Rename(const std::filesystem::path& from, const std::filesystem::path& to) override {
    return fail_write_ ? FileSystemWrapper::Rename(from, to) : ResultFromErrno(EIO);
  }

 private:
  bool fail_write_;
};

// A save whose write or rename fails reports the file and the cause, leaves
// the old file whole and removes the temporary file.
TEST(SettingsFileTest, AFailedStepOfASaveChangesNothing) {
  for (const bool fail_write : {true, false}) {
    SCOPED_TRACE(fail_write ? "write" : "rename");
    TempDir dir;
    const auto path = dir / "Settings.ini";
    WriteFile(path, "K=1\r\n");
    FailingFileSystem fs(fail_write);
    auto stream = OpenSettingsStream(path, kSettingsOpenRead, nullptr, fs);
    ASSERT_NE(stream, nullptr);
    Settings s;
    ASSERT_TRUE(LoadSettings(s, *stream, nullptr).ok());
    FillLarge(s);
    RecordingLog log;
    EXPECT_EQ(SaveSettings(s, *stream, &log), ResultFromErrno(EIO));
    EXPECT_EQ(log.lines, Lines{"Cannot save settings file " + path.string() + ": " + ResultText(ResultFromErrno(EIO))});
    EXPECT_EQ(ReadFile(path), "K=1\r\n");
    EXPECT_FALSE(std::filesystem::exists(dir / "Settings.ini.tmp"));
  }
}

}  // namespace
}  // namespace trv
