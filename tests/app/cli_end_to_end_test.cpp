// The whole road through trvmail-cli: an mbox of 1,000 generated messages
// (encoded words, several recipients, base64 attachments, body lines that
// start with "From ") is imported, listed, partly moved and deleted,
// exported as mbox and as .eml files, imported again, and every stored
// message is compared byte for byte with what was generated.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "base/wide_string.h"
#include "mime/base64.h"
#include "tests/app/cli_runner.h"
#include "tests/mime/part_tree_util.h"

namespace trv::test {
namespace {

constexpr int kMessages = 1000;
constexpr const char* kInbox = "Local Folders/Inbox";

struct Generated {
  std::string text;     // LF line ends, as in an mbox file
  std::string subject;  // as the listing should show it (UTF-8)
  std::string stored;   // CR LF line ends
};

Generated MakeMessage(int i, std::mt19937& rng) {
  Generated g;
  const std::string n = std::to_string(i);
  std::string h;
  switch (i % 4) {
    case 0: h += "From: user" + n + "@example.org\n"; break;
    case 1: h += "From: Plain Name <name" + n + "@example.org>\n"; break;
    case 2: h += "From: =?UTF-8?Q?J=C3=B6rg_M=C3=BCller?= <jm@example.de>\n"; break;
    default: h += "From: \"Doe, Jane\" <jane@example.com>\n"; break;
  }
  h += "To: reader@example.org";
  for (int r = 0; r < i % 3; ++r) h += ",\n  other" + std::to_string(r) + "@example.net";
  h += "\n";
  if (i % 7 == 0) h += "CC: =?ISO-8859-1?Q?Fran=E7ois?= <f@example.fr>\n";
  switch (i % 5) {
    case 0:
      h += "Subject: Plain subject " + n + "\n";
      g.subject = "Plain subject " + n;
      break;
    case 1:
      h += "Subject: =?UTF-8?B?" + Base64Encode("Grüße Nr. " + n, 0) + "?=\n";
      g.subject = "Grüße Nr. " + n;
      break;
    case 2:
      h += "Subject: =?ISO-8859-1?Q?Caf=E9_au_lait?= " + n + "\n";
      g.subject = "Café au lait " + n;
      break;
    case 3:
      h += "Subject: A long subject that goes on\n and on over a folded line " + n + "\n";
      g.subject = "A long subject that goes on and on over a folded line " + n;
      break;
    default:
      break;  // no subject at all
  }
  if (i % 11 == 0) {
    h += "Received: from relay by mx; Tue, 5 Mar 2024 08:00:00 +0000\n";
  } else {
    h += "Date: Mon, " + std::to_string(1 + i % 28) + " Jan 2024 10:00:00 +0100\n";
  }
  h += "Message-ID: <" + n + ".generated@example.org>\n";
  if (i % 9 == 0) h += "X-Priority: 1 (Highest)\n";
  h += "MIME-Version: 1.0\n";

  std::string body =
      "Hello,\n"
      "\n"
      "From the start of a paragraph: this line would split a careless mbox.\n"
      ">From an already quoted line\n"
      ">>From a twice quoted line\n"
      "From inside a paragraph.\n"
      "\n"
      "From \n"
      "Gr\xC3\xBC\xC3\x9F" "e, message " + n + ".\n";
  if (i % 5 == 0) {
    std::string attachment(200 + rng() % 2800, '\0');
    for (char& c : attachment) c = static_cast<char>(rng());
    std::string encoded = Base64Encode(attachment, 76);
    for (size_t p = 0; (p = encoded.find("\r\n", p)) != std::string::npos;) encoded.erase(p, 1);
    h += "Content-Type: multipart/mixed; boundary=\"b" + n + "\"\n";
    body = "--b" + n + "\nContent-Type: text/plain; charset=utf-8\n\n" + body + "--b" + n +
           "\nContent-Type: application/octet-stream; name=\"data" + n + ".bin\"\n"
           "Content-Transfer-Encoding: base64\n\n" + encoded + "\n--b" + n + "--\n";
  } else {
    h += "Content-Type: text/plain; charset=utf-8\n";
  }
  if (i % 13 == 0) body += "\n\n";  // empty lines at the end belong to the message
  g.text = h + "\n" + body;
  g.stored = Crlf(g.text);
  return g;
}

// mboxrd, written here independently of the program's writer.
std::string MakeMbox(const std::vector<Generated>& messages) {
  std::string mbox;
  for (const Generated& g : messages) {
    mbox += "From generator@example.org Mon Jan  1 00:00:00 2024\n";
    size_t pos = 0;
    while (pos < g.text.size()) {
      const size_t end = g.text.find('\n', pos) + 1;
      const std::string line = g.text.substr(pos, end - pos);
      const size_t quotes = line.find_first_not_of('>');
      if (line.compare(quotes, 5, "From ") == 0) mbox += '>';
      mbox += line;
      pos = end;
    }
    mbox += "\n";
  }
  return mbox;
}

class CliEndToEndTest : public CliTestBase {
 protected:
  // The folder's messages exported as .eml files, in index order.
  std::vector<std::string> StoredTexts(const std::string& folder, const std::string& dir_name) {
    const std::filesystem::path dir = box_.root() / dir_name;
    Ok({"export", folder, "--eml", dir.string()});
    std::vector<std::string> texts;
    const JsonValue list = List(folder);
    for (size_t i = 0; i < list.size(); ++i) texts.push_back(ReadFile(dir / (list[i]["key"].text + ".eml")));
    return texts;
  }
};

TEST_F(CliEndToEndTest, ImportListMoveDeleteExportAndImportAgain) {
  std::mt19937 rng(20240304);
  std::vector<Generated> messages;
  for (int i = 0; i < kMessages; ++i) messages.push_back(MakeMessage(i, rng));
  const std::filesystem::path mbox = box_.root() / "generated.mbox";
  WriteFile(mbox, MakeMbox(messages));

  // Import: every message, in order, with its listing fields.
  CliRun run = Ok({"import", kInbox, mbox.string()});
  EXPECT_EQ(run.out, mbox.string() + ": 1000 messages imported into Local Folders/Inbox\n");
  EXPECT_EQ(run.err, "");  // nothing odd in this file
  JsonValue list = List(kInbox);
  ASSERT_EQ(list.size(), static_cast<size_t>(kMessages));
  for (int i = 0; i < kMessages; ++i) {
    SCOPED_TRACE(i);
    char key[9];
    std::snprintf(key, sizeof key, "%.8X", i + 1);
    EXPECT_EQ(list[i]["key"].text, key);
    EXPECT_EQ(list[i]["subject"].text, messages[i].subject);
    EXPECT_EQ(list[i]["size"].number, messages[i].stored.size());
    EXPECT_FALSE(list[i]["read"].boolean);
    if (i % 11 == 0) {
      EXPECT_EQ(list[i]["date"].text, "2024-03-05T08:00:00Z");
    } else {
      EXPECT_EQ(list[i]["date"].text, "2024-01-" + std::string(1 + i % 28 < 10 ? "0" : "") +
                                          std::to_string(1 + i % 28) + "T09:00:00Z");
    }
  }
  EXPECT_EQ(list[2]["from"].text, "Jörg Müller <jm@example.de>");
  EXPECT_EQ(list[3]["from"].text, "\"Doe, Jane\" <jane@example.com>");

  std::vector<std::string> stored = StoredTexts(kInbox, "first");
  for (int i = 0; i < kMessages; ++i) ASSERT_EQ(stored[i], messages[i].stored) << "message " << i;

  // Move every tenth message to a new folder, delete every seventh of the rest.
  Ok({"mkdir", "Local Folders/Archive"});
  std::vector<std::string> move_args = {"mv", kInbox};
  std::vector<int> moved;
  for (int i = 0; i < kMessages; i += 10) {
    move_args.push_back(list[i]["key"].text);
    moved.push_back(i);
  }
  move_args.push_back("Local Folders/Archive");
  run = Ok(move_args);
  EXPECT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), static_cast<long>(moved.size()));
  EXPECT_EQ(run.out.substr(0, 21), "00000001 -> 00000001\n");

