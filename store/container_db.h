// Internal to the container layer: the SQLite connection shared by a
// container and the streams and searches opened on it, with its prepared
// statements. Not for use outside store/container*.
//
// On-disk schema (format version 1, application id 0x54524D43):
//   meta(key TEXT PRIMARY KEY, value)       label, page size, separator
//   streams(id INTEGER PRIMARY KEY, name TEXT UNIQUE, size INTEGER, created INTEGER)
//   chunks(data BLOB)                       rowid = stream id << 17 | chunk number
// A stream is split into chunks of kChunkSize bytes; chunk n holds bytes
// [n * kChunkSize, (n + 1) * kChunkSize). A chunk row may be shorter than
// kChunkSize (the stream's tail) or missing (a hole, read as zeros). Bytes of
// a chunk row at or past the stream's size are always zero.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "store/container.h"

namespace trv::container_internal {

inline constexpr uint32_t kChunkSize = 32768;
inline constexpr int kChunkBits = 17;  // 2^17 chunks of 2^15 bytes = 4 GB
inline constexpr uint32_t kMaxStreamSize = 0xFFFFFFFFu;
inline constexpr int32_t kApplicationId = 0x54524D43;
inline constexpr int kFormatVersion = 1;

inline int64_t ChunkRowId(int64_t stream_id, uint32_t chunk) {
  return stream_id << kChunkBits | static_cast<int64_t>(chunk);
}

// A prepared statement, reset and unbound when a Use goes out of scope.
class Statement {
 public:
  Statement() = default;
  ~Statement();
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  int Prepare(sqlite3* db, const char* sql);
  void Finalize();
  sqlite3_stmt* get() const { return stmt_; }

 private:
  sqlite3_stmt* stmt_ = nullptr;
};

class StatementUse {
 public:
  explicit StatementUse(Statement& s) : stmt_(s.get()) {}
  ~StatementUse() {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
  }
  StatementUse(const StatementUse&) = delete;
  StatementUse& operator=(const StatementUse&) = delete;

  StatementUse& Bind(int i, int64_t v) { sqlite3_bind_int64(stmt_, i, v); return *this; }
  StatementUse& BindText(int i, std::string_view v) {
    sqlite3_bind_text(stmt_, i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
    return *this;
  }
  StatementUse& BindBlob(int i, const void* p, size_t n) {
    sqlite3_bind_blob(stmt_, i, n ? p : "", static_cast<int>(n), SQLITE_STATIC);
    return *this;
  }
  StatementUse& BindZeroBlob(int i, int n) { sqlite3_bind_zeroblob(stmt_, i, n); return *this; }
  int Step() { return sqlite3_step(stmt_); }
  int64_t Int(int col) const { return sqlite3_column_int64(stmt_, col); }
  std::string_view Text(int col) const {
    const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, col));
    return p ? std::string_view(p, static_cast<size_t>(sqlite3_column_bytes(stmt_, col)))
             : std::string_view();
  }

 private:
  sqlite3_stmt* stmt_;
};

class ContainerDb {
 public:
  ContainerDb() = default;
  ~ContainerDb() { Close(); }
  ContainerDb(const ContainerDb&) = delete;
  ContainerDb& operator=(const ContainerDb&) = delete;

  // Takes an open connection whose schema is in place and prepares the
  // statements.
  Result Attach(sqlite3* db);
  void Close();
  bool is_open() const { return db_ != nullptr; }
  sqlite3* db() const { return db_; }

  // Transactions: depth 0 -> BEGIN IMMEDIATE, deeper -> savepoints.
  Result Begin();
  Result Commit();
  Result Rollback();
  int depth() const { return depth_; }

  // Every change of stream contents or sizes, and every rollback, moves the
  // generation on, so open streams know to reload their cached sizes.
  uint64_t generation() const { return generation_; }
  void Changed() { ++generation_; }

  // Stream rows.
  Result FindStream(std::string_view name, int64_t* id, uint32_t* size);  // kStreamMissing if none
  Result CreateStream(std::string_view name, int64_t* id);
  Result StreamSize(int64_t id, uint32_t* size);                         // kStreamMissing if gone
  Result StreamCreated(int64_t id, int64_t* unix_seconds);
  Result SetStreamSize(int64_t id, uint32_t size);
  Result RemoveStream(int64_t id);

  // Chunk rows.
  Result PutChunk(int64_t rowid, const void* data, size_t n);
  // Reads up to `n` bytes at `offset` of a row; `*got` is how many the row
  // holds there (0 for a missing row: a hole).
  Result ReadChunkPart(int64_t rowid, uint32_t offset, void* out, uint32_t n, uint32_t* got);
  // Writes `n` bytes at `offset` of a row. A new row is stored exactly; an
  // existing row too short for the write is regrown, padded with zeros to
  // twice its length (at most a chunk), so that small appends to a stream's
  // tail mostly write in place and touch only the pages they change.
  Result WriteChunkPart(int64_t rowid, uint32_t offset, const void* data, uint32_t n);
  // Shortens a row to `length` bytes when it is longer.
  Result TruncateChunk(int64_t rowid, uint32_t length);
  Result DeleteChunksFrom(int64_t stream_id, uint32_t first_chunk);

  // Up to `limit` stream names greater than `after` (or >= when `inclusive`),
  // in byte order.
  Result NamesAfter(std::string_view after, bool inclusive, int limit, std::vector<std::string>* out);

  ContainerCounters& stats() { return stats_; }

 private:
  Result Step(StatementUse& use, int want = SQLITE_DONE);

  sqlite3* db_ = nullptr;
  int depth_ = 0;
  uint64_t generation_ = 1;
  ContainerCounters stats_;
  Statement begin_, commit_, rollback_, savepoint_, release_, rollback_to_;
  Statement find_stream_, insert_stream_, stream_size_, stream_created_, set_size_, remove_stream_;
  Statement put_chunk_, delete_chunks_, names_after_, names_from_;
};

// Runs one operation atomically: a transaction of its own when none is open,
// otherwise inside the caller's (whose rollback then undoes a partial
// operation; the caller must roll back after any failure).
class AutoTransaction {
 public:
  explicit AutoTransaction(ContainerDb& db);
  ~AutoTransaction();
  AutoTransaction(const AutoTransaction&) = delete;
  AutoTransaction& operator=(const AutoTransaction&) = delete;

  Result begin_result() const { return begin_; }
  Result Commit();

 private:
  ContainerDb& db_;
  bool own_ = false;
  bool done_ = false;
  Result begin_;
};

}  // namespace trv::container_internal
