#include "core/engine.h"

#include <gtest/gtest.h>

#include <regex>

#include "base/file_io.h"
#include "core/registry.h"
#include "tests/core/scoped_env.h"
#include "tests/store/storage_test_util.h"
#include "tests/support/temp_dir.h"

namespace trv {
namespace {

using test::FaultyFileOps;
using test::ReadFile;
using test::ScopedEnv;
using test::TempDir;
using test::WriteFile;
using Lines = std::vector<std::string>;

// A service that records what the engine did with it.
struct FakeService : EngineService {
  Result Load(Settings&, const Guid& id) override { loaded_id = id; return rc::kOk; }
  Result Initialize() override { return rc::kOk; }
  void Idle() override { ++idles; }
  void NotifyLoaded() override { ++loaded_told; }
  Result OnStorageOpened(Storage&) override { return rc::kOk; }
  Result OnStorageNew(Storage& storage) override { new_storage = &storage; return rc::kOk; }
  Guid loaded_id;
  int idles = 0, loaded_told = 0;
  Storage* new_storage = nullptr;
};

// Runs each test in a home, configuration and data home of its own.
class EngineTest : public ::testing::Test {
 protected:
  EngineTest() { std::filesystem::create_directories(home()); }
  void TearDown() override { while (engine_ != nullptr) Release(); }
  MailEngine* Acquire() { ++held_; return engine_ = AcquireEngine(); }
  void Release() {
    ReleaseEngine();
    if (--held_ == 0) engine_ = nullptr;
  }
  // A fresh engine, started.
  MailEngine* Restart(const std::function<void(MailEngine&)>& configure = {}) {
    while (engine_ != nullptr) Release();
    MailEngine* e = Acquire();
    if (configure) configure(*e);
    EXPECT_EQ(e->Start("test run"), rc::kOk) << e->start_problem();
    return e;
  }

  std::filesystem::path home() const { return dir_ / "home/"; }
  std::filesystem::path default_data() const { return dir_ / "data/TarvoMail/"; }
  std::filesystem::path registry() const { return dir_ / "config/Tarvo/Mail2.ini"; }
  std::filesystem::path local_index() const { return default_data() / "{00000000-0000-0000-0000-000000000000}.idx"; }
  WString RegistryValue(std::string_view name) {
    std::unique_ptr<RegistryKey> key;
    WString v = u"<none>";
    EXPECT_EQ(RegistryKey::Open(registry(), &key), rc::kOk);
    key->ReadString("", name, &v).Ignore();  // a missing value leaves "<none>"
    return v;
  }
  // The log's lines since the last "Tarvo Mail Starting...", prefixes kept.
  Lines LastStartLog() {
    const std::string text = ReadFile(engine_->data_directory() / "TarvoMail.log");
    Lines lines;
    for (size_t at = 0, end; (end = text.find("\r\n", at)) != std::string::npos; at = end + 2) {
      lines.push_back(text.substr(at, end - at));
    }
    const auto start = std::find(lines.rbegin(), lines.rend(), "- Tarvo Mail Starting...");
    return Lines(start == lines.rend() ? lines.begin() : start.base() - 2, lines.end());
  }
  static size_t Count(const Lines& lines, const std::string& line) { return std::count(lines.begin(), lines.end(), line); }

