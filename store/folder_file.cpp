#include "store/folder_file.h"

#include <algorithm>
#include <unordered_set>

#include "base/byte_io.h"
#include "store/container_file.h"

namespace trv {

// Log lines of loading and repair.
namespace {
constexpr const char* kLogLoadingCount = "Loading messages count";
constexpr const char* kLogLoadingIndex = "Loading messages index";
constexpr const char* kLogLoadingError = "Folder loading error: ";
constexpr const char* kLogTryingRepair = " Trying to repair";
constexpr const char* kLogRepairError = "Repairing error: ";
constexpr const char* kLogRepaired = "Repaired OK";
constexpr const char* kLogLoadingMessages = "Loading messages";

constexpr const char16_t* kCountsStream = u"/Counts";
constexpr const char16_t* kIndexStream = u"/Index";
}  // namespace

FolderFile::FolderFile(LogSink& log, FolderFileOptions options) : log_(log), options_(std::move(options)) {}

FolderFile::~FolderFile() { Close(); }

void FolderFile::Log(const std::string& line) { log_.Log(line, kLogEvent); }

Result FolderFile::OpenContainer() {
  return container_.Open(path_, {.page_size = kPageSize, .label = kLabel, .sync_commits = options_.sync_commits});
}

void FolderFile::CloseLocked() {
  path_.clear();
  counts_stream_.reset();
  index_stream_.reset();
  container_.Close();
  index_.Clear();
  counts_ = {};
  counts_from_file_ = false;
  loaded_ = false;
}

void FolderFile::Close() {
  MutexLock writer(writer_mu_);
  MutexLock lock(mu_);
  CloseLocked();
}

Result FolderFile::Create(const std::filesystem::path& path) {
  MutexLock writer(writer_mu_);
  MutexLock lock(mu_);
  CloseLocked();
  std::error_code ec;
  if (std::filesystem::symlink_status(path, ec).type() != std::filesystem::file_type::not_found) {
    return rc::kFileExists;
  }
  path_ = path;
  Result r = OpenContainer();
  if (r.ok()) {
    ContainerTransaction txn(container_);
    r = txn.begin_result();
    if (r.ok()) r = container_.OpenStream(kIndexStream, StreamOpen::kCreate, &index_stream_);
    bool more = false;
    if (r.ok()) r = index_.Read(*index_stream_, 0, &more, nullptr);  // writes the 0 header
    if (r.ok()) r = StoreCounts({});
    if (r.ok()) r = txn.Commit();
  }
  if (r.failed()) {
    CloseLocked();
    container_internal::RemoveContainerFile(path).Ignore();  // ours, and empty
    return r;
  }
  loaded_ = true;
  return r;
}

Result FolderFile::Open(const std::filesystem::path& path) {
  {
    MutexLock writer(writer_mu_);
    MutexLock lock(mu_);
    CloseLocked();
    path_ = path;
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) {
      path_.clear();  // or a later Append would quietly create the file there
      return rc::kFileMissing;
    }
    if (OpenContainer().ok()) {
      Log(kLogLoadingCount);
      uint8_t raw[8];
      if (container_.OpenStream(kCountsStream, StreamOpen::kCreate, &counts_stream_).ok() && counts_stream_->Size() >= 8 &&
          counts_stream_->ReadExact(raw, 8).ok()) {
        counts_ = {GetU32(raw), GetU32(raw + 4)};
        counts_from_file_ = true;
        return rc::kOk;
      }
    } else {
      container_.Close();
    }
  }
  return LoadIndex();
}

Result FolderFile::LoadIndex() {
  for (;;) {
    Result r;
    bool done = false, loaded_now = false;
    IndexReadPosition reached;
    {
      MutexLock lock(mu_);
      const bool was_loaded = loaded_;
      // With a progress callback, one record a step, so that it is told
      // after every record; without one, the whole index in one step.
      r = LoadStep(options_.progress ? 1 : 0, &done, &reached);
      loaded_now = !was_loaded && loaded_;
    }
    // No lock held here: the callback may call the folder file back.
    if (options_.progress && reached.size != 0 && r.ok()) {
      options_.progress(reached.position, reached.size);
    }
    if (loaded_now) Notify(Change::kLoaded, {});
    if (r.failed() || done) return r;
  }
}

