#include "store/container_db.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include "store/container_result.h"

namespace trv {

Result SqliteResult(int code, sqlite3* db) {
  switch (code & 0xFF) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
      return rc::kOk;
    case SQLITE_NOTADB:
      return rc::kNotContainer;
    case SQLITE_CORRUPT:
      return rc::kContainerDamaged;
    case SQLITE_FULL:
      return FromWin32(112);
    case SQLITE_NOMEM:
      return rc::kOutOfMemory;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return rc::kContainerBusy;
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_AUTH:
      return FromWin32(5);
    case SQLITE_TOOBIG:
      return rc::kStreamTooLarge;
    case SQLITE_IOERR:
    case SQLITE_CANTOPEN: {
      if (code == SQLITE_IOERR_NOMEM) return rc::kOutOfMemory;
      const int err = db ? sqlite3_system_errno(db) : 0;
      if (err) return ResultFromErrno(err);
      return (code & 0xFF) == SQLITE_CANTOPEN ? FromWin32(2) : FromWin32(1117);
    }
    default:
      return rc::kContainerFailure;
  }
}

namespace container_internal {

Statement::~Statement() { Finalize(); }

int Statement::Prepare(sqlite3* db, const char* sql) {
  Finalize();
  return sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt_, nullptr);
}

void Statement::Finalize() {
  if (stmt_) sqlite3_finalize(stmt_);
  stmt_ = nullptr;
}

Result ContainerDb::Attach(sqlite3* db) {
  db_ = db;
  struct Item {
    Statement* stmt;
    const char* sql;
  };
  const Item items[] = {
      {&begin_, "BEGIN IMMEDIATE"},
      {&commit_, "COMMIT"},
      {&rollback_, "ROLLBACK"},
      {&savepoint_, "SAVEPOINT nested"},
      {&release_, "RELEASE nested"},
      {&rollback_to_, "ROLLBACK TO nested"},
      {&find_stream_, "SELECT id, size FROM streams WHERE name = ?1"},
      {&insert_stream_, "INSERT INTO streams(name, size, created) VALUES(?1, 0, ?2)"},
      {&stream_size_, "SELECT size FROM streams WHERE id = ?1"},
      {&stream_created_, "SELECT created FROM streams WHERE id = ?1"},
      {&set_size_, "UPDATE streams SET size = ?2 WHERE id = ?1"},
      {&remove_stream_, "DELETE FROM streams WHERE id = ?1"},
      {&put_chunk_, "INSERT OR REPLACE INTO chunks(rowid, data) VALUES(?1, ?2)"},
      {&delete_chunks_, "DELETE FROM chunks WHERE rowid BETWEEN ?1 AND ?2"},
      {&names_after_, "SELECT name FROM streams WHERE name > ?1 ORDER BY name LIMIT ?2"},
      {&names_from_, "SELECT name FROM streams WHERE name >= ?1 ORDER BY name LIMIT ?2"},
  };
  for (const Item& item : items) {
    const int code = item.stmt->Prepare(db_, item.sql);
    if (code != SQLITE_OK) {
      const Result r = SqliteResult(code, db_);
      Close();
      return r;
    }
  }
  return rc::kOk;
}

void ContainerDb::Close() {
  if (!db_) return;
  for (Statement* s : {&begin_, &commit_, &rollback_, &savepoint_, &release_, &rollback_to_, &find_stream_,
                       &insert_stream_, &stream_size_, &stream_created_, &set_size_, &remove_stream_,
                       &put_chunk_, &delete_chunks_, &names_after_, &names_from_}) {
    s->Finalize();
  }
  if (depth_ > 0) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  depth_ = 0;
  // The last connection to close checkpoints the log into the main file and
  // removes it, so a closed folder file is one self-contained file.
  sqlite3_close_v2(db_);
  db_ = nullptr;
  Changed();
}

Result ContainerDb::Step(StatementUse& use, int want) {
  const int code = use.Step();
  if (code == want) return rc::kOk;
  if (code == SQLITE_DONE && want == SQLITE_ROW) return rc::kStreamMissing;
  return code == SQLITE_ROW || code == SQLITE_DONE ? rc::kContainerFailure : SqliteResult(code, db_);
}

