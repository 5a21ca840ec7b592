#include "services/imap4_folder_sync.h"

#include <utility>

namespace trv {

std::string SyncOptionsText(uint32_t sync) {
  static constexpr std::pair<uint32_t, const char*> kNames[] = {
      {imap4sync::kDownload, "Download, "},           {imap4sync::kDownloadNew, "DownloadNew, "},
      {imap4sync::kUpload, "Upload, "},               {imap4sync::kDeleteOnLocal, "DeleteOnLocal, "},
      {imap4sync::kDeleteOnServer, "DeleteOnServer, "},
  };
  std::string text;
  for (const auto& [bit, name] : kNames) {
    if (sync & bit) text += name;
  }
  return text;
}

// Placeholders until the folder records land.
Imap4FolderTree::Imap4FolderTree() : root_(std::make_unique<Imap4FolderSync>()) {}

}  // namespace trv