Result FolderFile::LoadIndexLocked() {
  bool done = false;
  Result r;
  do {
    r = LoadStep(0, &done, nullptr);
  } while (r.ok() && !done);
  return r;
}

Result FolderFile::LoadStep(uint32_t max_records, bool* done, IndexReadPosition* reached) {
  *done = true;
  if (loaded_) return rc::kOk;
  if (path_.empty()) return rc::kContainerClosed;
  Result r;
  if (!loading_) {
    loading_ = true;
    repair_tried_ = false;
    counts_.unread = 0;
    r = BeginIndexRead();
  }
  bool more = false;
  if (r.ok()) r = index_.Read(*index_stream_, max_records, &more, reached);
  if (r.ok() && more) {
    *done = false;
    return r;
  }
  if (r.ok()) r = SweepOrphans();
  if (r.failed() && !repair_tried_) {
    repair_tried_ = true;
    index_stream_.reset();
    counts_stream_.reset();
    container_.Close();
    index_.Clear();
    Log(kLogLoadingError + ResultText(r) + kLogTryingRepair);
    const Result repair = RepairLocked();
    if (repair.failed()) {
      Log(kLogRepairError + ResultText(repair));
      loading_ = false;
      return repair;
    }
    Log(kLogRepaired);
    r = BeginIndexRead();
    if (r.ok()) {
      *done = false;
      return r;
    }
  }
  if (r.ok()) {
    Log(kLogLoadingMessages);
    loaded_ = true;
    counts_ = {static_cast<uint32_t>(index_.size()), index_.unread()};
  } else {
    index_.Clear();
  }
  loading_ = false;
  // A file on read-only media still lists its messages.
  if (r.ok()) WriteCountsLocked().Ignore();
  return r;
}

Result FolderFile::BeginIndexRead() {
  if (!container_.is_open()) {
    const Result r = OpenContainer();
    if (r.failed()) return r;
  }
  Log(kLogLoadingIndex);
  index_.Clear();
  return container_.OpenStream(kIndexStream, StreamOpen::kExisting, &index_stream_);
}

Result FolderFile::SweepOrphans() {
  std::vector<WString> orphans;
  bool orphan_keys = false;
  auto search = container_.FindRoot(u"\\0*");
  WString name;
  while (search->Next(&name)) {
    uint32_t key = 0;
    const bool is_key = KeyFromStreamName(name, &key);
    if (is_key && index_.Find(key)) continue;
    orphan_keys |= is_key;
    orphans.push_back(name);
  }
  if (search->last_error().failed()) return search->last_error();
  if (orphans.empty()) return rc::kOk;
  // "/Counts" promised more messages than the index holds, and message
  // streams have no record: the index lost records. A repair gives those
  // streams records again instead of deleting them here.
  if (orphan_keys && counts_from_file_ && counts_.messages > index_.size()) return rc::kInvalidData;
  ContainerTransaction txn(container_);
  Result r = txn.begin_result();
  for (const WString& orphan : orphans) {
    if (r.ok()) r = container_.DeleteStream(orphan);
  }
  if (r.ok()) r = txn.Commit();
  return r;
}

Result FolderFile::RepairLocked() {
  counts_from_file_ = false;
  Result r = CheckAndRepair(path_, kPageSize, true, u"");
  if (r.ok()) r = OpenContainer();
  if (r.ok()) r = RepairIndex();
  if (r.failed()) {
    counts_stream_.reset();
    container_.Close();
  }
  return r;
}

