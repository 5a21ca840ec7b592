#include "core/settings_tree.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <tuple>

namespace trv {
namespace {

using Names = std::vector<std::string>;
const std::string kHeader = "# Automatically generated file. DO NOT MODIFY!!!\r\n";

std::string Reloaded(const Settings& s, SettingsOptions options = {}) {
  Settings copy(options);
  copy.LoadFromBytes(s.SaveToBytes());
  return copy.SaveToBytes();
}

// The header, the root's values, then each section after its parents; array
// elements in index order.
TEST(SettingsWriteTest, LayoutOfTheFile) {
  Settings s;
  ASSERT_TRUE(s.WriteString("Service.{x}", "Class8", "POP3").ok());
  ASSERT_TRUE(s.WriteStringElement("Service.{x}", "List", 1, "b").ok());
  ASSERT_TRUE(s.WriteStringElement("Service.{x}", "List", 0, "a").ok());
  ASSERT_TRUE(s.WriteWideStringElement("Service.{x}", "Names", 0, u"\u00e9").ok());
  ASSERT_TRUE(s.WriteInteger("", "Version", 2).ok());
  ASSERT_TRUE(s.WriteBoolean("CMLGUIParams\\View", "Wide", false).ok());
  EXPECT_EQ(s.SaveToBytes(), kHeader + "Version=2\r\n\n[Service.{x}]\nClass8=POP3\r\nList[0]=a\r\nList[1]=b\r\n"
                                 "Names[0]=\xEF\xBB\xBF\xC3\xA9\r\n\n[CMLGUIParams]\n\n[CMLGUIParams\\View]\nWide=false\r\n");
}

// The text each type is written as; every typed read gives the same answer
// on the value as written and on the value as read back from the file.
TEST(SettingsRoundTripTest, ReadsAgreeBeforeAndAfterTheFile) {
  // `text` is as written without numeric booleans.
  struct Row { const char* name; std::function<Result(Settings&)> write; std::string text; SettingsType type_after_load; };
  const uint8_t bytes[] = {1, 2, 254};
  const Row rows[] = {
      {"boolean", [](Settings& s) { return s.WriteBoolean("S", "V", true); }, "true", SettingsType::kBoolean},
      {"integer", [](Settings& s) { return s.WriteInteger("S", "V", -2147483647 - 1); }, "-2147483648",
       SettingsType::kInteger},
      {"text TRUE", [](Settings& s) { return s.WriteString("S", "V", "TRUE"); }, "TRUE", SettingsType::kBoolean},
      {"empty text", [](Settings& s) { return s.WriteString("S", "V", ""); }, "", SettingsType::kString},
      {"wide text with lines", [](Settings& s) { return s.WriteWideString("S", "V", u"R,\r\n\u00c5 \U0001F600"); },
       "\xEF\xBB\xBFR,\xC0\x8D\xC0\x8A\xC3\x85 \xED\xA0\xBD\xED\xB8\x80", SettingsType::kString},
      {"binary", [&](Settings& s) { return s.WriteBinary("S", "V", bytes); }, "584D0102FE", SettingsType::kString},
      {"double", [](Settings& s) { return s.WriteDouble("S", "V", 2.25); }, "2.250000", SettingsType::kString},
  };
  const auto reads = [](const Settings& s) {
    std::vector<uint8_t> bin;
    const Result binary = s.ReadBinary("S", "V", &bin);
    return std::make_tuple(s.ReadString("S", "V", "?"), s.ReadWideString("S", "V", u"?"), s.ReadInteger("S", "V", 77),
                           s.ReadBoolean("S", "V", true), s.ReadBoolean("S", "V", false), s.ReadDouble("S", "V", -9),
                           binary, bin);
  };
  for (const bool numeric : {false, true}) {
    const SettingsOptions options{'\\', '=', '#', numeric};
    for (const Row& r : rows) {
      SCOPED_TRACE(std::string(r.name) + (numeric ? " (numeric booleans)" : ""));
      Settings before(options);
      ASSERT_TRUE(r.write(before).ok());
      if (!numeric) {
        EXPECT_EQ(before.SaveToBytes(), kHeader + "\n[S]\nV=" + r.text + "\r\n");
      }
      Settings after(options);
      ASSERT_TRUE(after.LoadFromBytes(before.SaveToBytes()).empty());
      if (!numeric || r.type_after_load != SettingsType::kBoolean) {
        EXPECT_EQ(after.TypeOfValue("S", "V"), r.type_after_load);
      }
      EXPECT_EQ(reads(before), reads(after));
      EXPECT_EQ(Reloaded(after, options), after.SaveToBytes());
    }
  }
}

// How loaded text reads through the typed calls (the type of each text is
// tabled in SettingsTextTypeTest).
TEST(SettingsRoundTripTest, TypeRulesOfLoadedText) {
  Settings s;
  ASSERT_TRUE(s.LoadFromBytes("B=true\r\nD=1\r\nG=x\r\n").empty());
  EXPECT_EQ(s.ReadInteger("", "B", 5), 1);
  EXPECT_TRUE(s.ReadBoolean("", "D", false));  // services keep booleans as integers
  std::vector<uint8_t> bytes;
  EXPECT_EQ(s.ReadBinary("", "G", &bytes), Settings::kWrongType);
  // A short buffer gets nothing and learns the size it needs.
  const uint8_t written[] = {9, 8, 7, 6};
  ASSERT_TRUE(s.WriteBinary("S", "Psswd", written).ok());
  uint8_t buf[8] = {};
  size_t size = 3;
  EXPECT_EQ(s.ReadBinary("S", "Psswd", buf, &size), Settings::kMoreData);
  EXPECT_EQ(size, 4u);
  EXPECT_EQ(buf[0], 0);
  EXPECT_EQ(s.ReadBinary("S", "None", buf, &size), Settings::kNotFound);
}

// Load, then save: what is kept and where, which lines are reported; a second
// load and save gives the same text again.
TEST(SettingsReadTest, LoadThenSave) {
  std::string deep = "[";
  for (size_t i = 0; i <= Settings::kMaxSectionDepth; ++i) deep += "d\\";
  deep += "]";
  // `saved` empty: the input itself; `reported`: the lines with a diagnostic.
  struct Row { const char* name; std::string in; std::string saved; std::vector<int> reported; };
  const Row rows[] = {
      {"comments survive unchanged and in place",
       kHeader + "# about the root\r\nVersion=2\r\n\n[A]\n#   note = with separator\r\nKey=1\r\n#\r\nOther=x\r\n", "", {}},
      {"the header is added first; bare LF, parents of a heading", "[a\\b]\nK=v\n[c]\nL=w",
       kHeader + "\n[a]\n\n[a\\b]\nK=v\r\n\n[c]\nL=w\r\n", {}},
      {"empty names in a heading skipped, [] is the root", "[\\a\\\\b\\]\nK=1\r\n[]\nR=2\r\n",
       kHeader + "R=2\r\n\n[a]\n\n[a\\b]\nK=1\r\n", {}},
      {"only the line end is taken off a value", "K= v \r\r\n", kHeader + "K= v \r\r\n", {}},
      {"garbage lines are kept where they were",
       kHeader + "\n[S]\nA=1\r\nno separator\r\n=no name\r\n[unclosed heading\r\n\x01\x02\xFF junk\r\nB=995\r\n", "",
       {5, 6, 7, 8}},
      {"a heading past the depth limit is kept as a comment", "[A]\n" + deep + "\nK=1\r\n",
       kHeader + "\n[A]\n" + deep + "\r\nK=1\r\n", {2}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    Settings s;
    std::vector<int> reported;
    for (const SettingsDiagnostic& d : s.LoadFromBytes(r.in)) {
      reported.push_back(d.line);
      EXPECT_NE(d.message.find("kept"), std::string::npos) << d.message;
    }
    EXPECT_EQ(reported, r.reported);
    EXPECT_EQ(s.SaveToBytes(), r.saved.empty() ? r.in : r.saved);
    EXPECT_EQ(Reloaded(s), s.SaveToBytes());
  }
}

// The later line wins; the value keeps the place of its first line.
TEST(SettingsReadTest, RepeatedNamesTheLaterLineWins) {
  Settings s;
  const auto d = s.LoadFromBytes("[S]\nA=1\r\nB=x\r\na=2\r\nL[0]=p\r\nL[0]=q\r\nB[1]=y\r\nL=z\r\n");
  const std::pair<int, const char*> expected[] = {
      {4, "repeats line 2"}, {6, "repeats line 5"}, {7, "replaces the value of line 3"}, {8, "replaces the array"}};
  ASSERT_EQ(d.size(), std::size(expected));
  for (size_t i = 0; i < d.size(); ++i) {
    EXPECT_EQ(d[i].line, expected[i].first);
    EXPECT_NE(d[i].message.find(expected[i].second), std::string::npos) << d[i].message;
  }
  EXPECT_EQ(s.ReadInteger("S", "A", 0), 2);
  EXPECT_EQ(s.ArrayLength("S", "B"), 2u);
  EXPECT_EQ(s.ReadStringElement("S", "B", 1), "y");
  EXPECT_EQ(s.ReadString("S", "L"), "z");
  EXPECT_EQ(s.ListValues("S"), (Names{"A", "B", "L"}));
}

// Decimal, hexadecimal and octal indexes; holes are empty elements; indexes
// that do not parse leave plain values with the whole name.
TEST(SettingsReadTest, ArrayElementIndexes) {
  Settings s;
  const auto d = s.LoadFromBytes(
      "[S]\nDec[1]=one\r\nDec[0]=zero\r\nHex[0x2]=two\r\nOct[010]=eight\r\n"
      "Bad[x]=1\r\nBad8[08]=2\r\nNeg[-1]=3\r\nBig[65536]=4\r\nMax[65535]=5\r\n");
  ASSERT_EQ(d.size(), 1u);  // only the index past the limit is reported
  EXPECT_EQ(d[0].line, 9);
  const std::pair<const char*, size_t> lengths[] = {{"Dec", 2}, {"Hex", 3}, {"Max", 65536}, {"Big", 0}};
  for (const auto& [name, length] : lengths) EXPECT_EQ(s.ArrayLength("S", name), length) << name;
  const std::tuple<const char*, size_t, const char*> elements[] = {
      {"Dec", 0, "zero"}, {"Dec", 1, "one"}, {"Hex", 0, ""}, {"Hex", 2, "two"}, {"Oct", 8, "eight"}, {"Oct", 9, "?"}};
  for (const auto& [name, i, want] : elements) EXPECT_EQ(s.ReadStringElement("S", name, i, "?"), want) << name << i;
  const std::pair<const char*, int> plain[] = {{"Bad[x]", 1}, {"Bad8[08]", 2}, {"Neg[-1]", 3}, {"Big[65536]", 4}};
  for (const auto& [name, value] : plain) EXPECT_EQ(s.ReadInteger("S", name, 0), value) << name;
}

TEST(SettingsTreeTest, ListCreateAndDeleteSections) {
  Settings s;
  EXPECT_TRUE(s.LoadFromBytes("[Service.{b}]\n[Folder.{b}.1]\n[Service.{a}]\n[Service.{a}\\Sub]\nK=1\r\n").empty());
  EXPECT_EQ(s.ListSections("\\"), (Names{"Service.{b}", "Folder.{b}.1", "Service.{a}"}));
  EXPECT_TRUE(s.ListSections("Nowhere").empty());
  EXPECT_TRUE(s.DeleteSection("SERVICE.{A}").ok());  // names ignore letter case
  EXPECT_FALSE(s.HasSection("Service.{a}\\Sub"));
  EXPECT_EQ(s.DeleteSection("Service.{a}"), Settings::kNotFound);
  EXPECT_EQ(s.DeleteSection("\\"), rc::kInvalidArg);
  EXPECT_TRUE(s.CreateSection("New\\Deeper").ok());
  EXPECT_EQ(s.ListSections(""), (Names{"Service.{b}", "Folder.{b}.1", "New"}));
  // A section made again after deletion goes to the end, without its old subsections.
  ASSERT_TRUE(s.WriteInteger("Service.{a}", "K", 2).ok());
  EXPECT_EQ(s.ListSections("").back(), "Service.{a}");
  EXPECT_EQ(s.ReadInteger("Service.{a}\\Sub", "K", -1), -1);
}

TEST(SettingsTreeTest, InvalidWritesAreRefused) {
  Settings s;
  for (const char* name : {"", "#1", "a=b", "a[0]", "x]", "line\nbreak", "cr\r"}) {
    EXPECT_EQ(s.WriteInteger("S", name, 1), rc::kInvalidArg) << "name \"" << name << "\"";
    EXPECT_EQ(s.WriteStringElement("S", name, 0, "x"), rc::kInvalidArg) << "name \"" << name << "\"";
  }
  EXPECT_EQ(s.WriteString("S", "Host", "a\r\nb"), rc::kInvalidArg);
  EXPECT_EQ(s.WriteStringElement("S", "L", 0, "a\nb"), rc::kInvalidArg);
  EXPECT_EQ(s.WriteStringElement("S", "L", Settings::kMaxArrayLength, "a"), rc::kInvalidArg);
  EXPECT_EQ(s.WriteInteger("bad\nsection", "K", 1), rc::kInvalidArg);
  std::string deep;
  for (size_t i = 0; i <= Settings::kMaxSectionDepth; ++i) deep += "d\\";
  EXPECT_EQ(s.WriteInteger(deep, "K", 1), rc::kInvalidArg);
  EXPECT_EQ(s.SaveToBytes(), kHeader);  // nothing was stored
}

TEST(SettingsTreeTest, ArraysElementByElement) {
  Settings s;
  ASSERT_TRUE(s.WriteWideStringElement("S", "W", 2, u"\u00e9").ok());
  EXPECT_EQ(s.TypeOfValue("S", "W"), SettingsType::kWideStringArray);
  EXPECT_EQ(s.ArrayLength("S", "W"), 3u);
  EXPECT_EQ(s.ReadStringElement("S", "W", 2), "\xEF\xBB\xBF\xC3\xA9");
  // An 8-bit element turns the array into an 8-bit one without changing
  // what the other elements read as.
  ASSERT_TRUE(s.WriteStringElement("S", "W", 0, "plain").ok());
  EXPECT_EQ(s.TypeOfValue("S", "W"), SettingsType::kStringArray);
  EXPECT_EQ(s.ReadWideStringElement("S", "W", 2), u"\u00e9");
  EXPECT_EQ(s.ReadWideStringElement("S", "W", 0, u"not wide"), u"not wide");
  // Writing an element into a scalar replaces it.
  ASSERT_TRUE(s.WriteInteger("S", "N", 1).ok());
  ASSERT_TRUE(s.WriteStringElement("S", "N", 0, "e").ok());
  EXPECT_EQ(s.ArrayLength("S", "N"), 1u);
  EXPECT_EQ(s.ReadString("S", "N", "scalar read"), "scalar read");

  EXPECT_EQ(Reloaded(s), s.SaveToBytes());
}

// Worker threads write their keys while the main thread saves: every save is
// a whole, readable tree, and the last one holds every key.
TEST(SettingsTreeTest, WritersAndSaverOnSeveralThreads) {
  Settings s;
  constexpr int kThreads = 4, kKeys = 300;
  std::atomic<bool> done{false};
  std::vector<std::thread> writers;
  const auto section = [](int t) { return "Service.{" + std::to_string(t) + "}"; };
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([&, t] {
      for (int k = 0; k < kKeys; ++k) {
        ASSERT_TRUE(s.WriteInteger(section(t), "K" + std::to_string(k), k).ok());
        ASSERT_TRUE(s.WriteWideString(section(t), "W", u"x").ok());
      }
    });
  }
  std::thread saver([&] {
    while (!done.load()) EXPECT_TRUE(Settings().LoadFromBytes(s.SaveToBytes()).empty());
  });
  for (auto& w : writers) w.join();
  done = true;
  saver.join();
  Settings last;
  EXPECT_TRUE(last.LoadFromBytes(s.SaveToBytes()).empty());
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(last.ListValues(section(t)).size(), static_cast<size_t>(kKeys + 1));
    EXPECT_EQ(last.ReadInteger(section(t), "K" + std::to_string(kKeys - 1), -1), kKeys - 1);
  }
}

}  // namespace
}  // namespace trv