  TempDir dir_;
  ScopedEnv home_env_{"HOME", home().c_str()};
  ScopedEnv config_env_{"XDG_CONFIG_HOME", (dir_ / "config").c_str()};
  ScopedEnv data_env_{"XDG_DATA_HOME", (dir_ / "data").c_str()};
  MailEngine* engine_ = nullptr;
  int held_ = 0;
};

TEST_F(EngineTest, AFirstStartMakesLocalFoldersAndALaterOneFindsThem) {
  MailEngine* e = Restart();
  EXPECT_TRUE(e->loaded());
  ASSERT_EQ(e->storages().size(), 1u);
  EXPECT_EQ(e->FindStorage(Guid::Nil()), e->storages()[0]);
  EXPECT_EQ(e->FindFolder(u"Local Folders/Drafts"), e->storages()[0]->SpecialFolder(kFolderDrafts));
  Lines log = LastStartLog();
  ASSERT_EQ(log.size(), 7u) << ::testing::PrintToString(log);
  EXPECT_TRUE(std::regex_match(log[2], std::regex(R"(- \d{4}-\d\d-\d\d \d\d:\d\d:\d\d test run)"))) << log[2];
  log.erase(log.begin() + 2);
  EXPECT_EQ(log, (Lines{"- ", "- Tarvo Mail Starting...", "- Data directory: " + default_data().string(),
                        "- Loading: " + (default_data() / "Settings.ini").string(),
                        "- Creating 'Local Folders' storage", "- Loading MAPI objects"}));

  // A later start finds the storage by its index file.
  e = Restart();
  const Lines later = LastStartLog();
  ASSERT_GT(later.size(), 5u);
  EXPECT_EQ(later[5], "- Found storage: " + local_index().string());
  EXPECT_EQ(Count(later, "- Creating 'Local Folders' storage"), 0u);
  ASSERT_EQ(e->storages().size(), 1u);
  EXPECT_TRUE(e->storages()[0]->complete());
}

TEST_F(EngineTest, TheDataDirectoryIsResolvedInOrder) {
  const std::filesystem::path documents = home() / "Documents/TarvoMail/";
  // `data_dir`, `install_dir` empty: no such registry value.
  struct Row { const char* name; std::string data_dir, install_dir; bool documents_settings; std::filesystem::path want; };
  const Row rows[] = {
      {"DataDir wins over an earlier installation", (dir_ / "custom").string(), "/opt/x", true, dir_ / "custom/"},
      {"DataDir relative to home", "Mail", "", false, home() / "Mail/"},
      {"an earlier installation's settings", "", "/opt/x", true, documents},
      {"InstallDir", "", (dir_ / "install").string(), false, dir_ / "install/Data/"},
      {"XDG data home", "", "", false, default_data()},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::filesystem::remove(registry());
    std::filesystem::remove_all(documents);
    if (row.documents_settings) {
      std::filesystem::create_directories(documents);
      WriteFile(documents / "Settings.ini", "");
    }
    {
      std::unique_ptr<RegistryKey> key;
      ASSERT_EQ(RegistryKey::Open(registry(), &key), rc::kOk);
      for (const auto& [name, value] : {std::pair{"DataDir", row.data_dir}, std::pair{"InstallDir", row.install_dir}}) {
        if (!value.empty()) {
          ASSERT_EQ(key->WriteString("", name, Utf8ToWide(value)), rc::kOk);
        }
      }
    }
    MailEngine* e = Restart();
    EXPECT_EQ(e->data_directory(), row.want);
    EXPECT_TRUE(std::filesystem::exists(row.want / "TarvoMail.log"));
    EXPECT_EQ(RegistryValue("DataDir"), PathToWide(row.want));
  }
}

TEST_F(EngineTest, AnOverrideIsUsedButNotRecorded) {
  const std::filesystem::path over = dir_ / "over" / "deep";
  MailEngine* e = Restart([&](MailEngine& m) { m.SetDataDirectoryOverride(over); });
  EXPECT_EQ(e->data_directory(), over.string() + "/");
  EXPECT_EQ(e->storages().size(), 1u);
  EXPECT_FALSE(std::filesystem::exists(registry()));
}

// Start and PrepareDataDirectory return the failing step's own code.
TEST_F(EngineTest, AFailedStartReturnsTheCodeOfTheStepThatFailed) {
  WriteFile(dir_ / "file", "in the way");
  struct Row { const char* name; std::function<void(MailEngine&)> configure; Result want; std::string problem; };
  const Row rows[] = {
      {"registry file is a directory", [&](MailEngine& m) { m.SetRegistryPath(dir_.path()); },
       ResultFromErrno(EISDIR), "Cannot open registry file " + dir_.path().string()},
      {"a file where the data directory goes", [&](MailEngine& m) { m.SetDataDirectoryOverride(dir_ / "file"); },
       FromWin32(3), "Cannot create data directory " + (dir_ / "file/").string()},
  };
  for (const Row& row : rows) {
    for (const bool prepare : {true, false}) {
      SCOPED_TRACE(std::string(row.name) + (prepare ? ", PrepareDataDirectory" : ", Start"));
      MailEngine* e = Acquire();
      row.configure(*e);
      std::filesystem::path prepared;
      EXPECT_EQ(prepare ? e->PrepareDataDirectory(&prepared) : e->Start(""), row.want);
      EXPECT_EQ(e->start_problem().rfind(row.problem, 0), 0u) << e->start_problem();
      EXPECT_FALSE(e->loaded());
      EXPECT_TRUE(e->storages().empty());
      Release();
    }
  }
}

TEST_F(EngineTest, AcquireAndReleaseShareOneEngineAndTheLastReleaseSavesTheSettings) {
  MailEngine* e = Restart();
  EXPECT_EQ(Acquire(), e);
  ASSERT_EQ(e->settings().WriteInteger("Engine", "Answer", 42), rc::kOk);
  Release();
  EXPECT_EQ(ReadFile(default_data() / "Settings.ini").find("Answer"), std::string::npos);
  Release();
  EXPECT_NE(ReadFile(default_data() / "Settings.ini").find("Answer=42"), std::string::npos);
}

class EngineServicesTest : public EngineTest {
 protected:
  // Starts an engine on a settings file of this text, with the recording
  // factory when `with_factory`.
  MailEngine* StartWith(const std::string& settings, bool with_factory = true) {
    std::filesystem::create_directories(default_data());
    WriteFile(default_data() / "Settings.ini", settings);
    return Restart([&](MailEngine& m) { if (with_factory) m.SetServiceFactory(factory_); });
  }
  // The start log's lines about services.
  Lines ServiceLog() {
    Lines out = LastStartLog();
    std::erase_if(out, [](const std::string& l) { return l.find("ervice") == l.npos && l.find("Storage not") == l.npos; });
    return out;
  }