Result ContainerDb::Begin() {
  StatementUse use(depth_ == 0 ? begin_ : savepoint_);
  const Result r = Step(use);
  if (r.ok()) ++depth_;
  return r;
}

Result ContainerDb::Commit() {
  if (depth_ == 0) return rc::kInvalidArg;
  if (depth_ > 1) {
    StatementUse use(release_);
    const Result r = Step(use);
    if (r.ok()) --depth_;
    return r;
  }
  Result r;
  {
    StatementUse use(commit_);
    r = Step(use);
  }
  if (r.ok()) {
    depth_ = 0;
    ++stats_.commits;
    return r;
  }
  // A commit that failed (disk full, I/O error) leaves nothing half-done:
  // roll the whole transaction back so the next one starts clean.
  Rollback().Ignore();
  return r;
}

Result ContainerDb::Rollback() {
  if (depth_ == 0) return rc::kInvalidArg;
  Changed();
  if (depth_ > 1) {
    Result r;
    {
      StatementUse use(rollback_to_);
      r = Step(use);
    }
    StatementUse release(release_);
    const Result r2 = Step(release);
    --depth_;
    return r.ok() ? r2 : r;
  }
  depth_ = 0;
  if (sqlite3_get_autocommit(db_)) return rc::kOk;  // SQLite already rolled back on its own
  StatementUse use(rollback_);
  return Step(use);
}

Result ContainerDb::FindStream(std::string_view name, int64_t* id, uint32_t* size) {
  StatementUse use(find_stream_);
  use.BindText(1, name);
  const Result r = Step(use, SQLITE_ROW);
  if (r.failed()) return r;
  *id = use.Int(0);
  if (size) *size = static_cast<uint32_t>(use.Int(1));
  return rc::kOk;
}

Result ContainerDb::CreateStream(std::string_view name, int64_t* id) {
  StatementUse use(insert_stream_);
  use.BindText(1, name).Bind(2, static_cast<int64_t>(std::time(nullptr)));
  const Result r = Step(use);
  if (r.ok()) *id = sqlite3_last_insert_rowid(db_);
  return r;
}

Result ContainerDb::StreamSize(int64_t id, uint32_t* size) {
  StatementUse use(stream_size_);
  use.Bind(1, id);
  const Result r = Step(use, SQLITE_ROW);
  if (r.ok()) *size = static_cast<uint32_t>(use.Int(0));
  return r;
}

Result ContainerDb::StreamCreated(int64_t id, int64_t* unix_seconds) {
  StatementUse use(stream_created_);
  use.Bind(1, id);
  const Result r = Step(use, SQLITE_ROW);
  if (r.ok()) *unix_seconds = use.Int(0);
  return r;
}

Result ContainerDb::SetStreamSize(int64_t id, uint32_t size) {
  StatementUse use(set_size_);
  use.Bind(1, id).Bind(2, size);
  return Step(use);
}

Result ContainerDb::RemoveStream(int64_t id) {
  Result r = DeleteChunksFrom(id, 0);
  if (r.failed()) return r;
  StatementUse use(remove_stream_);
  use.Bind(1, id);
  return Step(use);
}

Result ContainerDb::PutChunk(int64_t rowid, const void* data, size_t n) {
  StatementUse use(put_chunk_);
  use.Bind(1, rowid).BindBlob(2, data, n);
  return Step(use);
}

namespace {

// sqlite3_blob handles are cheap to open; one per access keeps them from
// outliving a change of their row. Opening a missing row gives SQLITE_ERROR.
class Blob {
 public:
  Blob() = default;
  ~Blob() { Close(); }
  int Open(sqlite3* db, int64_t rowid, bool write) {
    return sqlite3_blob_open(db, "main", "chunks", "data", rowid, write ? 1 : 0, &blob_);
  }
  void Close() {
    if (blob_) sqlite3_blob_close(blob_);
    blob_ = nullptr;
  }
  uint32_t bytes() const { return static_cast<uint32_t>(sqlite3_blob_bytes(blob_)); }
  int Read(void* out, uint32_t n, uint32_t offset) {
    return sqlite3_blob_read(blob_, out, static_cast<int>(n), static_cast<int>(offset));
  }
  int Write(const void* data, uint32_t n, uint32_t offset) {
    return sqlite3_blob_write(blob_, data, static_cast<int>(n), static_cast<int>(offset));
  }

