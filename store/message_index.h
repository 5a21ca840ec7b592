// The message index of one folder file in memory: the records of "/Index" in
// index order, found by position or by key, with the figures the folder file
// needs (unread count, bytes held by deleted records, highest key, where the
// next record goes). It reads "/Index" and is told of every change the folder
// file has committed; it never writes by itself.
//
// Not thread-safe: the folder file's mutex guards it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/result.h"
#include "store/message_record.h"

namespace trv {

class ContainerStream;

struct IndexEntry {
  uint32_t offset = 0;  // of the record in "/Index"
  uint32_t length = 0;
  MessageRecord record;
};

struct ReferenceIndexEntry {
  uint32_t offset = 0;
  uint32_t length = 0;
  ReferenceEntry entry;
};

// Where a read of "/Index" stands: the offset reached and the stream's size.
struct IndexReadPosition {
  uint32_t position = 0;
  uint32_t size = 0;
};

class MessageIndex {
 public:
  static constexpr uint32_t kHeaderSize = 4;

  // Reads the records from the read position to the end of `index` (the
  // header first when nothing was read yet: it holds the highest key a
  // compaction dropped; a missing header is written as 0, a failed write is
  // rc::kWriteFault). Stops with rc::kInvalidData at a
  // record that is damaged or that ends the index before the end of the
  // stream (a zero length or key, a short tail): the read position then
  // stays at that record. A stream that cannot be read gives its code.
  // At most `max_records` records are read per call (0: no limit); `*more`
  // tells whether records are left, and a later call goes on from there.
  // `reached` (may be null) receives the position after the call.
  Result Read(ContainerStream& index, uint32_t max_records, bool* more, IndexReadPosition* reached);
  void Clear();

  size_t size() const { return entries_.size(); }
  const IndexEntry& at(size_t i) const { return *entries_[i]; }
  const IndexEntry* Find(uint32_t key) const;
  const std::vector<ReferenceIndexEntry>& references() const { return references_; }
  // The key of the message whose record holds `uid` as its server_uid
  // (string 6); 0 when none does or `uid` is empty. When two records hold
  // one uid, the later one counts.
  uint32_t FindByServerUid(WStringView uid) const;

  uint32_t unread() const { return unread_; }
  uint32_t deleted_bytes() const { return deleted_bytes_; }
  // The offset up to which the index has been read: where the next record goes.
  uint32_t end_offset() const { return end_offset_; }
  // The highest key of any record read or added, or kept in the header by a
  // compaction that dropped the record holding it; NextKey is one more (0
  // when that would wrap).
  uint32_t highest_key() const { return highest_key_; }
  uint32_t NextKey() const { return highest_key_ + 1; }

  // Changes the folder file has committed to "/Index".
  void Appended(const MessageRecord& record, uint32_t offset, uint32_t length);
  void Removed(const std::vector<uint32_t>& keys);  // their records were marked deleted
  // A record rewritten, in place (same offset) or moved to the end.
  void Updated(const MessageRecord& record, uint32_t offset, uint32_t length);
  // After compaction: the new offsets of every message record and reference
  // entry, in index order; deleted bytes start again from 0.
  void Compacted(const std::vector<uint32_t>& message_offsets, const std::vector<uint32_t>& reference_offsets,
                 uint32_t end_offset);

 private:
  void Add(const MessageRecord& record, uint32_t offset, uint32_t length);
  void SeeKey(uint32_t key) { highest_key_ = std::max(highest_key_, key); }
  void IndexUid(const MessageRecord& record);
  void UnindexUid(const MessageRecord& record);

  std::vector<std::unique_ptr<IndexEntry>> entries_;
  std::unordered_map<uint32_t, IndexEntry*> by_key_;
  std::unordered_map<WString, uint32_t> by_uid_;
  std::vector<ReferenceIndexEntry> references_;
  // The bytes of "/Index" last read, from window_at_, kept between calls.
  std::string window_;
  uint32_t window_at_ = 0;
  uint32_t unread_ = 0;
  uint32_t deleted_bytes_ = 0;
  uint32_t end_offset_ = 0;
  uint32_t highest_key_ = 0;
};

}  // namespace trv