  std::vector<FakeService*> made_;
  ServiceFactory factory_ = [this](WStringView, MailEngine&, Storage&) {
    auto service = std::make_unique<FakeService>();
    made_.push_back(service.get());
    return service;
  };
};

const std::string kUnknownStorage = "Storage=584D" + std::string(32, '7') + "\n";

// Only sections beginning "Service." are services; without a factory every
// service fails to load and no storage is made for it.
TEST_F(EngineServicesTest, OnlySectionsBeginningWithTheServicePrefixAreServices) {
  MailEngine* e = StartWith("[Services]\nClass=POP3\n[Service.{]\nClass=SMTP\n[service.{whatever}]\nClass=IMAP4\n"
                            "Storage=584D" + std::string(32, '0') + "\n[Service{0a1b2c3d-0000-4e5f-8a9b-0c1d2e3f4a5b}]\n"
                            "Class=POP3\n");
  EXPECT_EQ(ServiceLog(), (Lines{"- Loading service: Service.{", "- Service loading error: Unspecified error.",
                                 "- Loading service: service.{whatever}", "- Service loaded"}));
  ASSERT_EQ(made_.size(), 1u);
  EXPECT_TRUE(made_[0]->loaded_id.IsNil());
  EXPECT_EQ(made_[0]->loaded_told, 1);
  EXPECT_EQ(made_[0]->new_storage, nullptr);
  EXPECT_EQ(e->FindStorage(Guid::Nil())->services(), std::vector<StorageService*>{made_[0]});
  e->Idle();
  EXPECT_EQ(made_[0]->idles, 1);

  e = StartWith("[Service.{a}]\nClass=POP3\n" + kUnknownStorage + "[Service.{b}]\nClass=IMAP4\n", false);
  EXPECT_EQ(Count(ServiceLog(), "- Service loading error: Unspecified error."), 2u);
  EXPECT_EQ(e->storages().size(), 1u);
  EXPECT_TRUE(e->services().empty());
}

TEST_F(EngineServicesTest, AServiceWhoseStorageIsMissingGetsANewOneNamedAfterIt) {
  const std::string section = "Service.{0a1b2c3d-0000-4e5f-8a9b-0c1d2e3f4a5b}";
  MailEngine* e = StartWith("[" + section + "]\nClass=POP3\nServiceName=svc POP3\n" + kUnknownStorage);
  EXPECT_EQ(ServiceLog(), (Lines{"- Loading service: " + section, "- Storage not found - recreating",
                                 "- Service loaded"}));
  ASSERT_EQ(made_.size(), 1u);
  EXPECT_EQ(made_[0]->loaded_id.ToLowerString(), section.substr(8));
  ASSERT_NE(made_[0]->new_storage, nullptr);
  EXPECT_EQ(made_[0]->new_storage->name(), u"svc POP3");
  EXPECT_EQ(e->storages().size(), 2u);
  EXPECT_EQ(e->FindStorage(made_[0]->new_storage->id()), made_[0]->new_storage);
}

TEST_F(EngineTest, AnIndexLeftOnlyAsItsBackupIsRestoredBeforeDiscovery) {
  const std::filesystem::path inbox = Restart()->storages()[0]->SpecialFolder(kFolderInbox)->file_path();
  Release();
  std::filesystem::rename(local_index(), IndexBackupPath(local_index()));
  MailEngine* e = Restart();
  const Lines log = LastStartLog();
  EXPECT_EQ(Count(log, "- Creating 'Local Folders' storage"), 0u);
  ASSERT_EQ(e->storages().size(), 1u);
  EXPECT_EQ(e->storages()[0]->SpecialFolder(kFolderInbox)->file_path(), inbox);
}

class MoveDataDirectoryTest : public EngineTest {
 protected:
  void SetUp() override {
    Restart([&](MailEngine& m) { m.SetFileOps(&ops_); });
    files_ = Listing(default_data());
  }
  // The files of a directory, without the side files of open folder files.
  static Lines Listing(const std::filesystem::path& dir) {
    Lines names = ListRegularFiles(dir);
    std::erase_if(names, [](const std::string& n) { return n.ends_with("-wal") || n.ends_with("-shm"); });
    return names;
  }
  Result Move(bool allow_overwrite = false) {
    return engine_->MoveDataDirectory(target_, [&](const DataMoveStep& step) {
      steps_.push_back(std::to_string(step.phase) + (step.asks_overwrite ? "?" : " ") + step.file_name);
      return allow_overwrite;
    });
  }
  // The engine still works from the default data directory.
  void ExpectNotMoved() {
    EXPECT_EQ(Listing(default_data()), files_);
    EXPECT_EQ(RegistryValue("DataDir"), PathToWide(default_data()));
    EXPECT_EQ(engine_->data_directory(), default_data());
    EXPECT_TRUE(engine_->storages()[0]->is_open());
  }

