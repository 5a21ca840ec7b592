// Changing the folder tree, finding folders, and moving messages.
#include <gtest/gtest.h>

#include "store/storage.h"
#include "store/storage_messages.h"
#include "tests/store/storage_test_util.h"

namespace trv {
namespace {

using test::TestHost;
using test::TreeNames;
using Lines = std::vector<std::string>;

class StorageTreeTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(s_.Create(u"Local Folders", {}, true), rc::kOk); }

  MailFolder* Make(const char16_t* parent, const char16_t* name) {
    MailFolder* made = nullptr;
    EXPECT_EQ(s_.CreateFolder(s_.FindFolder(parent), name, &made), rc::kOk);
    return made;
  }

  // The tree as the index file has it.
  Lines Reopened() {
    Storage again(host_);
    EXPECT_EQ(again.Open(s_.index_path()), rc::kOk);
    return TreeNames(again);
  }

  static Lines Subjects(MailFolder* folder) {
    EXPECT_EQ(folder->file()->LoadIndex(), rc::kOk);
    Lines out;
    for (const MessageRecord& r : folder->file()->Messages()) out.push_back(WideToUtf8(r.subject));
    return out;
  }

  TestHost host_;
  Storage s_{host_};
};

TEST_F(StorageTreeTest, CreateRenameMoveAndDeleteAreSavedAtOnce) {
  MailFolder* work = Make(u"", u"Work");
  Make(u"Work", u"2024");
  Make(u"Inbox", u"Lists");
  ASSERT_EQ(s_.RenameFolder(s_.FindFolder(u"Work/2024"), u"2025"), rc::kOk);
  ASSERT_EQ(s_.MoveFolder(s_.FindFolder(u"Inbox/Lists"), work), rc::kOk);
  EXPECT_EQ(Reopened(), (Lines{"Inbox", "Outbox", "Sent", "Deleted", "Drafts", "Work", "  2025", "  Lists"}));
  EXPECT_EQ(s_.FindFolder(u"Work/Lists")->PathText(), u"Local Folders/Work/Lists");

  std::vector<std::filesystem::path> files;
  s_.ForEachFolder([&](MailFolder& f) {
    if (f.depth() > 1 || &f == work) files.push_back(f.file_path());
  });
  ASSERT_EQ(files.size(), 3u);
  ASSERT_EQ(s_.DeleteFolder(work), rc::kOk);
  for (const auto& f : files) EXPECT_FALSE(std::filesystem::exists(f)) << f;
  EXPECT_EQ(Reopened(), (Lines{"Inbox", "Outbox", "Sent", "Deleted", "Drafts"}));
  using K = FolderTreeChange;
  EXPECT_EQ(host_.changes, (std::vector<K::Kind>{K::kCreated, K::kCreated, K::kCreated, K::kRenamed, K::kMoved,
                                                 K::kDeleted}));
}

TEST_F(StorageTreeTest, RefusedChanges) {
  Make(u"", u"Work");
  Make(u"Work", u"Sub");
  Make(u"", u"Other");
  Make(u"Other", u"Sub");
  Storage other(host_);
  ASSERT_EQ(other.Create(u"elsewhere", {}, false), rc::kOk);
  MailFolder* work = s_.FindFolder(u"Work");
  MailFolder* other_folder = s_.FindFolder(u"Other");
  struct Row { const char* name; std::function<Result()> change; Result want; };
  const Row rows[] = {
      {"duplicate name, other case", [&] { return s_.CreateFolder(s_.root(), u"WORK", nullptr); },
       rc::kFileExists},
      {"move next to a namesake", [&] { return s_.MoveFolder(s_.FindFolder(u"Work/Sub"), other_folder); },
       rc::kFileExists},
      {"empty name", [&] { return s_.CreateFolder(s_.root(), u"", nullptr); }, rc::kInvalidArg},
      {"control character", [&] { return s_.RenameFolder(other_folder, u"a\tb"); }, rc::kInvalidArg},
      {"name too long", [&] { return s_.CreateFolder(s_.root(), WString(256, u'x'), nullptr); }, rc::kInvalidArg},
      {"delete a special folder", [&] { return s_.DeleteFolder(s_.SpecialFolder(kFolderDeleted)); }, rc::kInvalidArg},
      {"move a special folder", [&] { return s_.MoveFolder(s_.SpecialFolder(kFolderInbox), work); }, rc::kInvalidArg},
      {"move into its own subtree", [&] { return s_.MoveFolder(work, s_.FindFolder(u"Work/Sub")); }, rc::kInvalidArg},
      {"parent of another storage", [&] { return s_.CreateFolder(other.root(), u"x", nullptr); }, rc::kInvalidArg},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.change(), row.want);
  }
  EXPECT_EQ(Reopened(), (Lines{"Inbox", "Outbox", "Sent", "Deleted", "Drafts", "Work", "  Sub", "Other", "  Sub"}));
}

