// Check and repair of container files. A damaged file is never written to:
// it is copied aside byte for byte first, read through a read-only
// connection, and replaced by a new file built from what could be read.
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <string>
#include <unordered_map>

#include "base/file_system.h"
#include "store/container.h"
#include "store/container_db.h"
#include "store/container_file.h"

namespace trv {

namespace {

using container_internal::Exec;
using container_internal::kChunkBits;
using container_internal::kChunkSize;

class Db {
 public:
  ~Db() { sqlite3_close_v2(db_); }
  sqlite3** out() { return &db_; }
  sqlite3* get() const { return db_; }

 private:
  sqlite3* db_ = nullptr;
};

class Stmt {
 public:
  Stmt(sqlite3* db, const char* sql) { code_ = sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr); }
  ~Stmt() { sqlite3_finalize(stmt_); }
  int code() const { return code_; }
  sqlite3_stmt* get() const { return stmt_; }

 private:
  sqlite3_stmt* stmt_ = nullptr;
  int code_;
};

Result IntegrityCheck(sqlite3* db) {
  Stmt stmt(db, "PRAGMA integrity_check(1)");
  if (stmt.code() != SQLITE_OK) return SqliteResult(stmt.code(), db);
  const int code = sqlite3_step(stmt.get());
  if (code != SQLITE_ROW) return SqliteResult(code, db);
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), 0));
  return text && std::string_view(text) == "ok" ? rc::kOk : rc::kContainerDamaged;
}

// Removes chunks of no stream and past their stream's end, and cuts rows
// longer than a chunk or than their stream.
Result FixConsistency(sqlite3* db) {
  Result r = Exec(db, "BEGIN IMMEDIATE");
  if (r.failed()) return r;
  r = Exec(db,
           "DELETE FROM chunks WHERE NOT EXISTS (SELECT 1 FROM streams WHERE id = chunks.rowid >> 17);"
           "DELETE FROM chunks WHERE (rowid & 131071) * 32768 >="
           " (SELECT size FROM streams WHERE id = chunks.rowid >> 17);"
           "UPDATE chunks SET data = substr(data, 1, 32768) WHERE length(data) > 32768;"
           "UPDATE chunks SET data = substr(data, 1, (SELECT size FROM streams WHERE id = chunks.rowid >> 17)"
           " - (rowid & 131071) * 32768) WHERE length(data) >"
           " (SELECT size FROM streams WHERE id = chunks.rowid >> 17) - (rowid & 131071) * 32768;");
  if (r.ok()) return Exec(db, "COMMIT");
  Exec(db, "ROLLBACK").Ignore();
  return r;
}

// Walks a table by rowid and hands every readable row to `row`. When a
// damaged page stops the walk it resumes just past the last good rowid, one
// step at a time at first (stream ids are dense), then with growing jumps,
// so one bad page costs only the rows on it.
void ScanReadable(sqlite3* db, const char* sql_after, const std::function<void(sqlite3_stmt*)>& row) {
  Stmt stmt(db, sql_after);
  if (stmt.code() != SQLITE_OK) return;
  int64_t after = -1;  // rowids are never negative here
  int failures = 0;    // in a row, without a row read in between
  for (int errors = 0; errors < 100000; ++errors) {
    sqlite3_reset(stmt.get());
    sqlite3_bind_int64(stmt.get(), 1, after);
    int code;
    while ((code = sqlite3_step(stmt.get())) == SQLITE_ROW) {
      after = sqlite3_column_int64(stmt.get(), 0);
      row(stmt.get());
      failures = 0;
    }
    if (code == SQLITE_DONE) return;
    ++failures;
    const int jump_bits = failures < 1024 ? 0 : failures - 1024;
    if (jump_bits > 62) return;
    const int64_t step = int64_t{1} << jump_bits;
    if (after > INT64_MAX - step) return;
    after += step;
  }
}

struct SalvagedStream {
  std::string name;
  int64_t size;
  int64_t created;
};

// Copies the chunks of one stream, each looked up by its rowid (a lookup
// finds its way around damaged pages that stop a sequential walk), and
// returns how many bytes from the start could be read without a gap: what
// follows a lost chunk would read as zeros in the middle of a message.
Result CopyChunks(sqlite3* src, sqlite3* dst, int64_t id, int64_t size, int64_t* readable) {
  Stmt get(src, "SELECT data FROM chunks WHERE rowid = ?1");
  Stmt put(dst, "INSERT INTO chunks(rowid, data) VALUES(?1, ?2)");
  if (get.code() != SQLITE_OK || put.code() != SQLITE_OK) return SqliteResult(SQLITE_ERROR, dst);
  *readable = 0;
  const int64_t chunks = (size + kChunkSize - 1) / kChunkSize;
  for (int64_t n = 0; n < chunks; ++n) {
    const int64_t rowid = id << kChunkBits | n;
    sqlite3_reset(get.get());
    sqlite3_bind_int64(get.get(), 1, rowid);
    if (sqlite3_step(get.get()) != SQLITE_ROW) break;
    const int length = sqlite3_column_bytes(get.get(), 0);
    if (length > static_cast<int>(kChunkSize)) break;
    sqlite3_reset(put.get());
    sqlite3_bind_int64(put.get(), 1, rowid);
    sqlite3_bind_blob(put.get(), 2, length ? sqlite3_column_blob(get.get(), 0) : "", length, SQLITE_TRANSIENT);
    const int code = sqlite3_step(put.get());
    if (code != SQLITE_DONE) return SqliteResult(code, dst);
    *readable = std::min(size, n * kChunkSize + length);
    if (length < static_cast<int>(kChunkSize)) break;  // a short row ends what can be trusted
  }
  return rc::kOk;
}