  FaultyFileOps ops_;
  Lines files_, steps_;
  std::filesystem::path target_ = dir_ / "moved";
};

TEST_F(MoveDataDirectoryTest, EveryFileMovesAndTheEngineFollows) {
  ASSERT_EQ(Move(), rc::kOk);
  EXPECT_EQ(Listing(target_), files_);
  EXPECT_TRUE(Listing(default_data()).empty());
  EXPECT_EQ(RegistryValue("DataDir"), PathToWide(target_ / ""));
  Storage* local = engine_->storages()[0];
  EXPECT_EQ(local->SpecialFolder(kFolderInbox)->file_path().parent_path(), target_);
  ASSERT_EQ(local->CreateFolder(local->root(), u"After", nullptr), rc::kOk);
  MailEngine* e = Restart();
  EXPECT_EQ(e->data_directory(), target_ / "");
  EXPECT_NE(e->FindFolder(u"Local Folders/After"), nullptr);
}

TEST_F(MoveDataDirectoryTest, ARefusedOrFailedMoveMovesNothing) {
  EXPECT_EQ(engine_->MoveDataDirectory(default_data(), {}), rc::kInvalidArg);  // the same directory
  ExpectNotMoved();
  std::filesystem::create_directories(target_);
  WriteFile(target_ / "Settings.ini", "theirs");
  EXPECT_EQ(Move(false), rc::kFileExists);
  EXPECT_EQ(steps_, Lines{"1?Settings.ini"});
  EXPECT_EQ(ReadFile(target_ / "Settings.ini"), "theirs");
  ExpectNotMoved();
  // A failure on the third file rolls back the two before it, last first.
  std::filesystem::remove(target_ / "Settings.ini");
  steps_.clear();
  ops_.fail_at = ops_.changes + 2;
  EXPECT_EQ(Move(), FaultyFileOps::kFault);
  EXPECT_EQ(steps_, (Lines{"1 " + files_[0], "1 " + files_[1], "1 " + files_[2], "0 " + files_[1], "0 " + files_[0]}));
  EXPECT_TRUE(Listing(target_).empty());
  ExpectNotMoved();
  EXPECT_TRUE(engine_->storages()[0]->complete());
  WriteFile(target_ / "Settings.ini", "theirs");
  ASSERT_EQ(Move(true), rc::kOk);
  EXPECT_EQ(Listing(target_), files_);
}

TEST_F(MoveDataDirectoryTest, AFailedRollbackSaysSoAndNamesWhatIsLeft) {
  ops_.fail_at = ops_.changes + 2;
  ops_.crash = true;
  EXPECT_EQ(Move(), rc::kFail);
  EXPECT_EQ(Listing(target_), (Lines{files_[0], files_[1]}));
  EXPECT_EQ(RegistryValue("DataDir"), PathToWide(default_data()));
  const std::string log = ReadFile(default_data() / "TarvoMail.log") + ReadFile(target_ / "TarvoMail.log");
  EXPECT_NE(log.find("Left in " + (target_ / "").string() + ": " + files_[1]), std::string::npos);
}

}  // namespace
}  // namespace trv
