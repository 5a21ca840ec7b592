// The command line's pieces without a process: argument parsing, keys,
// tables and the listing.
#include <gtest/gtest.h>

#include "app/cli/args.h"
#include "app/cli/cli.h"
#include "app/cli/listing.h"
#include "app/cli/text_table.h"
#include "base/date_value.h"
#include "tests/app/json_value.h"
#include "tests/app/scratch_folder.h"

namespace trv::cli {
namespace {

// Positional arguments joined by " ", then each option as " name=value".
std::string Describe(const ParsedArgs& parsed) {
  std::string out;
  for (const std::string& a : parsed.positional) out += (out.empty() ? "" : " ") + a;
  for (const auto& [name, value] : parsed.options) out += " " + name + "=" + value;
  return out;
}

TEST(ArgsTest, Table) {
  const ArgOptions accepted{{"--purge", "--raw"}, {"--eml"}};
  struct Row { const char* name; std::vector<std::string> args; const char* parsed; };  // null: refused
  const Row rows[] = {
      {"positional only", {"a", "b"}, "a b"},
      {"flags anywhere", {"a", "--purge", "b"}, "a b --purge="},
      {"value as next argument", {"--eml", "dir", "x"}, "x --eml=dir"},
      {"value after =", {"--eml=dir"}, " --eml=dir"},
      {"value may start with a dash", {"--eml", "-d"}, " --eml=-d"},
      {"dash alone is standard input", {"-", "--raw"}, "- --raw="},
      {"double dash ends options", {"--", "--purge", "-x"}, "--purge -x"},
      {"unknown option", {"--nope"}, nullptr},
      {"value missing", {"--eml"}, nullptr},
      {"flag given a value", {"--purge=1"}, nullptr},
      {"given twice", {"--raw", "--raw"}, nullptr},
  };
  for (const Row& row : rows) {
    ParsedArgs parsed;
    std::string error;
    EXPECT_EQ(ParseArgs(row.args, accepted, &parsed, &error), row.parsed != nullptr) << row.name << ": " << error;
    EXPECT_EQ(row.parsed ? Describe(parsed) : std::string("refused"), row.parsed ? row.parsed : "refused") << row.name;
    EXPECT_EQ(error.empty(), row.parsed != nullptr) << row.name;
  }
}

TEST(ArgsTest, LoggedCommandLineMasksPasswords) {
  EXPECT_EQ(LoggedCommandLine({"--json", "list", "Local Folders/Inbox"}), "trvmail-cli --json list Local Folders/Inbox");
  EXPECT_EQ(LoggedCommandLine({"account", "add", "--socks-password", "s3cret", "--socks-user", "u"}),
            "trvmail-cli account add --socks-password ******** --socks-user u");
  EXPECT_EQ(LoggedCommandLine({"--password=s3cret", "x"}), "trvmail-cli --password=******** x");
  EXPECT_EQ(LoggedCommandLine({"--password-stdin", "--name", "n"}), "trvmail-cli --password-stdin --name n");
}

TEST(KeysTest, ParseAndFormat) {
  const std::pair<const char*, uint32_t> rows[] = {  // key 0: refused
      {"0000001A", 0x1A}, {"1a", 0x1A}, {"FFFFFFFF", 0xFFFFFFFF}, {"00000000", 0}, {"0", 0}, {"", 0},
      {"123456789", 0},   {"12G", 0},   {"-1", 0},                {" 1", 0}};
  for (const auto& [text, expected] : rows) {
    uint32_t key = 0;
    EXPECT_EQ(ParseKey(text, &key), expected != 0) << text;
    EXPECT_TRUE(expected == 0 || key == expected) << text << " read as " << key;
  }
  EXPECT_EQ(KeyText(0xDEADBEEF), "DEADBEEF");
  std::vector<uint32_t> keys;
  std::string error;
  ASSERT_TRUE(ParseKeys({"2", "1", "02"}, &keys, &error));
  EXPECT_EQ(keys, (std::vector<uint32_t>{2, 1}));  // a repeated key counts once, order kept
  EXPECT_FALSE(ParseKeys({"1", "zz"}, &keys, &error));
  EXPECT_NE(error.find("\"zz\""), std::string::npos);
}

TEST(TextTableTest, AlignsByCharactersAndKeepsRowsOnOneLine) {
  TextTable table({"NAME", "N"}, {TextTable::kLeft, TextTable::kRight});
  table.AddRow({"Grüße", "7"});
  table.AddRow({"a\tb\nc", "1234"});
  table.AddRow({"x"});
  EXPECT_EQ(table.Render(),
            "NAME      N\n"
            "Grüße     7\n"
            "a b c  1234\n"
            "x\n");
}

// The listing comes from the index records alone, in pieces, as valid JSON.
TEST(ListingTest, JsonFromTheIndexAlone) {
  test::ScratchFolder folder;
  FolderFile& file = folder.file;
  std::vector<NewMessage> batch(3000);  // enough to be handed out in several pieces
  for (NewMessage& m : batch) m = {MessageRecord(), "Subject: x\r\n\r\n"};
  batch[0].record.from = u"Zo\u00eb \"Z\" <z@x.org>";
  batch[0].record.subject = u"tab\there\u2603";
  ASSERT_TRUE(file.AppendMany(batch, nullptr).ok());
  file.Close();
  ASSERT_TRUE(file.Open(folder.dir / "f.fld").ok());
  const ContainerCounters before = file.counters();
  ASSERT_TRUE(file.LoadIndex().ok());
  std::string streamed;
  size_t pieces = 0;
  WriteListingJson(file, [&](std::string_view piece) {
    ++pieces;
    streamed.append(piece);
  });
  EXPECT_EQ(file.counters().streams_opened - before.streams_opened, 1u);  // "/Index", no message
  EXPECT_GT(pieces, 1u);
  const test::JsonList v = test::Json(streamed);
  ASSERT_EQ(v.size(), 3000u);
  EXPECT_EQ(v[0]["from"].text, "Zo\u00eb \"Z\" <z@x.org>");
  EXPECT_EQ(v[0]["subject"].text, "tab\there\u2603");
  EXPECT_EQ(v[2999]["key"].text, "00000BB8");
  EXPECT_EQ(v[2999]["date"].type, test::JsonValue::kNull);
}

}  // namespace
}  // namespace trv::cli
