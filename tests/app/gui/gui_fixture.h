// The window program tests' fixture: a sandboxed home, configuration and
// runtime directory, a data directory, and messages put into its Inbox.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "core/engine.h"
#include "core/registry.h"
#include "core/message_import.h"
#include "store/mail_folder.h"
#include "tests/support/temp_dir.h"

namespace trv::gui {

class GuiTest : public ::testing::Test {
 protected:
  GuiTest() {
    for (const char* var : {"HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_RUNTIME_DIR"}) {
      ::setenv(var, dir_.path().c_str(), 1);
    }
    // No runs when a window opens: a run asking for a password would wait
    // for a dialog nobody answers. Tests of the start-up runs turn it on.
    std::unique_ptr<RegistryKey> key;
    if (RegistryKey::Open(RegistryKey::DefaultPath(), &key).ok()) {
      key->WriteDword("CMLGUIParams\\Options", "SyncAtStart", 0).Ignore();
      key->Flush().Ignore();
    }
  }
  std::filesystem::path data_dir() const { return dir_.path() / "data"; }

  // Puts messages into the Inbox of a data directory, with the engine alone.
  void AddToInbox(const std::vector<std::string>& texts, size_t read_count) {
    MailEngine* engine = AcquireEngine();
    engine->SetDataDirectoryOverride(data_dir());
    ASSERT_FALSE(engine->Start("").failed());
    FolderFile& inbox = *engine->storages().front()->SpecialFolder(kFolderInbox)->file();
    for (size_t i = 0; i < texts.size(); ++i) {
      MessageRecord record = RecordFromMessage(texts[i]);
      if (i < read_count) record.flags |= msgflag::kRead;
      uint32_t key = 0;
      ASSERT_FALSE(inbox.Append(record, texts[i], &key).failed());
    }
    ReleaseEngine();
  }

  test::TempDir dir_;
};

// A plain message from Ann with the subject and body given.
inline std::string Message(const std::string& subject, const std::string& body) {
  return "From: Ann <ann@example.org>\r\nSubject: " + subject + "\r\nDate: Mon, 2 Mar 2026 10:00:00 +0000\r\n\r\n" +
         body + "\r\n";
}

}  // namespace trv::gui
