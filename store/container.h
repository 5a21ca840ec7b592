// A container file: one ordinary file holding a flat set of named streams,
// kept in an SQLite database. Folder files keep their counts, index and
// messages in one (see store/folder_file.h).
//
// Every operation leaves its result in the container's error state
// (last_error(), 0 after success) and also returns it where it has no other
// result. Stream paths use the separator given to Open; a leading separator
// is optional ("/Index" and "Index" name the same stream). Names may hold
// further separators (nested streams); the root listing shows only the
// streams directly in the root.
//
// Durability: commits go through SQLite's write-ahead log. A commit that has
// returned survives a kill of the process in every mode. With `sync_commits`
// it is also flushed to the disk before returning, so it survives a power
// loss; without it a power loss may take back the last commits, but never
// leaves the file damaged. Every operation outside an explicit transaction
// is its own transaction.
//
// Threads: a container, its streams and its searches are used by one thread
// at a time (the folder file's mutex sees to that). The container must stay
// alive while its streams exist; closing it makes their operations fail with
// rc::kContainerClosed instead of touching freed state.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "base/result.h"
#include "base/wide_string.h"
#include "store/container_result.h"

namespace trv {

namespace container_internal {
class ContainerDb;
}

class ContainerStream;
class RootSearch;

// What a container moved since it was opened (tests and the benchmark).
struct ContainerCounters {
  uint64_t bytes_read = 0;     // stream bytes read
  uint64_t bytes_written = 0;  // stream bytes written
  uint64_t commits = 0;        // transactions committed
  uint64_t streams_opened = 0; // successful OpenStream calls
};

// Name, size and creation time (Unix seconds) of one stream.
struct StreamInfo {
  WString name;
  uint32_t size = 0;
  int64_t created = 0;
};

struct ContainerOptions {
  // A minimum: database pages are at least 4096 bytes.
  uint32_t page_size = 512;
  // Kept with a new file; an existing file keeps its own.
  WString label;
  char16_t separator = u'/';
  // Removes an existing file first (only for callers that mean to discard it).
  bool create_anew = false;
  // Flushes every commit to the disk (see Durability above).
  bool sync_commits = true;
  // Opens without writing anything.
  bool read_only = false;
};

// How OpenStream treats the stream.
enum class StreamOpen {
  kExisting,  // must exist; readable and writable
  kCreate,    // created empty when missing; readable and writable
  kReadOnly,  // must exist; writes fail with rc::kStreamReadOnly
};

class Container {
 public:
  Container();
  ~Container();
  Container(const Container&) = delete;
  Container& operator=(const Container&) = delete;

  // Opens `path`. A missing file is created with the page size, label and
  // separator of `options` (unless read-only). An existing file that is not a container (not an SQLite database of this
  // format, or one holding other tables) fails with rc::kNotContainer and is
  // left untouched.
  Result Open(const std::filesystem::path& path, const ContainerOptions& options);
  // Closes the file (any open transaction is rolled back). Safe to repeat.
  void Close();
  bool is_open() const;
  Result last_error() const { return error_; }
  const std::filesystem::path& path() const { return path_; }
  // The label and page size the file was created with.
  const WString& label() const { return label_; }
  uint32_t page_size() const { return page_size_; }

  bool StreamExists(WStringView path);
  // Opens a stream (see StreamOpen). A missing stream that is not to be
  // created is rc::kStreamMissing. The stream starts at position 0 and
  // carries its own error state.
  Result OpenStream(WStringView path, StreamOpen how, std::unique_ptr<ContainerStream>* out);
  // rc::kStreamMissing when there is no such stream.
  Result DeleteStream(WStringView path);
  Result GetStreamInfo(WStringView path, StreamInfo* info);

