#include "store/container_stream.h"

#include <algorithm>
#include <cstring>

#include "store/container_db.h"
#include "store/container_result.h"

namespace trv {

using container_internal::AutoTransaction;
using container_internal::ChunkRowId;
using container_internal::kChunkSize;
using container_internal::kMaxStreamSize;

ContainerStream::ContainerStream(std::shared_ptr<container_internal::ContainerDb> db, int64_t id, WString name,
                                 uint32_t size, bool writable)
    : db_(std::move(db)), id_(id), name_(std::move(name)), size_(size), generation_(db_->generation()),
      writable_(writable) {}

ContainerStream::~ContainerStream() = default;

Result ContainerStream::Refresh() {
  if (!db_->is_open()) return rc::kContainerClosed;
  if (generation_ == db_->generation()) return rc::kOk;
  const Result r = db_->StreamSize(id_, &size_);
  if (r.ok()) generation_ = db_->generation();
  return r;
}

uint32_t ContainerStream::Size() {
  error_ = Refresh();
  return size_;
}

uint32_t ContainerStream::Read(void* buffer, uint32_t count) {
  error_ = Refresh();
  if (error_.failed() || pos_ >= size_) return 0;
  const uint32_t total = std::min(count, size_ - pos_);
  auto* out = static_cast<uint8_t*>(buffer);
  uint32_t done = 0;
  while (done < total) {
    const uint32_t at = pos_ + done;
    const uint32_t offset = at % kChunkSize;
    const uint32_t want = std::min(total - done, kChunkSize - offset);
    uint32_t got = 0;
    error_ = db_->ReadChunkPart(ChunkRowId(id_, at / kChunkSize), offset, out + done, want, &got);
    if (error_.failed()) return 0;
    std::memset(out + done + got, 0, want - got);  // a hole or a short tail row reads as zeros
    done += want;
  }
  pos_ += total;
  return total;
}

Result ContainerStream::WriteChunks(uint32_t pos, const uint8_t* data, uint32_t count) {
  uint32_t done = 0;
  while (done < count) {
    const uint32_t at = pos + done;
    const uint32_t offset = at % kChunkSize;
    const uint32_t n = std::min(count - done, kChunkSize - offset);
    const Result r = db_->WriteChunkPart(ChunkRowId(id_, at / kChunkSize), offset, data + done, n);
    if (r.failed()) return r;
    done += n;
  }
  return rc::kOk;
}

uint32_t ContainerStream::Write(const void* buffer, uint32_t count) {
  error_ = Refresh();
  if (error_.ok() && !writable_) error_ = rc::kStreamReadOnly;
  if (error_.failed() || count == 0) return 0;
  if (uint64_t{pos_} + count > kMaxStreamSize) {
    error_ = rc::kStreamTooLarge;
    return 0;
  }
  const uint32_t end = pos_ + count;
  AutoTransaction txn(*db_);
  Result r = txn.begin_result();
  if (r.ok()) r = WriteChunks(pos_, static_cast<const uint8_t*>(buffer), count);
  if (r.ok() && end > size_) r = db_->SetStreamSize(id_, end);
  if (r.ok()) r = txn.Commit();
  db_->Changed();
  error_ = r;
  if (r.failed()) return 0;
  generation_ = db_->generation();
  size_ = std::max(size_, end);
  pos_ = end;
  db_->stats().bytes_written += count;
  return count;
}

uint32_t ContainerStream::Seek(int64_t offset, int origin) {
  int64_t base = 0;
  switch (origin) {
    case kSeekStart: break;
    case kSeekEnd:
      error_ = Refresh();
      if (error_.failed()) return pos_;
      base = size_;
      break;
    case kSeekCurrent: base = pos_; break;
    default:
      error_ = rc::kInvalidArg;
      return pos_;
  }
  const int64_t target = base + offset;
  if (target < 0 || target > int64_t{kMaxStreamSize}) {
    error_ = rc::kInvalidArg;
    return pos_;
  }
  error_ = rc::kOk;
  pos_ = static_cast<uint32_t>(target);
  return pos_;
}

Result ContainerStream::SetSize(uint32_t new_size) {
  if (new_size < size_) {
    const uint32_t keep_chunks = (new_size + kChunkSize - 1) / kChunkSize;
    Result r = db_->DeleteChunksFrom(id_, keep_chunks);
    if (r.ok() && new_size % kChunkSize != 0) {
      r = db_->TruncateChunk(ChunkRowId(id_, new_size / kChunkSize), new_size % kChunkSize);
    }
    if (r.failed()) return r;
  }
  // Growing needs no rows: the new bytes are a hole, read as zeros.
  return db_->SetStreamSize(id_, new_size);
}

Result ContainerStream::Cut() {
  error_ = Refresh();
  if (error_.ok() && !writable_) error_ = rc::kStreamReadOnly;
  if (error_.failed() || pos_ == size_) return error_;
  AutoTransaction txn(*db_);
  Result r = txn.begin_result();
  if (r.ok()) r = SetSize(pos_);
  if (r.ok()) r = txn.Commit();
  db_->Changed();
  if (r.ok()) {
    size_ = pos_;
    generation_ = db_->generation();
  }
  return Fail(r);
}

Result ContainerStream::ReadExact(void* buffer, uint32_t count) {
  const uint32_t got = Read(buffer, count);
  if (error_.ok() && got != count) error_ = rc::kReadFault;
  return error_;
}

Result ContainerStream::ReadRest(std::string* out, uint32_t max_bytes) {
  out->clear();
  error_ = Refresh();
  if (error_.failed() || pos_ >= size_) return error_;
  const uint32_t n = size_ - pos_;
  if (n > max_bytes) return Fail(rc::kInvalidData);
  out->resize(n);
  return ReadExact(out->data(), n);
}

Result ContainerStream::WriteAll(std::string_view data) {
  if (data.size() > kMaxStreamSize) return Fail(rc::kStreamTooLarge);
  const uint32_t n = static_cast<uint32_t>(data.size());
  const uint32_t wrote = Write(data.data(), n);
  if (error_.ok() && wrote != n) error_ = rc::kWriteFault;
  return error_;
}

}  // namespace trv