  std::vector<std::string> rm_args = {"rm", kInbox};
  std::vector<int> kept;
  for (int i = 0; i < kMessages; ++i) {
    if (i % 10 == 0) continue;
    if (i % 7 == 0) {
      rm_args.push_back(list[i]["key"].text);
    } else {
      kept.push_back(i);
    }
  }
  const size_t deleted = rm_args.size() - 2;
  Ok(rm_args);
  EXPECT_EQ(List(kInbox).size(), kept.size());
  EXPECT_EQ(List("Local Folders/Archive").size(), moved.size());
  EXPECT_EQ(List("Local Folders/Deleted").size(), deleted);

  // Export both folders as mbox files and import them into a fresh folder.
  const std::filesystem::path inbox_mbox = box_.root() / "inbox.mbox";
  const std::filesystem::path archive_mbox = box_.root() / "archive.mbox";
  Ok({"export", kInbox, "--mbox", inbox_mbox.string()});
  Ok({"export", "Local Folders/Archive", "--mbox", archive_mbox.string()});
  Ok({"mkdir", "Local Folders/Again"});
  run = Ok({"import", "Local Folders/Again", inbox_mbox.string(), archive_mbox.string()});
  EXPECT_EQ(run.err, "");

  // The same bytes as generated, message for message.
  std::vector<int> expected = kept;
  expected.insert(expected.end(), moved.begin(), moved.end());
  stored = StoredTexts("Local Folders/Again", "again");
  ASSERT_EQ(stored.size(), expected.size());
  for (size_t j = 0; j < expected.size(); ++j) {
    ASSERT_EQ(stored[j], messages[expected[j]].stored) << "message " << expected[j];
  }
}

}  // namespace
}  // namespace trv::test
