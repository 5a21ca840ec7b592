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

void MessageIndex::Add(const MessageRecord& record, uint32_t offset, uint32_t length) {
  auto entry = std::make_unique<IndexEntry>(IndexEntry{offset, length, record});
  IndexEntry*& slot = by_key_[record.key];
  if (slot) {
    // A second live record of one key: the later one wins, the earlier one
    // counts as deleted and goes with the next compaction.
    deleted_bytes_ += slot->length;
    if (!slot->record.is_read()) --unread_;
    *slot = std::move(*entry);
  } else {
    slot = entry.get();
    entries_.push_back(std::move(entry));
  }
  if (!record.is_read()) ++unread_;
  SeeKey(record.key);
}

Result MessageIndex::Read(ContainerStream& index, const IndexProgress& progress) {
  uint32_t size = index.Size();
  if (index.last_error().failed()) return index.last_error();
  if (end_offset_ == 0) {
    uint8_t header[kHeaderSize];
    index.Seek(0, kSeekStart);
    if (size >= kHeaderSize && index.ReadExact(header, kHeaderSize).ok()) {
      SeeKey(GetU32(header));
    } else {
      index.Seek(0, kSeekStart);
      if (index.WriteAll(std::string(kHeaderSize, '\0')).failed()) return rc::kWriteFault;
      size = std::max(size, kHeaderSize);
    }
    end_offset_ = kHeaderSize;
  }
  std::string window;
  uint32_t window_at = end_offset_;
  IndexItem item;
  for (;;) {
    const uint32_t pos = end_offset_;
    const std::string_view view = std::string_view(window).substr(pos - window_at);
    switch (ParseIndexRecord(view, size - pos, &item)) {
      case IndexParse::kEnd:
        return rc::kOk;
      case IndexParse::kStop:
      case IndexParse::kDamaged:
        return rc::kInvalidData;
      case IndexParse::kNeedMore: {
        const uint32_t want = std::min(std::max(item.length, kReadBlock), size - pos);
        window.resize(want);
        window_at = pos;
        index.Seek(pos, kSeekStart);
        const Result r = index.ReadExact(window.data(), want);
        if (r.failed()) return r;
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
    if (progress) progress(end_offset_, size);
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
  *entry = IndexEntry{offset, length, record};
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
