// Change notifications of a folder file, for the interface's message list.
#pragma once

#include <cstdint>
#include <vector>

namespace trv {

class FolderFile;

// Called after a change has been committed to the file, on the thread that
// made it, with no lock of the folder file held: an observer may call the
// folder file back (to read the changed records), and one that lives on
// another thread must pass the news on to it by itself. Keys are message keys.
class FolderObserver {
 public:
  virtual ~FolderObserver() = default;
  virtual void MessagesAdded(FolderFile& folder, const std::vector<uint32_t>& keys) {}
  virtual void MessagesRemoved(FolderFile& folder, const std::vector<uint32_t>& keys) {}
  virtual void MessagesChanged(FolderFile& folder, const std::vector<uint32_t>& keys) {}
  // The index was (re)loaded: the whole list may be different.
  virtual void IndexLoaded(FolderFile& folder) {}
};

}  // namespace trv