  // Lists the streams directly in the root whose names match `pattern`, in
  // ascending order of their names (by code point), at most `limit` of them
  // (negative: no limit). Pattern: "*" matches any run of characters, "?" one
  // character, "\" makes the next character literal, anything else matches
  // itself (case counts). So "\0*" lists the names beginning with "0", the
  // message streams of a folder file. Streams deleted or added while a search
  // runs are safe: the search continues after the last name it gave.
  std::unique_ptr<RootSearch> FindRoot(WStringView pattern, int32_t limit = -1);

  // Transactions. Begin may nest (inner levels are savepoints); the changes
  // of all levels become durable with the outermost Commit. Rollback undoes
  // the innermost level. After any failed operation inside a transaction
  // the caller must roll back.
  Result Begin();
  Result Commit();
  Result Rollback();
  bool in_transaction() const;

  // Gives free pages back to the file system (shrinking the file) when they
  // are more than `min_share` of it. Not inside a transaction.
  Result ReleaseFreeSpace(double min_share);

  ContainerCounters counters() const;

 private:
  friend class ContainerStream;
  friend class RootSearch;

  Result Fail(Result r) {
    error_ = r;
    return r;
  }
  // Converts a caller's path into the stored name; rc::kInvalidArg if bad.
  Result StoredName(WStringView path, std::string* name) const;

  std::shared_ptr<container_internal::ContainerDb> db_;
  std::filesystem::path path_;
  WString label_;
  uint32_t page_size_ = 0;
  char16_t separator_ = u'/';
  Result error_;
};

// Rolls back unless committed; the usual way to make several operations one.
class ContainerTransaction {
 public:
  explicit ContainerTransaction(Container& c) : c_(c), begin_(c.Begin()) {}
  ~ContainerTransaction() {
    if (begin_.ok() && !done_) c_.Rollback().Ignore();
  }
  ContainerTransaction(const ContainerTransaction&) = delete;
  ContainerTransaction& operator=(const ContainerTransaction&) = delete;

  Result begin_result() const { return begin_; }
  Result Commit() {
    done_ = true;
    return c_.Commit();
  }

 private:
  Container& c_;
  Result begin_;
  bool done_ = false;
};

// One root listing (first = Container::FindRoot, next = Next, close = the
// destructor).
class RootSearch {
 public:
  ~RootSearch();
  RootSearch(const RootSearch&) = delete;
  RootSearch& operator=(const RootSearch&) = delete;

  // The next matching name; false at the end or on an error (see last_error).
  bool Next(WString* name);
  Result last_error() const { return error_; }

 private:
  friend class Container;
  RootSearch(std::shared_ptr<container_internal::ContainerDb> db, WString pattern, int32_t limit);

  std::shared_ptr<container_internal::ContainerDb> db_;
  WString pattern_;
  std::string prefix_;  // literal start of the pattern, UTF-8
  int32_t left_;        // matches still allowed; negative = no limit
  std::vector<std::string> batch_;
  size_t next_ = 0;
  std::string last_;
  bool started_ = false;
  bool done_ = false;
  Result error_;
};

// Seam for tests: the name of a registered SQLite VFS that containers opened
// from now on go through (null: the default). Not for use while containers
// are being opened on other threads.
void SetContainerVfs(const char* vfs_name);

// Checks the container file at `path` and repairs it where it can, with no
// other connection to it open. Returns 0 when the file is usable again.
//
// - A missing file: 0x80070002. A file that is not a container: rc::kNotContainer;
//   it is left exactly as it is.
// - A sound database: chunks and stream sizes are made consistent (chunks
//   past a stream's end or of no stream removed, over-long rows cut).
// - A damaged database, when `salvage` is set: every stream and chunk that
//   can still be read is copied into a new file, which then takes the place
//   of the old one. The damaged file itself is first copied to `keep_path`
//   (empty: `path` + ".damaged", numbered when that exists), so nothing is
//   ever destroyed. When nothing at all can be read the file is left in place
//   and the result is rc::kNothingSalvaged. Without `salvage`: rc::kContainerDamaged.
Result CheckAndRepair(const std::filesystem::path& path, uint32_t page_size, bool salvage,
                      WStringView keep_path);

}  // namespace trv