Result CopyReadable(sqlite3* src, sqlite3* dst, size_t* streams_saved) {
  std::unordered_map<int64_t, SalvagedStream> streams;
  ScanReadable(src, "SELECT id, name, size, created FROM streams WHERE id > ?1 ORDER BY id",
               [&](sqlite3_stmt* s) {
                 const auto* name = reinterpret_cast<const char*>(sqlite3_column_text(s, 1));
                 const int64_t size = sqlite3_column_int64(s, 2);
                 if (!name || size < 0 || size > container_internal::kMaxStreamSize) return;
                 streams[sqlite3_column_int64(s, 0)] = {name, size, sqlite3_column_int64(s, 3)};
               });
  *streams_saved = streams.size();
  if (streams.empty()) return rc::kNothingSalvaged;

  Result r = Exec(dst, "BEGIN IMMEDIATE");
  if (r.failed()) return r;
  Stmt put_stream(dst, "INSERT OR IGNORE INTO streams(id, name, size, created) VALUES(?1, ?2, ?3, ?4)");
  if (put_stream.code() != SQLITE_OK) r = SqliteResult(put_stream.code(), dst);
  for (const auto& [id, s] : streams) {
    int64_t readable = 0;
    if (r.ok()) r = CopyChunks(src, dst, id, s.size, &readable);
    if (r.failed()) break;
    sqlite3_reset(put_stream.get());
    sqlite3_bind_int64(put_stream.get(), 1, id);
    sqlite3_bind_text(put_stream.get(), 2, s.name.data(), static_cast<int>(s.name.size()), SQLITE_STATIC);
    sqlite3_bind_int64(put_stream.get(), 3, readable);
    sqlite3_bind_int64(put_stream.get(), 4, s.created);
    const int code = sqlite3_step(put_stream.get());
    if (code != SQLITE_DONE) r = SqliteResult(code, dst);
  }
  if (r.ok()) return Exec(dst, "COMMIT");
  Exec(dst, "ROLLBACK").Ignore();
  return r;
}

Result SyncFd(int fd) { return ::fsync(fd) == 0 ? rc::kOk : ResultFromErrno(errno); }

Result SyncDirectoryOf(const std::filesystem::path& path) {
  std::filesystem::path dir = path.parent_path();
  if (dir.empty()) dir = ".";
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return ResultFromErrno(errno);
  const Result r = SyncFd(fd);
  ::close(fd);
  return r;
}

// Copies a file and flushes the copy; a missing source copies nothing.
Result CopyFileSynced(const std::filesystem::path& from, const std::filesystem::path& to) {
  const int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) return errno == ENOENT ? rc::kOk : ResultFromErrno(errno);
  const int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kPrivateFileMode);
  if (out < 0) {
    const Result r = ResultFromErrno(errno);
    ::close(in);
    return r;
  }
  Result r;
  std::string buf(1 << 16, '\0');
  for (;;) {
    const ssize_t n = ::read(in, buf.data(), buf.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) r = ResultFromErrno(errno);
    if (n <= 0) break;
    for (ssize_t done = 0; done < n && r.ok();) {
      const ssize_t w = ::write(out, buf.data() + done, static_cast<size_t>(n - done));
      if (w < 0 && errno == EINTR) continue;
      if (w < 0) r = ResultFromErrno(errno);
      else done += w;
    }
    if (r.failed()) break;
  }
  if (r.ok()) r = SyncFd(out);
  ::close(out);
  ::close(in);
  return r;
}

std::filesystem::path WithSuffix(const std::filesystem::path& p, const std::string& suffix) {
  std::filesystem::path out = p;
  out += suffix;
  return out;
}

std::filesystem::path FreeKeepPath(const std::filesystem::path& path) {
  std::error_code ec;
  std::filesystem::path keep = WithSuffix(path, ".damaged");
  for (int i = 1; std::filesystem::exists(keep, ec) || std::filesystem::exists(WithSuffix(keep, "-wal"), ec); ++i) {
    keep = WithSuffix(path, ".damaged." + std::to_string(i));
  }
  return keep;
}

// The database page size from a file's header (bytes 16-17, big-endian, 1
// meaning 65536); 0 when the header does not hold a valid one.
uint32_t HeaderPageSize(const std::filesystem::path& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  uint8_t header[18];
  const bool got = ::pread(fd, header, sizeof header, 0) == static_cast<ssize_t>(sizeof header);
  ::close(fd);
  if (!got) return 0;
  const uint32_t size = header[16] << 8 | header[17];
  if (size == 1) return 65536;
  return size >= 512 && (size & (size - 1)) == 0 ? size : 0;
}

