#include "store/container.h"

#include <sqlite3.h>

#include <algorithm>
#include <fstream>

#include "store/container_db.h"
#include "store/container_file.h"
#include "store/container_stream.h"
#include "store/name_pattern.h"

namespace trv {

using container_internal::AutoTransaction;
using container_internal::ContainerDb;

Container::Container() = default;

Container::~Container() { Close(); }

bool Container::is_open() const { return db_ && db_->is_open(); }

void Container::Close() {
  if (db_) db_->Close();
  db_.reset();
}

Result Container::Open(const std::filesystem::path& path, const ContainerOptions& options) {
  const bool read_only = options.read_only;
  const char16_t separator = options.separator;
  Close();
  path_ = path;
  error_ = rc::kOk;
  if (separator == 0 || path.empty()) return Fail(rc::kInvalidArg);
  separator_ = separator;
  if (options.create_anew && !read_only) {
    const Result r = container_internal::RemoveContainerFile(path);
    if (r.failed()) return Fail(r);
  }
  // Look at the file before SQLite does: a file of another kind is refused
  // without a single byte being written to it.
  const Result probe = container_internal::ProbeContainerFile(path);
  if (probe.failed() && !(probe == rc::kStreamMissing && !read_only)) return Fail(probe);

  sqlite3* raw = nullptr;
  Result r = container_internal::OpenDatabase(path, read_only, &raw);
  if (r.ok()) {
    container_internal::NewFileSettings settings{options.page_size, options.label, separator, read_only,
                                                 options.sync_commits};
    r = container_internal::PrepareSchema(raw, settings);
  }
  if (r.ok()) r = container_internal::ReadSettings(raw, &label_, &page_size_);
  if (r.failed()) {
    sqlite3_close_v2(raw);
    return Fail(r);
  }
  auto db = std::make_shared<ContainerDb>();
  r = db->Attach(raw);
  if (r.failed()) return Fail(r);
  db_ = std::move(db);
  return rc::kOk;
}

Result Container::StoredName(WStringView path, std::string* name) const {
  while (!path.empty() && path.front() == separator_) path.remove_prefix(1);
  if (path.empty() || path.size() > 1024 || path.back() == separator_) return rc::kInvalidArg;
  WString normalized(path);
  for (size_t i = 0; i < normalized.size(); ++i) {
    char16_t& c = normalized[i];
    if (c == 0) return rc::kInvalidArg;
    if (c == separator_) {
      if (normalized[i - 1] == separator_) return rc::kInvalidArg;  // empty component
      c = u'/';
    } else if (c == u'/') {
      return rc::kInvalidArg;  // would read as a separator once stored
    }
  }
  *name = WideToUtf8(normalized);
  return rc::kOk;
}

bool Container::StreamExists(WStringView path) {
  if (!is_open()) return Fail(rc::kContainerClosed).ok();
  std::string name;
  int64_t id = 0;
  Result r = StoredName(path, &name);
  if (r.ok()) r = db_->FindStream(name, &id, nullptr);
  return Fail(r).ok();
}

Result Container::GetStreamInfo(WStringView path, StreamInfo* info) {
  if (!is_open()) return Fail(rc::kContainerClosed);
  std::string name;
  Result r = StoredName(path, &name);
  int64_t id = 0;
  if (r.ok()) r = db_->FindStream(name, &id, &info->size);
  if (r.ok()) r = db_->StreamCreated(id, &info->created);
  if (r.ok()) info->name = WString(path);
  return Fail(r);
}

Result Container::OpenStream(WStringView path, StreamOpen how, std::unique_ptr<ContainerStream>* out) {
  const bool create = how == StreamOpen::kCreate;
  const bool writable = how != StreamOpen::kReadOnly;
  out->reset();
  if (!is_open()) return Fail(rc::kContainerClosed);
  std::string name;
  Result r = StoredName(path, &name);
  if (r.failed()) return Fail(r);
  int64_t id = 0;
  uint32_t size = 0;
  r = db_->FindStream(name, &id, &size);
  if (r == rc::kStreamMissing && create) {
    AutoTransaction txn(*db_);
    r = txn.begin_result();
    if (r.ok()) r = db_->CreateStream(name, &id);
    if (r.ok()) r = txn.Commit();
    db_->Changed();
  }
  if (r.failed()) return Fail(r);
  out->reset(new ContainerStream(db_, id, WString(path), size, writable));
  ++db_->stats().streams_opened;
  return Fail(rc::kOk);
}

Result Container::DeleteStream(WStringView path) {
  if (!is_open()) return Fail(rc::kContainerClosed);
  std::string name;
  Result r = StoredName(path, &name);
  int64_t id = 0;
  if (r.ok()) r = db_->FindStream(name, &id, nullptr);
  if (r.failed()) return Fail(r);
  AutoTransaction txn(*db_);
  r = txn.begin_result();
  if (r.ok()) r = db_->RemoveStream(id);
  if (r.ok()) r = txn.Commit();
  db_->Changed();
  return Fail(r);
}

std::unique_ptr<RootSearch> Container::FindRoot(WStringView pattern, int32_t limit) {
  std::unique_ptr<RootSearch> search(new RootSearch(db_, WString(pattern), limit));
  if (!is_open()) {
    search->error_ = rc::kContainerClosed;
    search->done_ = true;
  }
  error_ = search->error_;
  return search;
}

Result Container::Begin() {
  if (!is_open()) return Fail(rc::kContainerClosed);
  return Fail(db_->Begin());
}

Result Container::Commit() {
  if (!is_open()) return Fail(rc::kContainerClosed);
  return Fail(db_->Commit());
}

Result Container::Rollback() {
  if (!is_open()) return Fail(rc::kContainerClosed);
  return Fail(db_->Rollback());
}

bool Container::in_transaction() const { return is_open() && db_->depth() > 0; }

Result Container::ReleaseFreeSpace(double min_share) {
  if (!is_open()) return Fail(rc::kContainerClosed);
  if (db_->depth() > 0) return Fail(rc::kInvalidArg);
  int64_t free_pages = 0, pages = 0;
  Result r = container_internal::QueryInt(db_->db(), "PRAGMA freelist_count", &free_pages);
  if (r.ok()) r = container_internal::QueryInt(db_->db(), "PRAGMA page_count", &pages);
  if (r.ok() && free_pages > 0 && static_cast<double>(free_pages) > min_share * static_cast<double>(pages)) {
    r = container_internal::Exec(db_->db(), "PRAGMA incremental_vacuum");
    db_->Changed();
  }
  return Fail(r);
}

ContainerCounters Container::counters() const { return db_ ? db_->stats() : ContainerCounters{}; }

RootSearch::RootSearch(std::shared_ptr<ContainerDb> db, WString pattern, int32_t limit)
    : db_(std::move(db)), pattern_(std::move(pattern)), left_(limit) {
  prefix_ = WideToUtf8(PatternLiteralPrefix(pattern_));
}

RootSearch::~RootSearch() = default;

bool RootSearch::Next(WString* name) {
  constexpr int kBatch = 256;
  while (!done_) {
    if (next_ >= batch_.size()) {
      if (!db_ || !db_->is_open()) {
        error_ = rc::kContainerClosed;
        break;
      }
      error_ = db_->NamesAfter(started_ ? last_ : prefix_, !started_, kBatch, &batch_);
      started_ = true;
      next_ = 0;
      if (error_.failed() || batch_.empty()) break;
    }
    last_ = batch_[next_++];
    // Names are in byte order, so the ones with the pattern's literal start
    // come together; the first one without it ends the search.
    if (last_.compare(0, prefix_.size(), prefix_) != 0) break;
    if (last_.find('/') != std::string::npos) continue;  // nested, not in the root
    WString candidate = Utf8ToWide(last_);
    if (!MatchNamePattern(pattern_, candidate)) continue;
    if (left_ == 0) break;
    if (left_ > 0) --left_;
    *name = std::move(candidate);
    return true;
  }
  done_ = true;
  return false;
}

}  // namespace trv
