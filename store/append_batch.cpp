#include "store/append_batch.h"

namespace trv {

Result AppendBatch::Fail(Result r) {
  Abort();
  error_ = r;
  return r;
}

Result AppendBatch::Open() {
  folder_.writer_mu_.lock();
  Result r;
  {
    MutexLock lock(folder_.mu_);
    r = folder_.EnsureLoaded();
    if (r.ok()) r = folder_.container_.Begin();
    if (r.ok()) {
      first_offset_ = folder_.index_.end_offset();
      next_key_ = folder_.index_.NextKey();
      counts_ = folder_.counts_;
    }
  }
  if (r.ok()) {
    open_ = true;
  } else {
    folder_.writer_mu_.unlock();  // no transaction to roll back
  }
  return r;
}

void AppendBatch::Close() {
  open_ = false;
  folder_.writer_mu_.unlock();
}

Result AppendBatch::Begin() {
  if (error_.failed()) return error_;
  if (stream_) return Fail(rc::kInvalidArg);
  Result r = open_ ? rc::kOk : Open();
  if (r.ok()) {
    MutexLock lock(folder_.mu_);
    r = folder_.FreeKey(&next_key_);
    if (r.ok()) {
      key_ = next_key_++;
      written_ = 0;
      r = folder_.container_.OpenStream(MessageStreamName(key_), StreamOpen::kCreate, &stream_);
    }
  }
  return r.failed() ? Fail(r) : r;
}

Result AppendBatch::Write(std::string_view piece) {
  if (error_.failed()) return error_;
  if (!stream_) return Fail(rc::kInvalidArg);
  if (written_ + piece.size() > UINT32_MAX) return Fail(rc::kStreamTooLarge);
  Result r;
  {
    MutexLock lock(folder_.mu_);
    r = stream_->WriteAll(piece);
  }
  if (r.failed()) return Fail(r);
  written_ += piece.size();
  return r;
}

Result AppendBatch::Finish(const MessageRecord& given, uint32_t* key) {
  if (error_.failed()) return error_;
  if (!stream_) return Fail(rc::kInvalidArg);
  MessageRecord record = given;
  record.key = key_;
  record.size = static_cast<uint32_t>(written_);
  const std::string encoded = EncodeMessageRecord(record);
  if (uint64_t{first_offset_} + records_.size() + encoded.size() > UINT32_MAX) return Fail(rc::kStreamTooLarge);
  {
    MutexLock lock(folder_.mu_);
    stream_.reset();
  }
  staged_.push_back({record, static_cast<uint32_t>(first_offset_ + records_.size()),
                     static_cast<uint32_t>(encoded.size())});
  records_ += encoded;
  ++counts_.messages;
  if (!record.is_read()) ++counts_.unread;
  if (key) *key = record.key;
  return rc::kOk;
}

Result AppendBatch::Commit(std::vector<uint32_t>* keys) {
  if (error_.failed()) return error_;
  if (stream_) return Fail(rc::kInvalidArg);
  if (!open_) return rc::kOk;
  std::vector<uint32_t> added;
  Result r;
  {
    MutexLock lock(folder_.mu_);
    r = folder_.index_stream_->SeekTo(first_offset_);
    if (r.ok()) r = folder_.index_stream_->WriteAll(records_);
    if (r.ok()) r = folder_.StoreCounts(counts_);
    if (r.ok()) r = folder_.container_.Commit();
    if (r.ok()) {
      for (const Staged& s : staged_) {
        folder_.index_.Appended(s.record, s.offset, s.length);
        added.push_back(s.record.key);
      }
      folder_.counts_ = counts_;
    }
  }
  if (r.failed()) return Fail(r);
  staged_.clear();
  records_.clear();
  Close();
  if (keys) *keys = added;
  folder_.Notify(FolderFile::Change::kAdded, added);
  return r;
}

void AppendBatch::Abort() {
  if (open_) {
    {
      MutexLock lock(folder_.mu_);
      stream_.reset();
      folder_.container_.Rollback().Ignore();  // a closed container has nothing left to undo
    }
    Close();
  }
  stream_.reset();
  staged_.clear();
  records_.clear();
}

}  // namespace trv
