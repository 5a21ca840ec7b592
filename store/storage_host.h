// What a storage needs from its owner (the mail engine): the log, the data
// directory, the places to look for folder files, the engine's progress
// callback and its listeners. The store layer sees only this interface, so it
// does not depend on the engine.
//
// Threads: a storage calls its host on the thread that called the storage
// (the interface thread for tree changes and opening), except
// IndexReadProgress, which comes from whichever thread loads a folder's index.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "base/log_sink.h"
#include "base/result.h"
#include "base/wide_string.h"
#include "store/folder_file.h"

namespace trv {

class MailFolder;
class Storage;
class FileSystem;

// Events of the engine's progress callback that storages raise, and the
// answers they understand.
enum StorageEventCode : int {
  // No candidate path holds a folder's file. Answer kAnswerSearchAgain to
  // look again, kAnswerSkip to leave the folder unopened, anything else to
  // recreate the file empty.
  kEventFolderFileNotFound = 3,
  // A storage could not be opened (error, path, detail).
  kEventStorageLoadingError = 9,
  // A folder could not be loaded (error, storage and folder name). Answer
  // kAnswerStop to stop loading the tree, anything else to go on.
  kEventFolderLoadingError = 10,
};

inline constexpr int kAnswerDefault = 0;  // recreate / go on
inline constexpr int kAnswerStop = 1;
inline constexpr int kAnswerSkip = 3;
inline constexpr int kAnswerSearchAgain = 5;

struct StorageEvent {
  int code = 0;
  Result error;
  WString storage_name;
  WString folder_name;
  std::filesystem::path path;  // the index file (9) or the folder file name (3, 10)
  std::string detail;          // what was wrong with the index file, if anything, for messages
};

// A change of a storage's folder tree, for the interface's folder view.
struct FolderTreeChange {
  enum Kind { kCreated, kAttached, kRenamed, kDeleted, kMoved };
  Kind kind;
  // The folder (for kDeleted: the parent it was removed from; the folder
  // itself is already gone).
  MailFolder* folder;
};

// A service as far as its storage knows it. Implemented by the services.
class StorageService {
 public:
  virtual ~StorageService() = default;
  // The storage has been opened (its tree is loaded).
  virtual Result OnStorageOpened(Storage& storage) = 0;
  // The storage was created for this service because its own was missing.
  virtual Result OnStorageNew(Storage& storage) = 0;
};

class StorageHost {
 public:
  virtual ~StorageHost() = default;

  virtual LogSink& StorageLog() = 0;
  // Ends with "/". Folder files of new folders go here; it is the second
  // place searched for folder files.
  virtual std::filesystem::path DataDirectory() = 0;

  // The first place searched for folder files, standing for the device root.
  virtual std::filesystem::path HomeDirectory() { return UserHomeDirectory(); }
  // Searched when a folder has no directory of its own.
  virtual std::vector<std::filesystem::path> RemovableMediaRoots() { return MountedMediaRoots(); }

  // The engine's progress callback; the answer as above. No callback: 0.
  virtual int StorageProgress(const StorageEvent& event) { return kAnswerDefault; }
  // The engine's about-to-open listeners (creating a storage tells them).
  virtual void StorageAboutToOpen(Storage& storage) {}
  virtual void FolderTreeChanged(Storage& storage, const FolderTreeChange& change) {}
  // Position and size of an index being read, after each record.
  virtual void IndexReadProgress(uint32_t position, uint32_t size) {}

  virtual FileSystem& FileOps();
  // Options of the folder files the storages open.
  virtual FolderFileOptions FolderFileSettings() { return {}; }

  // $HOME, else the user database's home directory; ends with "/". Empty
  // when neither is known.
  static std::filesystem::path UserHomeDirectory();
  // The directories under /media/$USER and /run/media/$USER, each ending in
  // "/", sorted by name.
  static std::vector<std::filesystem::path> MountedMediaRoots();
};

// Appends "/" unless the path is empty or ends in one.
std::filesystem::path WithTrailingSlash(const std::filesystem::path& dir);

}  // namespace trv
