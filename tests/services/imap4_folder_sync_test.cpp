#include "services/imap4_folder_sync.h"

#include <gtest/gtest.h>

#include "core/settings_tree.h"
#include "net/imap4_records.h"
#include "tests/services/service_fixture.h"

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
  struct {
    Imap4FolderSync record;
    std::string text;
  } cases[] = {
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

  // A nested non-ASCII tree with UIDs above 2^31 comes back whole; Save
  // drops the sections of records that left the tree, not another service's.
  Settings settings;
  Imap4FolderTree tree;
  Imap4FolderSync& top = Add(tree.root(), {.id = 3, .name = u"Bücher", .separator = u".", .local = u"Bücher",
                                           .uid_next = 0x80000000, .uid_valid = 0xFFFFFFFF});
  Add(top, {.id = 9, .separator = u".", .local = u"Bücher/Ελληνικά", .server = u"Bücher.Ελληνικά", .uid_next = 0xFFFFFFFE});
  Add(tree.root(), {.id = 4, .name = u"日本", .local = u"日本"});
  ASSERT_EQ(tree.Save(settings, kService), rc::kOk);
  ASSERT_EQ(tree.Save(settings, Guid::NewRandom()), rc::kOk);
  Settings reread;
  (void)reread.LoadFromBytes(settings.SaveToBytes());
  Imap4FolderTree loaded;
  ASSERT_EQ(loaded.Load(reread, kService), rc::kOk);
  ASSERT_EQ(loaded.root().children.size(), 2u);
  ASSERT_NE(loaded.FindById(9), nullptr);
  EXPECT_EQ(loaded.FindById(9)->parent, loaded.FindByServerPath(u"Bücher"));
  EXPECT_EQ(loaded.FindById(9)->uid_next, 0xFFFFFFFEu);
  EXPECT_EQ(loaded.FindByLocal(u"bücher")->uid_valid, 0xFFFFFFFFu);
  EXPECT_EQ(loaded.FindByLocal(u"bücher")->uid_next, 0x80000000u);
  loaded.root().children.pop_back();  // 日本 goes
  ASSERT_EQ(loaded.Save(reread, kService), rc::kOk);
  EXPECT_EQ(reread.ListSections("").size(), 5u);  // 2 left here, 3 of the other service
  ASSERT_EQ(loaded.Load(reread, kService), rc::kOk);
  EXPECT_TRUE(loaded.FindById(4) == nullptr && loaded.FindById(9) != nullptr);
}

Imap4ListEntry Entry(std::string raw, WString name, uint32_t attr = 0, std::vector<std::string> words = {}) {
  return Imap4ListEntry{attr, std::move(words), ".", std::move(raw), std::move(name), true};
}

using Imap4FolderBindTest = test::ServiceEngineTest;

TEST_F(Imap4FolderBindTest, MergeAndBindPairMailboxesWithFolders) {
  std::vector<Imap4ListEntry> entries = {
      Entry("Projekte.B&APw-cher", u"Projekte.Bücher"),  // the child before its parent
      Entry("Projekte", u"Projekte", kImap4AttrNoSelect | kImap4AttrHasChildren),
      Entry("inbox", u"inbox"),
      Entry("Sent Messages", u"Sent Messages", 0, {"\\Sent"}),
      Entry("Sent", u"Sent"),  // Sent is held by the \Sent mailbox already
      Entry("INBOX.Trash", u"INBOX.Trash"),
      Entry("a/b", u"a/b"),
      Entry("Outbox", u"Outbox"),
      Entry("Caf\xe9", u"Caf\uFFFD"),  // did not decode
      Entry("Gone", u"Gone", 0, {"\\NonExistent"}),
      Entry("Mail", u"Mail", kImap4AttrNoSelect),  // the root path itself
  };
  entries[8].name_valid = false;
  const struct Want {
    std::u16string_view server, local;
    uint32_t sync, kind;
  } wants[] = {
      {u"Projekte.Bücher", u"Projekte/Bücher", imap4sync::kDefault, kFolderUser},
      {u"Projekte", u"Projekte", 0, kFolderUser},
      {u"inbox", u"Inbox", imap4sync::kDefault, kFolderInbox},
      {u"Sent Messages", u"Sent", imap4sync::kDefault, kFolderSent},
      {u"Sent", u"Sent (2)", imap4sync::kDefault, kFolderUser},
      {u"INBOX.Trash", u"Deleted", imap4sync::kDefault, kFolderDeleted},
      {u"a/b", u"a_b", imap4sync::kDefault, kFolderUser},
      {u"Outbox", u"Outbox (2)", imap4sync::kDefault, kFolderUser},
      {u"Caf\uFFFD", u"Caf\uFFFD", imap4sync::kDefault, kFolderUser},
  };
  Imap4FolderTree tree;
  std::vector<Imap4FolderSync*> added;
  tree.Merge(entries, u"Mail.", &added);
  ASSERT_EQ(added.size(), std::size(wants));
  ASSERT_EQ(tree.Bind(local()), rc::kOk);
  std::set<uint32_t> ids;
  for (const Want& want : wants) {
    Imap4FolderSync* r = tree.FindByServerPath(want.server);
    ASSERT_TRUE(r != nullptr && r->local_folder != nullptr) << WideToUtf8(want.server);
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
  ASSERT_EQ(tree.Save(settings, kService), rc::kOk);
  Imap4FolderTree next;
  ASSERT_EQ(next.Load(settings, kService), rc::kOk);
  added.clear();
  next.Merge(entries, u"Mail.", &added);
  next.Merge({Entry("New", u"New")}, u"", &added);
  ASSERT_EQ(added.size(), 1u);
  EXPECT_EQ(added[0]->id, std::size(wants) + 1);
  ASSERT_EQ(next.Bind(local()), rc::kOk);
  for (const Want& want : wants) {
    EXPECT_EQ(next.FindByServerPath(want.server)->id, tree.FindByServerPath(want.server)->id);
    EXPECT_EQ(next.FindByServerPath(want.server)->local_folder, local().FindFolder(want.local));
  }
  EXPECT_EQ(next.FindByServerPath(u"a/b")->sync, imap4sync::kDownload);
  EXPECT_EQ(next.FindByLocal(u"new")->local_folder, local().FindFolder(u"New"));
}

}  // namespace
}  // namespace trv
