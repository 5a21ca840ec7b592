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

#include "store/container.h"
#include "store/container_db.h"
#include "store/container_file.h"

namespace trv {

namespace {

using container_internal::kChunkBits;
using container_internal::kChunkSize;

Result Exec(sqlite3* db, const char* sql) {
  return SqliteResult(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), db);
}

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
// damaged page stops the walk it resumes past the bad rowids with growing
// jumps, so one bad page costs only the rows on it.
void ScanReadable(sqlite3* db, const char* sql_after, const std::function<void(sqlite3_stmt*)>& row) {
  Stmt stmt(db, sql_after);
  if (stmt.code() != SQLITE_OK) return;
  int64_t after = -1;  // rowids are never negative here
  int errors = 0;
  int jump_bits = 0;
  while (errors < 4096) {
    sqlite3_reset(stmt.get());
    sqlite3_bind_int64(stmt.get(), 1, after);
    int code;
    bool progressed = false;
    while ((code = sqlite3_step(stmt.get())) == SQLITE_ROW) {
      after = sqlite3_column_int64(stmt.get(), 0);
      row(stmt.get());
      progressed = true;
    }
    if (code == SQLITE_DONE) return;
    ++errors;
    jump_bits = progressed ? 0 : jump_bits + 1;
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

// The length of the readable prefix of a copied stream: up to the first
// missing chunk or the first short row before the end.
int64_t ContiguousLength(sqlite3* db, int64_t id, int64_t size) {
  Stmt stmt(db, "SELECT rowid & 131071, length(data) FROM chunks WHERE rowid BETWEEN ?1 AND ?2 ORDER BY rowid");
  sqlite3_bind_int64(stmt.get(), 1, id << kChunkBits);
  sqlite3_bind_int64(stmt.get(), 2, (id << kChunkBits) | ((int64_t{1} << kChunkBits) - 1));
  int64_t end = 0;
  int64_t expect = 0;
  while (sqlite3_step(stmt.get()) == SQLITE_ROW) {
    const int64_t n = sqlite3_column_int64(stmt.get(), 0);
    const int64_t length = sqlite3_column_int64(stmt.get(), 1);
    if (n != expect) break;
    end = n * kChunkSize + length;
    if (length < kChunkSize) break;
    ++expect;
  }
  return std::min(size, end);
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
  Stmt put_chunk(dst, "INSERT INTO chunks(rowid, data) VALUES(?1, ?2)");
  if (put_stream.code() != SQLITE_OK || put_chunk.code() != SQLITE_OK) r = SqliteResult(SQLITE_ERROR, dst);
  for (const auto& [id, s] : streams) {
    if (r.failed()) break;
    sqlite3_reset(put_stream.get());
    sqlite3_bind_int64(put_stream.get(), 1, id);
    sqlite3_bind_text(put_stream.get(), 2, s.name.data(), static_cast<int>(s.name.size()), SQLITE_STATIC);
    sqlite3_bind_int64(put_stream.get(), 3, s.size);
    sqlite3_bind_int64(put_stream.get(), 4, s.created);
    const int code = sqlite3_step(put_stream.get());
    if (code != SQLITE_DONE) r = SqliteResult(code, dst);
  }
  ScanReadable(src, "SELECT rowid, data FROM chunks WHERE rowid > ?1 ORDER BY rowid", [&](sqlite3_stmt* s) {
    const int64_t rowid = sqlite3_column_int64(s, 0);
    if (r.failed() || !streams.count(rowid >> kChunkBits)) return;
    const int length = sqlite3_column_bytes(s, 1);
    if (length > static_cast<int>(kChunkSize)) return;
    sqlite3_reset(put_chunk.get());
    sqlite3_bind_int64(put_chunk.get(), 1, rowid);
    sqlite3_bind_blob(put_chunk.get(), 2, length ? sqlite3_column_blob(s, 1) : "", length, SQLITE_STATIC);
    const int code = sqlite3_step(put_chunk.get());
    if (code != SQLITE_DONE) r = SqliteResult(code, dst);
  });
  // A stream keeps the bytes that could be read without a gap; what follows
  // a lost chunk would otherwise read as zeros in the middle of a message.
  Stmt set_size(dst, "UPDATE streams SET size = ?2 WHERE id = ?1");
  for (const auto& [id, s] : streams) {
    if (r.failed()) break;
    const int64_t length = ContiguousLength(dst, id, s.size);
    if (length == s.size) continue;
    sqlite3_reset(set_size.get());
    sqlite3_bind_int64(set_size.get(), 1, id);
    sqlite3_bind_int64(set_size.get(), 2, length);
    const int code = sqlite3_step(set_size.get());
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
  const int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
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

Result Salvage(const std::filesystem::path& path, uint32_t page_size, const std::filesystem::path& keep) {
  // 1. The damaged file and its log, copied exactly as they are.
  Result r = CopyFileSynced(path, keep);
  if (r.ok()) r = CopyFileSynced(WithSuffix(path, "-wal"), WithSuffix(keep, "-wal"));
  if (r.failed()) return r;

  // 2. A new container built from what a read-only connection can read.
  const std::filesystem::path fresh = WithSuffix(path, ".repair");
  r = container_internal::RemoveContainerFile(fresh);
  size_t saved = 0;
  WString label;
  {
    Db src, dst;
    if (r.ok()) r = container_internal::OpenDatabase(path, true, src.out());
    // Lets a connection read a file shorter than its header says (a
    // truncated file) instead of refusing it whole.
    if (r.ok()) r = Exec(src.get(), "PRAGMA writable_schema = ON");
    if (r.ok()) {
      uint32_t old_page_size = 0;
      container_internal::ReadSettings(src.get(), &label, &old_page_size).Ignore();
      r = container_internal::OpenDatabase(fresh, false, dst.out());
    }
    if (r.ok()) r = container_internal::PrepareSchema(dst.get(), false, true, {page_size, label, u'/'});
    if (r.ok()) r = CopyReadable(src.get(), dst.get(), &saved);
    if (r.ok()) r = FixConsistency(dst.get());
  }  // closing dst checkpoints its log into the file and flushes it
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
  std::error_code ec;
  const bool empty = std::filesystem::file_size(path, ec) == 0 && !ec;
  if (!empty) {
    // Read-only first: a read-only connection never checkpoints its log into
    // the file, so a damaged file stays as it was until it has been copied.
    Db db;
    r = container_internal::OpenDatabase(path, true, db.out());
    if (r.ok()) r = container_internal::PrepareSchema(db.get(), true, true, settings);
    if (r.ok()) r = IntegrityCheck(db.get());
  }
  if (r.ok()) {
    Db db;
    r = container_internal::OpenDatabase(path, false, db.out());
    if (r.ok()) r = container_internal::PrepareSchema(db.get(), false, true, settings);
    if (r.ok()) r = FixConsistency(db.get());
    return r;
  }
  if (r != rc::kContainerDamaged || !salvage) return r;
  const std::filesystem::path keep = keep_path.empty() ? FreeKeepPath(path) : WideToPath(keep_path);
  return Salvage(path, page_size, keep);
}

}  // namespace trv
