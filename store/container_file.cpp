#include "store/container_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>

#include "base/file_system.h"
#include "store/container_db.h"
#include "store/container_result.h"

namespace trv::container_internal {

namespace {

constexpr char kSqliteMagic[16] = {'S', 'Q', 'L', 'i', 't', 'e', ' ', 'f', 'o', 'r', 'm', 'a', 't', ' ', '3', '\0'};

// The database engine's page size for a requested container page size.
uint32_t DatabasePageSize(uint32_t requested) {
  uint32_t size = 4096;
  while (size < requested && size < 65536) size *= 2;
  return size;
}

Result CreateSchema(sqlite3* db, const NewFileSettings& settings) {
  // Page size and vacuum mode must be set before the first table exists.
  Result r = Exec(db, "PRAGMA page_size = " + std::to_string(DatabasePageSize(settings.page_size)));
  if (r.ok()) r = Exec(db, "PRAGMA auto_vacuum = INCREMENTAL");
  if (r.ok()) r = Exec(db, "PRAGMA journal_mode = WAL");
  if (r.ok()) r = Exec(db, "BEGIN IMMEDIATE");
  if (r.failed()) return r;
  r = Exec(db,
           "CREATE TABLE meta(key TEXT PRIMARY KEY, value);"
           "CREATE TABLE streams(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE,"
           " size INTEGER NOT NULL, created INTEGER NOT NULL);"
           "CREATE TABLE chunks(data BLOB NOT NULL);"
           "PRAGMA application_id = " + std::to_string(kApplicationId) + ";"
           "PRAGMA user_version = " + std::to_string(kFormatVersion) + ";");
  if (r.ok()) {
    sqlite3_stmt* stmt = nullptr;
    int code = sqlite3_prepare_v2(db, "INSERT INTO meta(key, value) VALUES('label', ?1), ('page_size', ?2),"
                                      " ('separator', ?3)", -1, &stmt, nullptr);
    if (code == SQLITE_OK) {
      const std::string label = WideToUtf8(settings.label);
      const std::string separator = WideToUtf8(WStringView(&settings.separator, 1));
      sqlite3_bind_text(stmt, 1, label.data(), static_cast<int>(label.size()), SQLITE_TRANSIENT);
      sqlite3_bind_int64(stmt, 2, settings.page_size);
      sqlite3_bind_text(stmt, 3, separator.data(), static_cast<int>(separator.size()), SQLITE_TRANSIENT);
      code = sqlite3_step(stmt);
      if (code == SQLITE_DONE) code = SQLITE_OK;
    }
    sqlite3_finalize(stmt);
    r = SqliteResult(code, db);
  }
  if (r.ok()) r = Exec(db, "COMMIT");
  if (r.failed()) Exec(db, "ROLLBACK").Ignore();
  return r;
}

}  // namespace

Result Exec(sqlite3* db, const std::string& sql) {
  return SqliteResult(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), db);
}

Result ProbeContainerFile(const std::filesystem::path& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return ResultFromErrno(errno);  // ENOENT: rc::kStreamMissing
  char head[16];
  ssize_t got = 0;
  int err = 0;
  while (got < 16) {
    const ssize_t n = ::read(fd, head + got, 16 - static_cast<size_t>(got));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) err = errno;
    if (n <= 0) break;
    got += n;
  }
  ::close(fd);
  if (err == EISDIR) return rc::kNotContainer;
  if (err) return ResultFromErrno(err);
  if (got == 0) return rc::kOk;  // an empty file becomes an empty container
  if (got < 16 || std::memcmp(head, kSqliteMagic, 16) != 0) return rc::kNotContainer;
  return rc::kOk;
}

Result RemoveContainerFile(const std::filesystem::path& path) {
  for (const char* suffix : {"", "-wal", "-shm"}) {
    std::filesystem::path p = path;
    p += suffix;
    if (::unlink(p.c_str()) != 0 && errno != ENOENT) return ResultFromErrno(errno);
  }
  return rc::kOk;
}

