#include "core/registry.h"

#include <gtest/gtest.h>

#include "tests/core/scoped_env.h"
#include "tests/support/temp_dir.h"

namespace trv {
namespace {

using test::ReadFile;
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
    test::ScopedEnv xdg("XDG_CONFIG_HOME", r.xdg), home("HOME", r.home);
    EXPECT_EQ(RegistryKey::DefaultPath(), r.path);
  }
}

// Strings are plain UTF-8 a person can edit; a hand edit may add the
// settings file's UTF-8 mark. A failed read leaves the value as it was.
TEST(RegistryTest, ValuesSurviveFlushAndReopenAndFailedReadsChangeNothing) {
  TempDir dir;
  const auto path = dir / "config/Tarvo/Mail2.ini";
  const uint8_t placement[] = {0x2C, 0, 0, 0, 0xFF};
  {
    std::unique_ptr<RegistryKey> key;
    ASSERT_TRUE(RegistryKey::Open(path, &key).ok());
    ASSERT_TRUE(key->WriteString("", "DataDir", u"/home/u/Tarvo\u00e9Mail/").ok());
    ASSERT_TRUE(key->WriteDword("CMLGUIParams", "ViewMode", 0xFFFFFFFFu).ok());
    ASSERT_TRUE(key->WriteBinary("CMLGUIParams\\MainWnd", "Placement", placement).ok());
  }  // the destructor flushes
  const std::string text = ReadFile(path);
  EXPECT_NE(text.find("DataDir=/home/u/Tarvo\xC3\xA9Mail/\r\n"), std::string::npos);
  WriteFile(path, "Marked=\xEF\xBB\xBF/opt/t\xC3\xA4rvo\n" + text);

  std::unique_ptr<RegistryKey> key;
  ASSERT_TRUE(RegistryKey::Open(path, &key).ok());
  WString s;
  ASSERT_TRUE(key->ReadString("", "Marked", &s).ok());
  EXPECT_EQ(s, u"/opt/t\u00e4rvo");
  uint32_t dword = 0;
  ASSERT_TRUE(key->ReadDword("CMLGUIParams", "ViewMode", &dword).ok());
  EXPECT_EQ(dword, 0xFFFFFFFFu);
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(key->ReadBinary("CMLGUIParams\\MainWnd", "Placement", &bytes).ok());
  EXPECT_EQ(bytes, std::vector<uint8_t>(placement, placement + sizeof placement));

  EXPECT_EQ(key->ReadString("NoSubkey", "DataDir", &s), Settings::kNotFound);
  EXPECT_EQ(s, u"/opt/t\u00e4rvo");
  EXPECT_EQ(key->ReadDword("", "DataDir", &dword), Settings::kWrongType);
  EXPECT_EQ(dword, 0xFFFFFFFFu);
}

}  // namespace
}  // namespace trv