Result FolderFile::CheckAndRepairFile() {
  {
    MutexLock writer(writer_mu_);
    MutexLock lock(mu_);
    if (path_.empty()) return rc::kContainerClosed;
    const std::filesystem::path path = path_;
    CloseLocked();
    path_ = path;
    const Result r = RepairLocked();
    if (r.failed()) {
      Log(kLogRepairError + ResultText(r));
      return r;
    }
    Log(kLogRepaired);
  }
  return LoadIndex();
}

Result FolderFile::StoreCounts(FolderCounts counts) {
  if (!counts_stream_) {
    const Result r = container_.OpenStream(kCountsStream, StreamOpen::kCreate, &counts_stream_);
    if (r.failed()) return r;
  }
  uint8_t raw[8];
  PutU32(raw, counts.messages);
  PutU32(raw + 4, counts.unread);
  Result r = counts_stream_->SeekTo(0);
  if (r.ok()) r = counts_stream_->WriteAll(std::string_view(reinterpret_cast<char*>(raw), 8));
  return r.failed() ? r : counts_stream_->Cut();
}

Result FolderFile::WriteCountsLocked() {
  if (loading_ || !container_.is_open()) return rc::kOk;
  return StoreCounts(counts_);
}

Result FolderFile::WriteCounts() {
  MutexLock writer(writer_mu_);
  MutexLock lock(mu_);
  return WriteCountsLocked();
}

Result FolderFile::EnsureLoaded() {
  if (path_.empty()) return rc::kContainerClosed;
  const Result r = LoadIndexLocked();
  if (r.ok() && !container_.is_open()) return rc::kContainerClosed;
  return r;
}

bool FolderFile::is_open() const {
  MutexLock lock(mu_);
  return container_.is_open();
}

bool FolderFile::index_loaded() const {
  MutexLock lock(mu_);
  return loaded_;
}

FolderCounts FolderFile::counts() const {
  MutexLock lock(mu_);
  return counts_;
}

std::filesystem::path FolderFile::path() const {
  MutexLock lock(mu_);
  return path_;
}

uint32_t FolderFile::NextKey() const {
  MutexLock lock(mu_);
  return index_.NextKey();
}

size_t FolderFile::MessageCount() const {
  MutexLock lock(mu_);
  return index_.size();
}

std::optional<MessageRecord> FolderFile::MessageAt(size_t i) const {
  MutexLock lock(mu_);
  if (i >= index_.size()) return std::nullopt;
  return index_.at(i).record;
}

std::optional<MessageRecord> FolderFile::FindMessage(uint32_t key) const {
  MutexLock lock(mu_);
  const IndexEntry* entry = index_.Find(key);
  if (!entry) return std::nullopt;
  return entry->record;
}

std::vector<MessageRecord> FolderFile::Messages() const {
  MutexLock lock(mu_);
  std::vector<MessageRecord> out;
  out.reserve(index_.size());
  for (size_t i = 0; i < index_.size(); ++i) out.push_back(index_.at(i).record);
  return out;
}

std::vector<ReferenceEntry> FolderFile::References() const {
  MutexLock lock(mu_);
  std::vector<ReferenceEntry> out;
  for (const ReferenceIndexEntry& r : index_.references()) out.push_back(r.entry);
  return out;
}

bool FolderFile::FindByServerUid(WStringView uid, uint32_t* key) const {
  MutexLock lock(mu_);
  *key = index_.FindByServerUid(uid);
  return *key != 0;
}

ContainerCounters FolderFile::counters() const {
  MutexLock lock(mu_);
  return container_.counters();
}

void FolderFile::Notify(Change change, const std::vector<uint32_t>& keys) {
  observers_.ForEach([&](FolderObserver& o) {
    switch (change) {
      case Change::kAdded: o.MessagesAdded(*this, keys); break;
      case Change::kRemoved: o.MessagesRemoved(*this, keys); break;
      case Change::kChanged: o.MessagesChanged(*this, keys); break;
      case Change::kLoaded: o.IndexLoaded(*this); break;
    }
  });
}

}  // namespace trv
