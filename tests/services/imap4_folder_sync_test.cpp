#include "services/imap4_folder_sync.h"

#include <gtest/gtest.h>

#include "core/settings_tree.h"
#include "net/imap4_records.h"
#include "tests/services/service_fixture.h"

namespace trv {
namespace {

const Guid kService = *Guid::Parse("{0a1b2c3d-0000-4e5f-8a9b-0c1d2e3f4a5b}");

Imap4FolderSync& Add(Imap4FolderTree& tree, Imap4FolderSync& parent, uint32_t id, WString name, WString local,
                     WString server, uint32_t uid_next) {
  auto record = std::make_unique<Imap4FolderSync>();
  *record = Imap4FolderSync{.id = id, .name = name, .separator = u".", .local = local, .server = server,
                            .sync = imap4sync::kDefault, .uid_next = uid_next, .uid_valid = 0xFFFFFFFF, .attr = 16};
  record->parent = &parent;
  parent.children.push_back(std::move(record));
  return *parent.children.back();
}

TEST(Imap4FolderTreeTest, SectionTextAndRoundTrip) {
  const std::string section = "[Folder.{0a1b2c3d-0000-4e5f-8a9b-0c1d2e3f4a5b}.";
  const std::string mark = "\xEF\xBB\xBF";  // how the file marks Unicode text
  struct Case {
    Imap4FolderSync record;
    std::string text;
  } cases[] = {
      {{.id = 7, .name = u"Work", .local = u"Work", .sync = 4, .uid_next = 12},
       section + "00000007]\nName=" + mark + "Work\r\nSp=" + mark + "\r\nLocal=" + mark +
           "Work\r\nSync=4\r\nUIDNext=12\r\nUIDValid=0\r\nAttr=0\r\n"},
      {{.id = 0x2a, .name = u"Inbox", .server_name = u"INBOX", .separator = u".", .local = u"Inbox",
        .server = u"INBOX", .raw = "INBOX-\xff", .sync = 0, .uid_next = 0x80000001, .uid_valid = 0xFFFFFFFF,
        .attr = 0x10020},
       section + "0000002a]\nName=" + mark + "Inbox\r\nServerName=" + mark + "INBOX\r\nSp=" + mark +
           ".\r\nLocal=" + mark + "Inbox\r\nServer=" + mark + "INBOX\r\nRaw=INBOX-\xff\r\nSync=0\r\n" +
           "UIDNext=-2147483647\r\nUIDValid=-1\r\nAttr=65568\r\n"},
  };
  for (Case& c : cases) {
    Settings settings;
    Imap4FolderTree tree;
    auto record = std::make_unique<Imap4FolderSync>(std::move(c.record));
    record->parent = &tree.root();
    tree.root().children.push_back(std::move(record));
    ASSERT_EQ(tree.Save(settings, kService), rc::kOk);
    const std::string text = settings.SaveToBytes();
    EXPECT_EQ(text.substr(text.find('[')), c.text);
  }

  // A nested non-ASCII tree with UIDs above 2^31 comes back whole; Save
  // drops the sections of records that left the tree, not another service's.
  Settings settings;
  Imap4FolderTree tree;
  Imap4FolderSync& top = Add(tree, tree.root(), 3, u"Bücher", u"Bücher", u"", 0x80000000);
  Add(tree, top, 9, u"Ελληνικά", u"Bücher/Ελληνικά", u"Bücher.Ελληνικά", 0xFFFFFFFE);
  Add(tree, tree.root(), 4, u"日本", u"日本", u"", 1);
  ASSERT_EQ(tree.Save(settings, kService), rc::kOk);
  ASSERT_EQ(tree.Save(settings, Guid::NewRandom()), rc::kOk);
  Settings reread;
  (void)reread.LoadFromBytes(settings.SaveToBytes());
  Imap4FolderTree loaded;
  ASSERT_EQ(loaded.Load(reread, kService), rc::kOk);
  ASSERT_EQ(loaded.root().children.size(), 2u);
  Imap4FolderSync* child = loaded.FindById(9);
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(child->parent, loaded.FindByServerPath(u"Bücher"));
  EXPECT_EQ(child->local, u"Bücher/Ελληνικά");
  EXPECT_EQ(child->uid_next, 0xFFFFFFFEu);
  EXPECT_EQ(child->uid_valid, 0xFFFFFFFFu);
  EXPECT_EQ(loaded.FindByLocal(u"bücher")->uid_next, 0x80000000u);
  EXPECT_EQ(loaded.FindById(4)->name, u"日本");
  loaded.root().children.pop_back();  // 日本 goes
  ASSERT_EQ(loaded.Save(reread, kService), rc::kOk);
  Imap4FolderTree again;
  ASSERT_EQ(again.Load(reread, kService), rc::kOk);
  EXPECT_EQ(again.FindById(4), nullptr);
  EXPECT_NE(again.FindById(9), nullptr);
  EXPECT_EQ(reread.ListSections("").size(), 5u);  // 2 left here, 3 of the other service
}

Imap4ListEntry Entry(std::string raw, WString name, uint32_t attr = 0, std::vector<std::string> words = {}) {
  return Imap4ListEntry{attr, std::move(words), ".", std::move(raw), std::move(name), true};
}

using Imap4FolderBindTest = test::ServiceEngineTest;

TEST_F(Imap4FolderBindTest, MergeAndBindPairMailboxesWithFolders) {
  const std::vector<Imap4ListEntry> entries = {
      Entry("Projekte.B&APw-cher", u"Projekte.Bücher"),  // the child before its parent
      Entry("Projekte", u"Projekte", kImap4AttrNoSelect | kImap4AttrHasChildren),
      Entry("inbox", u"inbox"),
      Entry("Sent Messages", u"Sent Messages", 0, {"\\Sent"}),
      Entry("Sent", u"Sent"),  // Sent is held by the \Sent mailbox already
      Entry("INBOX.Trash", u"INBOX.Trash"),
      Entry("a/b", u"a/b"),
      Entry("Outbox", u"Outbox"),
      Entry("Gone", u"Gone", 0, {"\\NonExistent"}),
      Entry("Mail", u"Mail", kImap4AttrNoSelect),  // the root path itself
  };
  Imap4FolderTree tree;
  std::vector<Imap4FolderSync*> added;
  tree.Merge(entries, u"Mail.", &added);
  ASSERT_EQ(added.size(), 8u);
  ASSERT_EQ(tree.Bind(local()), rc::kOk);
  struct Want {
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
  };
  std::set<uint32_t> ids;
  for (const Want& want : wants) {
    SCOPED_TRACE(WideToUtf8(want.server));
    Imap4FolderSync* r = tree.FindByServerPath(want.server);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->local, want.local);
    EXPECT_EQ(r->sync, want.sync);
    ASSERT_NE(r->local_folder, nullptr);
    EXPECT_EQ(r->local_folder->kind(), want.kind);
    EXPECT_EQ(local().FindFolder(want.local), r->local_folder);
    EXPECT_TRUE(ids.insert(r->id).second && r->id != 0);
  }
  EXPECT_EQ(tree.FindByServerPath(u"Projekte.Bücher")->parent, tree.FindByServerPath(u"Projekte"));
  EXPECT_EQ(tree.FindByServerPath(u"INBOX.Trash")->parent, tree.FindByServerPath(u"INBOX"));
  EXPECT_EQ(tree.FindByServerPath(u"Sent Messages")->WireName(), "Sent Messages");
  EXPECT_EQ(tree.FindByServerPath(u"Projekte.Bücher")->WireName(), "Projekte.B&APw-cher");

  // Again after a restart of the records: options, ids and folders stay.
  tree.FindByServerPath(u"a/b")->sync = imap4sync::kDownload;
  Settings settings;
  ASSERT_EQ(tree.Save(settings, kService), rc::kOk);
  Imap4FolderTree next;
  ASSERT_EQ(next.Load(settings, kService), rc::kOk);
  added.clear();
  next.Merge(entries, u"Mail.", &added);
  next.Merge({Entry("New", u"New")}, u"", &added);
  ASSERT_EQ(added.size(), 1u);
  EXPECT_EQ(added[0]->id, 9u);
  ASSERT_EQ(next.Bind(local()), rc::kOk);
  for (const Want& want : wants) {
    Imap4FolderSync* r = next.FindByServerPath(want.server);
    EXPECT_EQ(r->id, tree.FindByServerPath(want.server)->id);
    EXPECT_EQ(r->local, want.local);
  }
  EXPECT_EQ(next.FindByServerPath(u"a/b")->sync, imap4sync::kDownload);
  EXPECT_EQ(next.FindByLocal(u"new")->local_folder, local().FindFolder(u"New"));
}

}  // namespace
}  // namespace trv
