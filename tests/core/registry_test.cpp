#include "core/registry.h"

#include <gtest/gtest.h>

#include "tests/support/recording_log.h"
#include "tests/core/scoped_env.h"
#include "tests/support/temp_dir.h"

namespace trv {
namespace {

using test::ReadFile;
using test::RecordingLog;
using test::ScopedEnv;
using test::TempDir;
using test::WriteFile;

TEST(RegistryTest, DefaultPathFollowsXdgConfigHome) {
  struct Row { const char* xdg; const char* home; const char* path; };
  const Row rows[] = {
      {"/cfg", "/home/u", "/cfg/Tarvo/Mail2.ini"},
      {"relative/cfg", "/home/u", "/home/u/.config/Tarvo/Mail2.ini"},  // not absolute: ignored
      {nullptr, "/home/v", "/home/v/.config/Tarvo/Mail2.ini"},
  };
  for (const Row& r : rows) {
    ScopedEnv xdg("XDG_CONFIG_HOME", r.xdg);
    ScopedEnv home("HOME", r.home);
    EXPECT_EQ(RegistryKey::DefaultPath(), r.path);
  }
}

TEST(RegistryTest, ValuesSurviveFlushAndReopen) {
  TempDir dir;
  const auto path = dir / "config/Tarvo/Mail2.ini";
  const uint8_t placement[] = {0x2C, 0, 0, 0, 0xFF};
  {
    std::unique_ptr<RegistryKey> key;
    ASSERT_TRUE(RegistryKey::Open(path, &key).ok());
    EXPECT_TRUE(std::filesystem::exists(path));
    ASSERT_TRUE(key->WriteString("", "DataDir", u"/home/u/Documents/Tarvo\u00e9Mail/").ok());
    ASSERT_TRUE(key->WriteString("", "InstallDir", u"007").ok());
    ASSERT_TRUE(key->WriteDword("CMLGUIParams", "ViewMode", 0xFFFFFFFFu).ok());
    ASSERT_TRUE(key->WriteBinary("CMLGUIParams\\MainWnd", "Placement", placement).ok());
  }  // the destructor flushes
  // Strings are plain UTF-8, readable and editable by a person; a hand edit
  // may give them the settings file's UTF-8 mark, and a number is a string too.
  const std::string text = ReadFile(path);
  EXPECT_NE(text.find("DataDir=/home/u/Documents/Tarvo\xC3\xA9Mail/\r\n"), std::string::npos);
  WriteFile(path, "Marked=\xEF\xBB\xBF/opt/t\xC3\xA4rvo\nCount=12\n" + text);

  std::unique_ptr<RegistryKey> key;
  ASSERT_TRUE(RegistryKey::Open(path, &key).ok());
  const std::pair<const char*, WString> strings[] = {
      {"Marked", u"/opt/t\u00e4rvo"}, {"Count", u"12"}, {"DataDir", u"/home/u/Documents/Tarvo\u00e9Mail/"}, {"InstallDir", u"007"}};
  for (const auto& [name, want] : strings) {
    WString s;
    EXPECT_TRUE(key->ReadString("", name, &s).ok()) << name;
    EXPECT_EQ(s, want) << name;
  }
  uint32_t dword = 0;
  ASSERT_TRUE(key->ReadDword("CMLGUIParams", "ViewMode", &dword).ok());
  EXPECT_EQ(dword, 0xFFFFFFFFu);
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(key->ReadBinary("CMLGUIParams\\MainWnd", "Placement", &bytes).ok());
  EXPECT_EQ(bytes, std::vector<uint8_t>(placement, placement + sizeof placement));
}

// A failed read leaves the value as it was. (Writes and deletes are the
// settings tree's, tested there.)
TEST(RegistryTest, FailedReadsChangeNothing) {
  TempDir dir;
  std::unique_ptr<RegistryKey> key;
  ASSERT_TRUE(RegistryKey::Open(dir / "Mail2.ini", &key).ok());
  ASSERT_TRUE(key->WriteString("", "DataDir", u"/x").ok());
  WString s = u"unchanged";
  uint32_t dword = 42;
  EXPECT_EQ(key->ReadString("", "Missing", &s), Settings::kNotFound);
  EXPECT_EQ(key->ReadString("NoSubkey", "DataDir", &s), Settings::kNotFound);
  EXPECT_EQ(s, u"unchanged");
  EXPECT_EQ(key->ReadDword("", "DataDir", &dword), Settings::kWrongType);
  EXPECT_EQ(dword, 42u);
}

TEST(RegistryTest, UnopenableKeyFileReadsAndWritesNothing) {
  TempDir dir;
  WriteFile(dir / "Tarvo", "a file where the directory should be");
  std::unique_ptr<RegistryKey> key;
  RecordingLog log;
  const Result r = RegistryKey::Open(dir / "Tarvo/Mail2.ini", &key, &log);
  EXPECT_TRUE(r.failed());
  EXPECT_EQ(key, nullptr);
  EXPECT_EQ(log.lines, std::vector<std::string>{"Cannot open registry file " + (dir / "Tarvo/Mail2.ini").string() + ": " +
                                                ResultText(r)});
  EXPECT_EQ(ReadFile(dir / "Tarvo"), "a file where the directory should be");
}

TEST(RegistryTest, FlushWritesOnlyWhenSomethingChanged) {
  TempDir dir;
  const auto path = dir / "Mail2.ini";
  WriteFile(path, "DataDir=/a\r\n");
  std::unique_ptr<RegistryKey> key;
  ASSERT_TRUE(RegistryKey::Open(path, &key).ok());
  // Removed behind the key's back: an unchanged key does not write it again.
  std::filesystem::remove(path);
  ASSERT_TRUE(key->Flush().ok());
  EXPECT_FALSE(std::filesystem::exists(path));
  ASSERT_TRUE(key->WriteString("", "DataDir", u"/b").ok());
  ASSERT_TRUE(key->Flush().ok());
  EXPECT_NE(ReadFile(path).find("DataDir=/b\r\n"), std::string::npos);
}

}  // namespace
}  // namespace trv