 private:
  sqlite3_blob* blob_ = nullptr;
};

}  // namespace

Result ContainerDb::ReadChunkPart(int64_t rowid, uint32_t offset, void* out, uint32_t n, uint32_t* got) {
  *got = 0;
  Blob blob;
  int code = blob.Open(db_, rowid, false);
  if (code == SQLITE_ERROR) return rc::kOk;
  if (code != SQLITE_OK) return SqliteResult(code, db_);
  const uint32_t length = blob.bytes();
  if (offset >= length) return rc::kOk;
  const uint32_t take = std::min(n, length - offset);
  code = blob.Read(out, take, offset);
  if (code != SQLITE_OK) return SqliteResult(code, db_);
  *got = take;
  stats_.bytes_read += take;
  return rc::kOk;
}

Result ContainerDb::WriteChunkPart(int64_t rowid, uint32_t offset, const void* data, uint32_t n) {
  Blob blob;
  int code = blob.Open(db_, rowid, true);
  if (code == SQLITE_ERROR) {
    if (offset == 0) return PutChunk(rowid, data, n);
    std::string row(offset + n, '\0');
    std::memcpy(row.data() + offset, data, n);
    return PutChunk(rowid, row.data(), row.size());
  }
  if (code != SQLITE_OK) return SqliteResult(code, db_);
  const uint32_t length = blob.bytes();
  if (offset + n <= length) return SqliteResult(blob.Write(data, n, offset), db_);
  const uint32_t capacity = std::max(offset + n, std::min(kChunkSize, 2 * length));
  std::string row(capacity, '\0');
  code = blob.Read(row.data(), length, 0);
  if (code != SQLITE_OK) return SqliteResult(code, db_);
  blob.Close();
  std::memcpy(row.data() + offset, data, n);
  return PutChunk(rowid, row.data(), row.size());
}

Result ContainerDb::TruncateChunk(int64_t rowid, uint32_t length) {
  Blob blob;
  int code = blob.Open(db_, rowid, false);
  if (code == SQLITE_ERROR) return rc::kOk;
  if (code != SQLITE_OK) return SqliteResult(code, db_);
  if (blob.bytes() <= length) return rc::kOk;
  std::string row(length, '\0');
  code = blob.Read(row.data(), length, 0);
  if (code != SQLITE_OK) return SqliteResult(code, db_);
  blob.Close();
  return PutChunk(rowid, row.data(), row.size());
}

Result ContainerDb::DeleteChunksFrom(int64_t stream_id, uint32_t first_chunk) {
  StatementUse use(delete_chunks_);
  use.Bind(1, ChunkRowId(stream_id, first_chunk)).Bind(2, ChunkRowId(stream_id, (1u << kChunkBits) - 1));
  return Step(use);
}

Result ContainerDb::NamesAfter(std::string_view after, bool inclusive, int limit, std::vector<std::string>* out) {
  StatementUse use(inclusive ? names_from_ : names_after_);
  use.BindText(1, after).Bind(2, limit);
  out->clear();
  for (;;) {
    const int code = use.Step();
    if (code == SQLITE_DONE) return rc::kOk;
    if (code != SQLITE_ROW) return SqliteResult(code, db_);
    out->emplace_back(use.Text(0));
  }
}

AutoTransaction::AutoTransaction(ContainerDb& db) : db_(db) {
  if (!db_.is_open()) {
    begin_ = rc::kContainerClosed;
    return;
  }
  if (db_.depth() == 0) {
    begin_ = db_.Begin();
    own_ = begin_.ok();
  }
}

AutoTransaction::~AutoTransaction() {
  if (own_ && !done_) db_.Rollback().Ignore();
}

Result AutoTransaction::Commit() {
  done_ = true;
  return own_ ? db_.Commit() : rc::kOk;
}

}  // namespace container_internal
}  // namespace trv
