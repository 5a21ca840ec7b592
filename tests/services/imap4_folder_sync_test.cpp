#include "services/imap4_folder_sync.h"

#include <gtest/gtest.h>

#include "core/settings_tree.h"
#include "net/imap4_records.h"
#include "tests/services/service_fixture.h"

// Fields left out of the designated initializers below keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace trv {
namespace {

const Guid kService = *Guid::Parse("{0a1b2c3d-0000-4e5f-8a9b-0c1d2e3f4a5b}");
const std::string kMark = "\xEF\xBB\xBF";  // how the file marks Unicode text

Imap4FolderSync& Add(Imap4FolderSync& parent, Imap4FolderSync record) {
  parent.children.push_back(std::make_unique<Imap4FolderSync>(std::move(record)));
  parent.children.back()->parent = &parent;
  return *parent.children.back();
}

TEST(Imap4FolderTreeTest, SectionTextAndRoundTrip) {
  const std::string head = "[Folder.{0a1b2c3d-0000-4e5f-8a9b-0c1d2e3f4a5b}.";
  struct Case { Imap4FolderSync record; std::string text; } cases[] = {
      {{.id = 7, .name = u"Work", .local = u"Work", .sync = 4, .uid_next = 12},
       head + "00000007]\nName=" + kMark + "Work\r\nSp=" + kMark + "\r\nLocal=" + kMark +
           "Work\r\nSync=4\r\nUIDNext=12\r\nUIDValid=0\r\nAttr=0\r\n"},
      {{.id = 0x2a, .name = u"Inbox", .server_name = u"INBOX", .separator = u".", .local = u"Inbox",
        .server = u"INBOX", .raw = "INBOX-\xff", .uid_next = 0x80000001, .uid_valid = 0xFFFFFFFF, .attr = 0x10020},
       head + "0000002a]\nName=" + kMark + "Inbox\r\nServerName=" + kMark + "INBOX\r\nSp=" + kMark + ".\r\nLocal=" +
           kMark + "Inbox\r\nServer=" + kMark + "INBOX\r\nRaw=INBOX-\xff\r\nSync=0\r\n" +
           "UIDNext=-2147483647\r\nUIDValid=-1\r\nAttr=65568\r\n"},
  };
  for (auto& [record, text] : cases) {
    Settings settings;
    Imap4FolderTree tree;
    Add(tree.root(), std::move(record));
    ASSERT_EQ(tree.Save(settings, kService), rc::kOk);
    const std::string saved = settings.SaveToBytes();
    EXPECT_EQ(saved.substr(saved.find('[')), text);
  }

  // A nested non-ASCII tree with UIDs above 2^31 comes back whole.
  Settings settings, reread, again;
  Imap4FolderTree tree, loaded;
  Imap4FolderSync& top = Add(tree.root(), {.id = 3, .name = u"Bücher", .separator = u".", .local = u"Bücher",
                                           .uid_next = 0x80000000, .uid_valid = 0xFFFFFFFF});
  Add(top, {.id = 9, .separator = u".", .local = u"Bücher/Ελληνικά", .server = u"Bücher.Ελληνικά", .uid_next = 0xFFFFFFFE});
  Add(tree.root(), {.id = 4, .name = u"日本", .local = u"日本"});
  ASSERT_EQ(tree.Save(settings, kService), rc::kOk);
  (void)reread.LoadFromBytes(settings.SaveToBytes());
  ASSERT_TRUE(loaded.Load(reread, kService).ok() && loaded.Save(again, kService).ok());
  EXPECT_EQ(again.SaveToBytes(), settings.SaveToBytes());
  ASSERT_TRUE(loaded.root().children.size() == 2u && loaded.FindById(9) != nullptr);
  EXPECT_EQ(loaded.FindById(9)->parent, loaded.FindByLocal(u"bücher"));
  EXPECT_EQ(loaded.FindById(9)->uid_next, 0xFFFFFFFEu);
  // Save drops the sections of records that left the tree, not another service's.
  ASSERT_EQ(loaded.Save(reread, Guid::NewRandom()), rc::kOk);
  loaded.root().children.pop_back();
  ASSERT_EQ(loaded.Save(reread, kService), rc::kOk);
  EXPECT_EQ(reread.ListSections("").size(), 5u);
}

using Imap4FolderBindTest = test::ServiceEngineTest;

TEST_F(Imap4FolderBindTest, MergeAndBindPairMailboxesWithFolders) {
  constexpr uint32_t kAll = imap4sync::kDefault;
  const struct Want {
    Imap4ListEntry entry;
    std::u16string_view local;  // "": no record
    uint32_t sync, kind;
  } wants[] = {
      {{0, {}, ".", "Projekte.B&APw-cher", u"Projekte.Bücher"}, u"Projekte/Bücher", kAll, kFolderUser},  // before its parent
      {{kImap4AttrNoSelect, {}, ".", "Projekte", u"Projekte"}, u"Projekte", 0, kFolderUser},
      {{0, {}, ".", "inbox", u"inbox"}, u"Inbox", kAll, kFolderInbox},
      {{0, {"\\Sent"}, ".", "Sent Messages", u"Sent Messages"}, u"Sent", kAll, kFolderSent},
      {{0, {}, ".", "Sent", u"Sent"}, u"Sent (2)", kAll, kFolderUser},  // Sent is held already
      {{0, {}, ".", "INBOX.Trash", u"INBOX.Trash"}, u"Deleted", kAll, kFolderDeleted},
      {{0, {}, ".", "a/b", u"a/b"}, u"a_b", kAll, kFolderUser},
      {{0, {}, ".", "Outbox", u"Outbox"}, u"Outbox (2)", kAll, kFolderUser},
      {{0, {}, ".", "Caf\xe9", u"Caf\uFFFD", false}, u"Caf\uFFFD", kAll, kFolderUser},  // did not decode
      {{0, {"\\NonExistent"}, ".", "Gone", u"Gone"}, u"", 0, 0},
      {{kImap4AttrNoSelect, {}, ".", "Mail", u"Mail"}, u"", 0, 0},  // the root path itself
  };
  std::vector<Imap4ListEntry> entries;
  for (const Want& want : wants) entries.push_back(want.entry);
  Imap4FolderTree tree;
  std::vector<Imap4FolderSync*> added;
  tree.Merge(entries, u"Mail.", &added);
  ASSERT_EQ(added.size(), std::size(wants) - 2);
  ASSERT_EQ(tree.Bind(local()), rc::kOk);
  std::set<uint32_t> ids;
  for (const Want& want : wants) {
    Imap4FolderSync* r = tree.FindByServerPath(want.entry.name);
    if (want.local.empty() && r == nullptr) continue;
    ASSERT_TRUE(r != nullptr && r->local_folder != nullptr) << WideToUtf8(want.entry.name);
    EXPECT_EQ(r->local, want.local);
    EXPECT_EQ(r->sync, want.sync);
    EXPECT_EQ(r->local_folder->kind(), want.kind);
    EXPECT_EQ(local().FindFolder(want.local), r->local_folder);
    EXPECT_TRUE(ids.insert(r->id).second && r->id != 0);
  }
  EXPECT_EQ(tree.FindByServerPath(u"Projekte.Bücher")->parent, tree.FindByServerPath(u"Projekte"));
  EXPECT_EQ(tree.FindByServerPath(u"INBOX.Trash")->parent, tree.FindByServerPath(u"INBOX"));
  EXPECT_EQ(tree.FindByServerPath(u"Projekte.Bücher")->WireName(), "Projekte.B&APw-cher");
  EXPECT_EQ(tree.FindByServerPath(u"Caf\uFFFD")->WireName(), "Caf\xe9");

  // Saved, loaded and merged again: options, ids and folders stay.
  tree.FindByServerPath(u"a/b")->sync = imap4sync::kDownload;
  Settings settings;
  Imap4FolderTree next;
  ASSERT_TRUE(tree.Save(settings, kService).ok() && next.Load(settings, kService).ok());
  next.Merge(entries, u"Mail.", nullptr);
  ASSERT_EQ(next.Bind(local()), rc::kOk);
  for (const Want& want : wants) {
    if (want.local.empty()) continue;
    EXPECT_EQ(next.FindByServerPath(want.entry.name)->id, tree.FindByServerPath(want.entry.name)->id);
    EXPECT_EQ(next.FindByServerPath(want.entry.name)->local_folder, local().FindFolder(want.local));
  }
  EXPECT_EQ(next.FindByServerPath(u"a/b")->sync, imap4sync::kDownload);
  added.clear();
  next.Merge({{0, {}, ".", "New", u"New"}}, u"", &added);
  EXPECT_TRUE(added.size() == 1 && added[0]->id == std::size(wants) - 1);
}

}  // namespace
}  // namespace trv