TEST_F(StorageTreeTest, AChangeWhoseSaveFailsIsUndone) {
  MailFolder* work = Make(u"", u"Work");
  Make(u"Work", u"Sub");
  const Lines before = TreeNames(s_);
  const auto files_in_data = [&] { return std::distance(std::filesystem::directory_iterator(host_.data_dir()), {}); };
  const auto files_before = files_in_data();
  const std::function<Result()> changes[] = {
      [&] { return s_.CreateFolder(s_.root(), u"New", nullptr); },
      [&] { return s_.RenameFolder(work, u"Job"); },
      [&] { return s_.MoveFolder(s_.FindFolder(u"Work/Sub"), s_.SpecialFolder(kFolderInbox)); },
      [&] { return s_.DeleteFolder(work); },
  };
  for (const auto& change : changes) {
    SCOPED_TRACE(&change - changes);
    host_.ops.fail_at = host_.ops.changes;
    EXPECT_EQ(change(), rc::kWriteFault);
    EXPECT_EQ(TreeNames(s_), before);
    EXPECT_EQ(files_in_data(), files_before);
    EXPECT_TRUE(s_.FindFolder(u"Work/Sub")->available());
  }
  EXPECT_EQ(Reopened(), before);
  EXPECT_EQ(host_.changes.size(), 2u);
}

TEST_F(StorageTreeTest, AnExistingFolderFileIsAttachedOnceAndFoundAgain) {
  struct Row { const char* name; std::filesystem::path file; std::string stored; };  // stored "": the absolute path
  const Row rows[] = {
      {"in the data directory", host_.data_dir() / "d.fld", "d.fld"},
      {"below the home directory", host_.home() / "mail" / "h.fld", "mail/h.fld"},
      {"elsewhere", host_.root() / "outside" / "x.fld", ""},
  };
  int n = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::filesystem::create_directories(row.file.parent_path());
    ASSERT_EQ(FolderFile(host_.log).Create(row.file), rc::kOk);
    MailFolder* attached = nullptr;
    ASSERT_EQ(s_.AttachFolderFile(s_.root(), row.file, u"Attached" + W(std::to_string(n++)), &attached), rc::kOk);
    EXPECT_EQ(WideToUtf8(attached->file_name()), row.stored.empty() ? row.file.string() : row.stored);
    EXPECT_EQ(s_.AttachFolderFile(s_.SpecialFolder(kFolderInbox), row.file, u"Again", nullptr), rc::kInvalidArg);
  }
  EXPECT_EQ(s_.AttachFolderFile(s_.root(), host_.root() / "none.fld", u"None", nullptr), rc::kFileMissing);
  Storage again(host_);  // the stored names lead back to the files
  ASSERT_EQ(again.Open(s_.index_path()), rc::kOk);
  EXPECT_TRUE(again.complete());
}

TEST_F(StorageTreeTest, FoldersAreFoundByPathAndKind) {
  Make(u"Inbox", u"Lists");
  Make(u"Inbox/Lists", u"Deep");
  Storage slash(host_);
  ASSERT_EQ(slash.Create(u"Local Folders/old", {}, false), rc::kOk);
  const std::vector<Storage*> storages = {&s_, &slash};
  const std::pair<const char16_t*, MailFolder*> rows[] = {
      {u"local folders/INBOX/lists/deep", s_.FindFolder(u"Inbox/Lists/Deep")},
      {u"Local Folders/Inbox/", s_.SpecialFolder(kFolderInbox)},
      {u"Local Folders/old/Sent", slash.SpecialFolder(kFolderSent)},
      {u"Local Folders/Nothing", nullptr},
      {u"", nullptr},
  };
  for (const auto& [path, want] : rows) EXPECT_EQ(FindFolderByPath(storages, path), want) << WideToUtf8(path);
  EXPECT_EQ(s_.SpecialFolder(kFolderUser), s_.FindFolder(u"Inbox/Lists"));
}

TEST_F(StorageTreeTest, MovedMessagesArriveBeforeTheyLeave) {
  MailFolder* inbox = s_.SpecialFolder(kFolderInbox);
  MailFolder* work = Make(u"", u"Work");
  std::vector<uint32_t> keys;
  for (const char* subject : {"read one", "two", "three"}) {
    MessageRecord record;
    record.subject = W(subject);
    if (subject[0] == 'r') record.flags |= msgflag::kRead;
    ASSERT_EQ(inbox->file()->Append(record, std::string("Subject: ") + subject + "\r\n\r\nx\r\n", &keys.emplace_back()),
              rc::kOk);
  }

  std::vector<uint32_t> moved;
  ASSERT_EQ(MoveMessages(*inbox, {keys[2], keys[0]}, *work, &moved), rc::kOk);
  EXPECT_EQ(Subjects(inbox), Lines{"two"});
  EXPECT_EQ(Subjects(work), (Lines{"three", "read one"}));
  EXPECT_EQ(work->file()->counts(), (FolderCounts{2, 1}));
  std::string text;
  ASSERT_EQ(work->file()->ReadMessage(moved.at(0), &text), rc::kOk);
  EXPECT_EQ(text, "Subject: three\r\n\r\nx\r\n");
  ASSERT_EQ(CopyMessages(*inbox, {keys[1]}, *work, nullptr), rc::kOk);
  EXPECT_EQ(Subjects(inbox), Lines{"two"});
  EXPECT_EQ(Subjects(work), (Lines{"three", "read one", "two"}));

  // An unknown or repeated key, or the same folder: nothing moves.
  for (const auto& [keys_to_move, to] : {std::pair{std::vector<uint32_t>{keys[1], 9999}, work},
                                         {{keys[1], keys[1]}, work}, {{keys[1]}, inbox}}) {
    EXPECT_EQ(MoveMessages(*inbox, keys_to_move, *to, nullptr), rc::kInvalidArg);
    EXPECT_EQ(Subjects(inbox), Lines{"two"});
    EXPECT_EQ(Subjects(work).size(), 3u);
  }
}

}  // namespace
}  // namespace trv