// A file cut in the middle of a page would have that page read with zeros
// for its lost part, as if they were content. The salvage then reads a copy
// that ends at the last whole page, so the partial page counts as lost.
Result WholePagesCopy(const std::filesystem::path& path, const std::filesystem::path& copy, bool* used) {
  *used = false;
  std::error_code ec;
  const uint64_t size = std::filesystem::file_size(path, ec);
  const uint32_t page = HeaderPageSize(path);
  if (ec || page == 0 || size % page == 0) return rc::kOk;
  container_internal::RemoveContainerFile(copy).Ignore();
  Result r = CopyFileSynced(path, copy);
  if (r.ok()) r = CopyFileSynced(WithSuffix(path, "-wal"), WithSuffix(copy, "-wal"));
  if (r.ok() && ::truncate(copy.c_str(), static_cast<off_t>(size / page * page)) != 0) r = ResultFromErrno(errno);
  *used = r.ok();
  return r;
}

Result Salvage(const std::filesystem::path& path, uint32_t page_size, const std::filesystem::path& keep) {
  // 1. The damaged file and its log, copied exactly as they are.
  Result r = CopyFileSynced(path, keep);
  if (r.ok()) r = CopyFileSynced(WithSuffix(path, "-wal"), WithSuffix(keep, "-wal"));
  if (r.failed()) return r;
  const std::filesystem::path trimmed = WithSuffix(path, ".whole-pages");
  bool use_trimmed = false;
  r = WholePagesCopy(path, trimmed, &use_trimmed);
  if (r.failed()) return r;
  const std::filesystem::path& source = use_trimmed ? trimmed : path;

  // 2. A new container built from what a read-only connection can read.
  const std::filesystem::path fresh = WithSuffix(path, ".repair");
  r = container_internal::RemoveContainerFile(fresh);
  size_t saved = 0;
  WString label;
  {
    Db src, dst;
    if (r.ok()) r = container_internal::OpenDatabase(source, true, src.out());
    // Lets a connection read a file shorter than its header says (a
    // truncated file) instead of refusing it whole.
    if (r.ok()) r = Exec(src.get(), "PRAGMA writable_schema = ON");
    if (r.ok()) {
      uint32_t old_page_size = 0;
      container_internal::ReadSettings(src.get(), &label, &old_page_size).Ignore();
      r = container_internal::OpenDatabase(fresh, false, dst.out());
    }
    if (r.ok()) r = container_internal::PrepareSchema(dst.get(), {page_size, label, u'/'});
    if (r.ok()) r = CopyReadable(src.get(), dst.get(), &saved);
    if (r.ok()) r = FixConsistency(dst.get());
  }  // closing dst checkpoints its log into the file and flushes it
  if (use_trimmed) container_internal::RemoveContainerFile(trimmed).Ignore();
  if (r.failed()) {
    container_internal::RemoveContainerFile(fresh).Ignore();
    if (r == rc::kNothingSalvaged) container_internal::RemoveContainerFile(keep).Ignore();
    return r;
  }

  // 3. The new file takes the old one's place. The old log goes first: left
  // beside the new file it would be replayed into it.
  for (const char* suffix : {"-wal", "-shm"}) {
    if (::unlink(WithSuffix(path, suffix).c_str()) != 0 && errno != ENOENT) return ResultFromErrno(errno);
  }
  if (::rename(fresh.c_str(), path.c_str()) != 0) return ResultFromErrno(errno);
  return SyncDirectoryOf(path);
}

}  // namespace

Result CheckAndRepair(const std::filesystem::path& path, uint32_t page_size, bool salvage, WStringView keep_path) {
  Result r = container_internal::ProbeContainerFile(path);
  if (r.failed()) return r;
  const container_internal::NewFileSettings settings{page_size, u"", u'/'};
  container_internal::NewFileSettings read_settings = settings;
  read_settings.read_only = true;
  std::error_code ec;
  const bool empty = std::filesystem::file_size(path, ec) == 0 && !ec;
  if (!empty) {
    // Read-only first: a read-only connection never checkpoints its log into
    // the file, so a damaged file stays as it was until it has been copied.
    Db db;
    r = container_internal::OpenDatabase(path, true, db.out());
    if (r.ok()) r = container_internal::PrepareSchema(db.get(), read_settings);
    if (r.ok()) r = IntegrityCheck(db.get());
  }
  if (r.ok()) {
    Db db;
    r = container_internal::OpenDatabase(path, false, db.out());
    if (r.ok()) r = container_internal::PrepareSchema(db.get(), settings);
    if (r.ok()) r = FixConsistency(db.get());
    return r;
  }
  if (r != rc::kContainerDamaged || !salvage) return r;
  const std::filesystem::path keep = keep_path.empty() ? FreeKeepPath(path) : WideToPath(keep_path);
  return Salvage(path, page_size, keep);
}

}  // namespace trv
