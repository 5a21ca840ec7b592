// The message operations of a folder file: append, delete, flag and record
// changes, reading, compaction. Each change is one container transaction
// (stream, record and counts together); the in-memory index learns of it
// only after the commit, so a failed change leaves memory and file alike.
#include <unordered_set>

#include "base/byte_io.h"
#include "store/append_batch.h"
#include "store/folder_file.h"

namespace trv {

namespace {

FolderCounts CountsAfter(FolderCounts c, const MessageRecord& old, const MessageRecord& now) {
  if (old.is_read() != now.is_read()) c.unread += now.is_read() ? -1 : 1;
  return c;
}

}  // namespace

Result FolderFile::FreeKey(uint32_t* key) {
  // Keys above the highest seen are free in the index; a stream of that name
  // left by some older writer is skipped rather than overwritten.
  for (uint32_t tries = 0; tries < 1'000'000; ++tries, ++*key) {
    if (*key == 0) continue;
    if (index_.Find(*key) || container_.StreamExists(MessageStreamName(*key))) continue;
    if (container_.last_error().failed() && container_.last_error() != rc::kStreamMissing) {
      return container_.last_error();
    }
    return rc::kOk;
  }
  return rc::kFail;
}

Result FolderFile::Append(const MessageRecord& record, std::string_view text, uint32_t* key) {
  AppendBatch batch(*this);
  Result r = batch.Begin();
  if (r.ok()) r = batch.Write(text);
  if (r.ok()) r = batch.Finish(record, key);
  return r.failed() ? r : batch.Commit();
}

Result FolderFile::AppendMany(const std::vector<NewMessage>& messages, std::vector<uint32_t>* keys) {
  AppendBatch batch(*this);
  for (const NewMessage& m : messages) {
    Result r = batch.Begin();
    if (r.ok()) r = batch.Write(m.text);
    if (r.ok()) r = batch.Finish(m.record, nullptr);
    if (r.failed()) return r;
  }
  return batch.Commit(keys);
}

Result FolderFile::MarkRecordDeleted(const IndexEntry& entry) {
  uint8_t raw[4];
  Result r = index_stream_->SeekTo(entry.offset + 4);
  if (r.ok()) r = index_stream_->ReadExact(raw, 4);
  if (r.failed()) return r;
  PutU32(raw, GetU32(raw) | kRecordDeleted);
  r = index_stream_->SeekTo(entry.offset + 4);
  if (r.failed()) return r;
  return index_stream_->WriteAll(std::string_view(reinterpret_cast<char*>(raw), 4));
}

Result FolderFile::DeleteLocked(const std::vector<uint32_t>& keys) {
  Result r = EnsureLoaded();
  if (r.failed()) return r;
  std::vector<const IndexEntry*> entries;
  std::unordered_set<uint32_t> seen;
  for (uint32_t key : keys) {
    const IndexEntry* entry = index_.Find(key);
    if (!entry) return rc::kInvalidArg;
    if (seen.insert(key).second) entries.push_back(entry);
  }
  FolderCounts counts = counts_;
  ContainerTransaction txn(container_);
  r = txn.begin_result();
  for (const IndexEntry* entry : entries) {
    if (r.ok()) r = MarkRecordDeleted(*entry);
    if (r.ok()) {
      r = container_.DeleteStream(MessageStreamName(entry->record.key));
      if (r == rc::kStreamMissing) r = rc::kOk;
    }
    --counts.messages;
    if (!entry->record.is_read()) --counts.unread;
  }
  if (r.ok()) r = StoreCounts(counts);
  if (r.ok()) r = txn.Commit();
  if (r.failed()) return r;
  index_.Removed(std::vector<uint32_t>(seen.begin(), seen.end()));
  counts_ = counts;
  // Pages freed here are reused by later appends; a compaction gives free
  // pages back to the file system.
  MaybeCompact();
  return r;
}

Result FolderFile::Delete(const std::vector<uint32_t>& keys) {
  Result r;
  {
    MutexLock writer(writer_mu_);
    MutexLock lock(mu_);
    r = DeleteLocked(keys);
  }
  if (r.ok() && !keys.empty()) Notify(Change::kRemoved, keys);
  return r;
}

Result FolderFile::SetFlags(uint32_t key, uint32_t set, uint32_t clear) {
  {
    MutexLock writer(writer_mu_);
    MutexLock lock(mu_);
    Result r = EnsureLoaded();
    if (r.failed()) return r;
    const IndexEntry* entry = index_.Find(key);
    if (!entry) return rc::kInvalidArg;
    MessageRecord record = entry->record;
    record.flags = (record.flags & ~clear) | set;
    if (record.flags == entry->record.flags) return rc::kOk;
    const FolderCounts counts = CountsAfter(counts_, entry->record, record);
    uint8_t raw[4];
    PutU32(raw, record.flags);
    ContainerTransaction txn(container_);
    r = txn.begin_result();
    if (r.ok()) r = index_stream_->SeekTo(entry->offset + 8);
    if (r.ok()) r = index_stream_->WriteAll(std::string_view(reinterpret_cast<char*>(raw), 4));
    if (r.ok() && !(counts == counts_)) r = StoreCounts(counts);
    if (r.ok()) r = txn.Commit();
    if (r.failed()) return r;
    index_.Updated(record, entry->offset, entry->length);
    counts_ = counts;
  }
  Notify(Change::kChanged, {key});
  return rc::kOk;
}

Result FolderFile::WriteRecord(const MessageRecord& record, const IndexEntry& old, uint32_t* offset,
                               uint32_t* length) {
  const std::string encoded = EncodeMessageRecord(record);
  *offset = old.offset;
  if (encoded.size() != old.length) {
    const Result r = MarkRecordDeleted(old);
    if (r.failed()) return r;
    *offset = index_.end_offset();
  }
  *length = static_cast<uint32_t>(encoded.size());
  const Result r = index_stream_->SeekTo(*offset);
  return r.failed() ? r : index_stream_->WriteAll(encoded);
}

Result FolderFile::UpdateRecord(const MessageRecord& record) {
  return RewriteMessage(record, nullptr);
}

Result FolderFile::ReplaceMessage(const MessageRecord& record, std::string_view text) {
  return RewriteMessage(record, &text);
}

Result FolderFile::RewriteMessage(const MessageRecord& given, const std::string_view* text) {
  {
    MutexLock writer(writer_mu_);
    MutexLock lock(mu_);
    Result r = EnsureLoaded();
    if (r.failed()) return r;
    const IndexEntry* entry = index_.Find(given.key);
    if (!entry) return rc::kInvalidArg;
    if (text && text->size() > UINT32_MAX) return rc::kStreamTooLarge;
    MessageRecord record = given;
    record.size = text ? static_cast<uint32_t>(text->size()) : entry->record.size;
    const FolderCounts counts = CountsAfter(counts_, entry->record, record);
    ContainerTransaction txn(container_);
    r = txn.begin_result();
    if (r.ok() && text) {
      std::unique_ptr<ContainerStream> stream;
      r = container_.OpenStream(MessageStreamName(record.key), StreamOpen::kCreate, &stream);
      if (r.ok()) r = stream->WriteAll(*text);
      if (r.ok()) r = stream->Cut();
    }
    uint32_t offset = 0, length = 0;
    if (r.ok()) r = WriteRecord(record, *entry, &offset, &length);
    if (r.ok() && !(counts == counts_)) r = StoreCounts(counts);
    if (r.ok()) r = txn.Commit();
    if (r.failed()) return r;
    index_.Updated(record, offset, length);
    counts_ = counts;
    MaybeCompact();
  }
  Notify(Change::kChanged, {given.key});
  return rc::kOk;
}

Result FolderFile::OpenMessageStream(uint32_t key, std::unique_ptr<ContainerStream>* stream) {
  if (!container_.is_open()) return rc::kContainerClosed;
  if (loaded_ && !index_.Find(key)) return rc::kInvalidArg;
  return container_.OpenStream(MessageStreamName(key), StreamOpen::kReadOnly, stream);
}

Result FolderFile::ReadMessageRange(uint32_t key, uint32_t offset, uint32_t count, std::string* bytes) {
  bytes->clear();
  MutexLock lock(mu_);
  std::unique_ptr<ContainerStream> stream;
  const Result r = OpenMessageStream(key, &stream);
  if (r.failed()) return r;
  const uint32_t size = stream->Size();
  if (offset >= size) return stream->last_error();
  bytes->resize(std::min(count, size - offset));
  const Result seek = stream->SeekTo(offset);
  if (seek.failed()) return seek;
  return stream->ReadExact(bytes->data(), static_cast<uint32_t>(bytes->size()));
}

Result FolderFile::ReadMessage(uint32_t key, std::string* text, uint32_t max_bytes) {
  text->clear();
  MutexLock lock(mu_);
  std::unique_ptr<ContainerStream> stream;
  const Result r = OpenMessageStream(key, &stream);
  return r.failed() ? r : stream->ReadRest(text, max_bytes);
}

Result FolderFile::CompactLocked() {
  Result r = EnsureLoaded();
  if (r.failed()) return r;
  ContainerTransaction txn(container_);
  r = txn.begin_result();
  std::string old;
  if (r.ok()) r = index_stream_->SeekTo(0);
  if (r.ok()) r = index_stream_->ReadRest(&old, UINT32_MAX);
  if (r.failed()) return r;
  // The header keeps the highest key, so keys of dropped records are never
  // given again.
  std::string rebuilt(MessageIndex::kHeaderSize, '\0');
  PutU32(reinterpret_cast<uint8_t*>(rebuilt.data()), index_.highest_key());
  std::vector<uint32_t> message_offsets, reference_offsets;
  // Copies one live record byte for byte; its key must be where the index
  // last saw it, or the file changed under us.
  auto copy = [&](uint32_t offset, uint32_t length, uint32_t key, std::vector<uint32_t>* offsets) {
    if (uint64_t{offset} + length > old.size() || length < kMinRecordSize ||
        GetU32(reinterpret_cast<const uint8_t*>(old.data()) + offset + 12) != key) {
      return false;
    }
    offsets->push_back(static_cast<uint32_t>(rebuilt.size()));
    rebuilt.append(old, offset, length);
    return true;
  };
  for (size_t i = 0; i < index_.size() && r.ok(); ++i) {
    const IndexEntry& e = index_.at(i);
    if (!copy(e.offset, e.length, e.record.key, &message_offsets)) r = rc::kInvalidData;
  }
  for (const ReferenceIndexEntry& e : index_.references()) {
    if (r.ok() && !copy(e.offset, e.length, e.entry.key(), &reference_offsets)) r = rc::kInvalidData;
  }
  if (r.ok()) r = index_stream_->SeekTo(0);
  if (r.ok()) r = index_stream_->WriteAll(rebuilt);
  if (r.ok()) r = index_stream_->Cut();
  if (r.ok()) r = txn.Commit();
  if (r.failed()) return r;
  index_.Compacted(message_offsets, reference_offsets, static_cast<uint32_t>(rebuilt.size()));
  return container_.ReleaseFreeSpace(0);
}

void FolderFile::MaybeCompact() {
  const uint32_t dead = index_.deleted_bytes();
  if (dead >= kMinCompactBytes && dead > options_.compact_share * index_.end_offset()) CompactLocked().Ignore();
}

Result FolderFile::Compact() {
  MutexLock writer(writer_mu_);
  MutexLock lock(mu_);
  return CompactLocked();
}

}  // namespace trv
