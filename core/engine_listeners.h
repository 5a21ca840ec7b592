// The engine's listener interfaces, kept in ListenerLists (base/listener_list.h):
// told in the order they were added, on the thread that made the change (the
// interface thread, except index progress, which comes from whichever thread
// reads a folder's index), with no lock of the list held.
#pragma once

#include <cstdint>

#include "base/listener_list.h"

namespace trv {

class EngineService;
class Storage;
struct FolderTreeChange;

// A service was added to the engine while loading services.
class ServiceAddedListener {
 public:
  virtual ~ServiceAddedListener() = default;
  virtual void OnServiceAdded(EngineService& service) = 0;
};

// A service is loaded; told for every service at the end of start-up.
class ServiceLoadedListener {
 public:
  virtual ~ServiceLoadedListener() = default;
  virtual void OnServiceLoaded(EngineService& service) = 0;
};

// A storage is about to be opened, or created.
class StorageOpeningListener {
 public:
  virtual ~StorageOpeningListener() = default;
  virtual void OnStorageAboutToOpen(Storage& storage) = 0;
};

// A storage has been opened (or created and so opened).
class StorageOpenedListener {
 public:
  virtual ~StorageOpenedListener() = default;
  virtual void OnStorageOpened(Storage& storage) = 0;
};

// A storage is about to be closed, its folders and their files with it: by
// MoveDataDirectory (opened again afterwards, told to the opened listeners),
// DeleteStorage or the shutdown. Told while the folders still exist, so that
// observers of their files can be removed.
class StorageClosingListener {
 public:
  virtual ~StorageClosingListener() = default;
  virtual void OnStorageAboutToClose(Storage& storage) = 0;
};

// For the interface's folder view: a storage's tree changed.
class FolderTreeListener {
 public:
  virtual ~FolderTreeListener() = default;
  virtual void OnFolderTreeChanged(Storage& storage, const FolderTreeChange& change) = 0;
};

// For the interface's progress display: a folder's index is being read.
// Called with that folder file's lock held: do not call the folder back.
class IndexProgressListener {
 public:
  virtual ~IndexProgressListener() = default;
  virtual void OnIndexProgress(uint32_t position, uint32_t size) = 0;
};

}  // namespace trv
