#include "tests/app/cli_runner.h"

namespace trv::test {
namespace {

using CliSearchTest = CliTestBase;

// The command's wiring: hits in JSON with their folder, a moved message found
// where it went, hostile syntax taken as words, an unknown folder refused.
TEST_F(CliSearchTest, FindsMessagesWhereTheyAreNow) {
  const std::filesystem::path eml = root() / "a.eml";
  WriteFile(eml, "From: Ann <ann@example.org>\r\nSubject: Walrus\r\nDate: Mon, 4 Mar 2024 10:00:00 +0000\r\n\r\n"
                 "tusks and flippers\r\n");
  Ok({"import", "Local Folders/Inbox", eml.string()});
  const auto search = [&](const std::vector<std::string>& args) {
    std::vector<std::string> all = {"--json", "search"};
    all.insert(all.end(), args.begin(), args.end());
    return Json(Ok(all).out);
  };
  JsonList hits = search({"from:ann", "\"tusks and\""});
  ASSERT_EQ(hits.size(), 1u);
  EXPECT_EQ(hits[0]["folder"].text, "Local Folders/Inbox");
  EXPECT_EQ(hits[0]["subject"].text, "Walrus");
  EXPECT_EQ(search({"tusks OR NEAR(\"x"}).size(), 0u);
  Ok({"mkdir", "Local Folders/Archive"});
  Ok({"mv", "Local Folders/Inbox", hits[0]["key"].text, "Local Folders/Archive"});
  hits = search({"flippers"});
  ASSERT_EQ(hits.size(), 1u);
  EXPECT_EQ(hits[0]["folder"].text, "Local Folders/Archive");
  EXPECT_EQ(search({"flippers", "--folder", "Local Folders/Inbox"}).size(), 0u);
  EXPECT_EQ(Run({"search", "x", "--folder", "Local Folders/Nowhere"}).status, 1);
}

}  // namespace
}  // namespace trv::test
