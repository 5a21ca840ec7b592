#include "store/message_index.h"

#include <algorithm>
#include <string>

#include "base/byte_io.h"
#include "store/container_stream.h"
#include "store/index_parser.h"

namespace trv {

namespace {

// Bytes read from "/Index" at a time.
constexpr uint32_t kReadBlock = 256 * 1024;

}  // namespace

const IndexEntry* MessageIndex::Find(uint32_t key) const {
  const auto it = by_key_.find(key);
  return it == by_key_.end() ? nullptr : it->second;
}

void MessageIndex::Clear() { *this = MessageIndex(); }

uint32_t MessageIndex::FindByServerUid(WStringView uid) const {
  if (uid.empty()) return 0;
  const auto it = by_uid_.find(WString(uid));
  return it == by_uid_.end() ? 0 : it->second;
}

void MessageIndex::IndexUid(const MessageRecord& record) {
  if (!record.server_uid.empty()) by_uid_[record.server_uid] = record.key;
}

void MessageIndex::UnindexUid(const MessageRecord& record) {
  const auto it = by_uid_.find(record.server_uid);
  if (it != by_uid_.end() && it->second == record.key) by_uid_.erase(it);
}

void MessageIndex::Add(const MessageRecord& record, uint32_t offset, uint32_t length) {
  auto entry = std::make_unique<IndexEntry>(IndexEntry{offset, length, record});
  IndexEntry*& slot = by_key_[record.key];
  if (slot) {
    // A second live record of one key: the later one wins, the earlier one
    // counts as deleted and goes with the next compaction.
    deleted_bytes_ += slot->length;
    if (!slot->record.is_read()) --unread_;
    UnindexUid(slot->record);
    *slot = std::move(*entry);
  } else {
    slot = entry.get();
    entries_.push_back(std::move(entry));
  }
  if (!record.is_read()) ++unread_;
  IndexUid(record);
  SeeKey(record.key);
}

Result MessageIndex::Read(ContainerStream& index, uint32_t max_records, bool* more, IndexReadPosition* reached) {
  *more = false;
  uint32_t size = index.Size();
  if (index.last_error().failed()) return index.last_error();
  if (end_offset_ == 0) {
    uint8_t header[kHeaderSize];
    Result r = index.SeekTo(0);
    if (r.failed()) return r;
    if (size >= kHeaderSize && index.ReadExact(header, kHeaderSize).ok()) {
      SeeKey(GetU32(header));
    } else {
      r = index.SeekTo(0);
      if (r.ok() && index.WriteAll(std::string(kHeaderSize, '\0')).failed()) r = rc::kWriteFault;
      if (r.failed()) return r;
      size = std::max(size, kHeaderSize);
    }
    end_offset_ = kHeaderSize;
    window_.clear();
    window_at_ = end_offset_;
  }
  if (reached) *reached = {end_offset_, size};
  // The window may hold bytes of an older size of the stream; it is only
  // trusted when it starts at or before the position and covers it.
  if (end_offset_ < window_at_ || end_offset_ - window_at_ > window_.size()) {
    window_.clear();
    window_at_ = end_offset_;
  }
  IndexItem item;
  for (uint32_t records = 0;;) {
    const uint32_t pos = end_offset_;
    const std::string_view view = std::string_view(window_).substr(pos - window_at_);
    if (max_records != 0 && records == max_records) {
      *more = pos < size;
      return rc::kOk;
    }
    switch (ParseIndexRecord(view, size - pos, &item)) {
      case IndexParse::kEnd:
        window_ = std::string();  // the block is not needed once the index is read
        return rc::kOk;
      case IndexParse::kStop:
      case IndexParse::kDamaged:
        return rc::kInvalidData;
      case IndexParse::kNeedMore: {
        const uint32_t want = std::min(std::max(item.length, kReadBlock), size - pos);
        window_.resize(want);
        window_at_ = pos;
        Result r = index.SeekTo(pos);
        if (r.ok()) r = index.ReadExact(window_.data(), want);
        if (r.failed()) {
          window_.clear();
          return r;
        }
        continue;
      }
      case IndexParse::kRecord:
        break;
    }
    switch (item.kind) {
      case IndexItem::kMessage:
        Add(item.message, pos, item.length);
        break;
      case IndexItem::kReference:
        references_.push_back({pos, item.length, item.reference});
        SeeKey(item.reference.key());
        break;
      case IndexItem::kDeleted:
        deleted_bytes_ += item.length;
        SeeKey(item.message.key);
        break;
    }
    end_offset_ = pos + item.length;
    ++records;
    if (reached) *reached = {end_offset_, size};
  }
}

void MessageIndex::Appended(const MessageRecord& record, uint32_t offset, uint32_t length) {
  Add(record, offset, length);
  end_offset_ = std::max(end_offset_, offset + length);
}

void MessageIndex::Removed(const std::vector<uint32_t>& keys) {
  std::vector<IndexEntry*> gone;
  for (uint32_t key : keys) {
    const auto it = by_key_.find(key);
    if (it == by_key_.end()) continue;
    IndexEntry* entry = it->second;
    deleted_bytes_ += entry->length;
    if (!entry->record.is_read()) --unread_;
    UnindexUid(entry->record);
    gone.push_back(entry);
    by_key_.erase(it);
  }
  // A few entries are found by their pointers, a scan that reads only the
  // vector; many at once in one pass that looks into every entry.
  constexpr size_t kFewEntries = 16;
  if (gone.size() <= kFewEntries) {
    for (IndexEntry* entry : gone) {
      entries_.erase(std::find_if(entries_.begin(), entries_.end(), [&](const auto& e) { return e.get() == entry; }));
    }
    return;
  }
  for (IndexEntry* entry : gone) entry->record.key = 0;
  std::erase_if(entries_, [](const auto& e) { return e->record.key == 0; });
}

void MessageIndex::Updated(const MessageRecord& record, uint32_t offset, uint32_t length) {
  const auto it = by_key_.find(record.key);
  if (it == by_key_.end()) return;
  IndexEntry* entry = it->second;
  if (!entry->record.is_read()) --unread_;
  if (!record.is_read()) ++unread_;
  if (offset != entry->offset) deleted_bytes_ += entry->length;  // moved: the old copy is dead
  UnindexUid(entry->record);
  *entry = IndexEntry{offset, length, record};
  IndexUid(record);
  end_offset_ = std::max(end_offset_, offset + length);
}

void MessageIndex::Compacted(const std::vector<uint32_t>& message_offsets,
                             const std::vector<uint32_t>& reference_offsets, uint32_t end_offset) {
  for (size_t i = 0; i < entries_.size() && i < message_offsets.size(); ++i) entries_[i]->offset = message_offsets[i];
  for (size_t i = 0; i < references_.size() && i < reference_offsets.size(); ++i) {
    references_[i].offset = reference_offsets[i];
  }
  deleted_bytes_ = 0;
  end_offset_ = end_offset;
}

}  // namespace trv
