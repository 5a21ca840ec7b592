// The storage index file "{GUID}.idx": the folder tree of one storage. All
// integers little-endian; a string is a signed 32-bit count of UTF-16 units
// and the units (no terminator; a count of 0 or less has none).
//
//   0   4       magic: "QZML" (current) or "PZML" (earlier, read only)
//   4   1       local flag
//   5   16      storage identifier
//   21  string  storage name
//       string  root folder's path
//       1,1,4,1 root view byte A, byte B, 32-bit value, byte C (current only)
//       4       number of children of the root
//       ...     each child's record, pre-order:
//                 4 kind, string name, string folder file name,
//                 4 number of children, the children's records
//
// Parsing is pure (bytes in, tree out) and bounded by the input: no string
// or child count can make it allocate beyond what the bytes hold, and the
// nesting depth is limited.
//
// Saving (WriteStorageIndexFile) follows the replace protocol: the new index
// goes to "{GUID}.$$$" (written and flushed), then the old backup "{GUID}.bak"
// is deleted, the index renamed to the backup name and the temporary file
// renamed to the index name, and the directory flushed. A crash at any point
// leaves the old index, the new index, or only the backup; the last case is
// repaired by RestoreIndexFromBackup, which opening a storage and every save
// call when the index is missing and the backup exists.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/log_sink.h"
#include "base/guid.h"
#include "base/result.h"
#include "base/wide_string.h"

namespace trv {

class FileSystem;

inline constexpr uint32_t kIndexMagicCurrent = 0x4C4D5A51;  // "QZML"
inline constexpr uint32_t kIndexMagicEarlier = 0x4C4D5A50;  // "PZML"

// Records nested deeper than this are taken as damage.
inline constexpr size_t kMaxFolderDepth = 256;

// The four values the interface keeps with the root folder; stored and
// written back unchanged.
struct RootViewValues {
  uint8_t a = 0;
  uint8_t b = 0;
  uint32_t value = 0;
  uint8_t c = 0;
  friend bool operator==(const RootViewValues&, const RootViewValues&) = default;
};

struct FolderRecord {
  uint32_t kind = 0;
  WString name;
  WString file_name;  // as kept in the file: usually "{GUID}.fld"
  std::vector<FolderRecord> children;
  friend bool operator==(const FolderRecord&, const FolderRecord&) = default;
};

struct StorageIndex {
  uint32_t magic = kIndexMagicCurrent;
  bool local = false;
  Guid id;
  WString name;
  WString root_path;
  RootViewValues view;  // zero when read from an earlier-version file
  std::vector<FolderRecord> children;
  friend bool operator==(const StorageIndex&, const StorageIndex&) = default;
};

// Where and why the folder records stopped being readable.
struct IndexDamage {
  size_t offset = 0;  // of the record (or count) that could not be read
  std::string what;   // for log lines: "folder record cut short", ...
};

// Reads an index file's bytes.
// - A wrong magic or a header cut short: rc::kInvalidData and *damage says
//   why; `out` is left empty. The storage cannot be opened from these bytes.
// - Damage among the folder records: rc::kOk, *damage is set, and `out`
//   holds every record read whole before that point (a folder whose list of
//   children was cut keeps the children read so far).
// - Bytes after the tree are ignored, as the tree says where it ends.
Result ParseStorageIndex(std::string_view bytes, StorageIndex* out, std::optional<IndexDamage>* damage);

// The bytes of an index in the current version (the magic in `index` is
// not looked at: an earlier-version index is written as a current one).
std::string EncodeStorageIndex(const StorageIndex& index);

// "{GUID}.idx" -> "{GUID}.$$$" and "{GUID}.bak"; "{GUID}.damaged" keeps an
// index that could not be read whole until the next save replaces it.
std::filesystem::path IndexTempPath(const std::filesystem::path& index_path);
std::filesystem::path IndexBackupPath(const std::filesystem::path& index_path);
std::filesystem::path IndexDamagedPath(const std::filesystem::path& index_path);

// Saves `bytes` as the index file by the replace protocol above.
// - The temporary file cannot be created or written: rc::kWriteFault (29),
//   the old index stays and the cause is logged with the file's name.
// - `keep_damaged`: the current index could not be read whole; it is renamed
//   to IndexDamagedPath instead of the backup name, and the backup (a good
//   copy) is kept.
// - A failed rename gives its system error; the old index is put back under
//   its name when it was already moved, and in every case, when the index
//   is missing at the end and the backup exists, the backup is copied back.
Result WriteStorageIndexFile(const std::filesystem::path& index_path, std::string_view bytes, bool keep_damaged,
                             FileSystem& ops, LogSink& log);

// When the index file is missing and its backup exists, copies the backup
// back to the index name and logs "Storage index restored from backup: "
// with the backup's path. rc::kOk when there was nothing to do.
Result RestoreIndexFromBackup(const std::filesystem::path& index_path, FileSystem& ops, LogSink& log);

}  // namespace trv