namespace {
std::atomic<const char*> vfs_name{nullptr};
}  // namespace

Result OpenDatabase(const std::filesystem::path& path, bool read_only, sqlite3** db) {
  const int flags = (read_only ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) |
                    SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
  *db = nullptr;
  if (!read_only) {
    // Created here rather than by the database engine, which would make it
    // 0644 less the umask; its journal files take the file's mode.
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kPrivateFileMode);
    if (fd >= 0) ::close(fd);
  }
  const int code = sqlite3_open_v2(path.c_str(), db, flags, vfs_name.load());
  if (code != SQLITE_OK) {
    const Result r = SqliteResult(code, *db);
    sqlite3_close_v2(*db);
    *db = nullptr;
    return r;
  }
  // Another process (the command-line tool) may hold the file for a moment.
  sqlite3_busy_timeout(*db, 5000);
  return rc::kOk;
}

Result QueryInt(sqlite3* db, const char* sql, int64_t* value) {
  sqlite3_stmt* stmt = nullptr;
  int code = sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr);
  if (code == SQLITE_OK) {
    code = sqlite3_step(stmt);
    if (code == SQLITE_ROW) {
      *value = sqlite3_column_int64(stmt, 0);
      code = SQLITE_OK;
    } else if (code == SQLITE_DONE) {
      code = SQLITE_CORRUPT;
    }
  }
  sqlite3_finalize(stmt);
  return SqliteResult(code, db);
}

Result PrepareSchema(sqlite3* db, const NewFileSettings& settings) {
  const bool read_only = settings.read_only;
  const bool sync_commits = settings.sync_commits;
  int64_t app = 0, version = 0, tables = 0;
  Result r = QueryInt(db, "PRAGMA application_id", &app);
  if (r.ok()) r = QueryInt(db, "PRAGMA user_version", &version);
  if (r.ok()) r = QueryInt(db, "SELECT count(*) FROM sqlite_schema", &tables);
  // The file started like a database, so "not a database" here means damage.
  if (r == rc::kNotContainer) r = rc::kContainerDamaged;
  if (r.failed()) return r;
  if (tables == 0 && app == 0) {
    if (read_only) return rc::kContainerDamaged;
    r = CreateSchema(db, settings);
  } else if (app != kApplicationId) {
    return rc::kNotContainer;
  } else if (version > kFormatVersion) {
    return rc::kContainerVersion;
  } else if (version < 1) {
    return rc::kContainerDamaged;
  }
  if (r.failed() || read_only) return r;
  // WAL: readers never block the writer, and a commit is one append to the
  // log. FULL flushes the log at every commit (survives a power loss);
  // NORMAL flushes only at checkpoints (survives a process kill).
  r = Exec(db, "PRAGMA journal_mode = WAL");
  if (r.ok()) r = Exec(db, sync_commits ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
  if (r.ok()) r = Exec(db, "PRAGMA journal_size_limit = 4194304");
  return r;
}

Result ReadSettings(sqlite3* db, WString* label, uint32_t* page_size) {
  sqlite3_stmt* stmt = nullptr;
  int code = sqlite3_prepare_v2(db, "SELECT key, value FROM meta", -1, &stmt, nullptr);
  while (code == SQLITE_OK && (code = sqlite3_step(stmt)) == SQLITE_ROW) {
    const auto* key = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
    if (!key) continue;
    if (std::strcmp(key, "label") == 0) {
      const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 1));
      *label = Utf8ToWide(text ? text : "");
    } else if (std::strcmp(key, "page_size") == 0) {
      *page_size = static_cast<uint32_t>(sqlite3_column_int64(stmt, 1));
    }
    code = SQLITE_OK;
  }
  sqlite3_finalize(stmt);
  return SqliteResult(code == SQLITE_DONE ? SQLITE_OK : code, db);
}

}  // namespace trv::container_internal

namespace trv {
void SetContainerVfs(const char* name) { container_internal::vfs_name.store(name); }
}  // namespace trv
