#include "store/index_parser.h"

#include <type_traits>

#include "base/byte_io.h"

namespace trv {

namespace {

// Reads the seven strings of a record whose fixed part has been read. Every
// count is bounded by the record's own length.
bool ReadStrings(ByteReader& r, IndexItem* item) {
  if (item->kind == IndexItem::kReference) {
    for (int i = 0; i < 4; ++i) {
      if (!r.SkipWStr()) return false;
    }
    return r.WStr(item->reference.string5) && r.WStr(item->reference.string6) && r.SkipWStr();
  }
  bool ok = true;
  ForEachRecordString(item->message, [&](WString& s) { ok = ok && r.WStr(s); });
  return ok && r.SkipWStr();
}

}  // namespace

IndexParse ParseIndexRecord(std::string_view window, uint64_t left, IndexItem* item) {
  if (left == 0) return IndexParse::kEnd;
  if (left < kRecordFixedSize) return IndexParse::kStop;
  if (window.size() < kRecordFixedSize) {
    item->length = kRecordFixedSize;
    return IndexParse::kNeedMore;
  }
  const auto* p = reinterpret_cast<const uint8_t*>(window.data());
  const uint32_t length = GetU32(p);
  const uint32_t flags = GetU32(p + 4);
  const uint32_t key = GetU32(p + 12);
  if (length == 0 || key == 0) return IndexParse::kStop;
  if (length < kMinRecordSize || length > kMaxRecordSize || length > left) return IndexParse::kDamaged;
  item->length = length;
  item->record_flags = flags;
  if (window.size() < length) return IndexParse::kNeedMore;

  // Bit 0 is tested before the deleted value: a reference entry stays one
  // whatever else its flags hold.
  const bool reference = flags & kRecordReference;
  if (!reference && flags > kRecordDeletedAbove) {
    item->kind = IndexItem::kDeleted;
    item->message.key = key;
    return IndexParse::kRecord;
  }
  ByteReader r(window.substr(0, length));
  if (reference) {
    item->kind = IndexItem::kReference;
    r.Bytes(item->reference.fixed.data(), kRecordFixedSize);
  } else {
    item->kind = IndexItem::kMessage;
    // In bounds: the record is at least kMinRecordSize long.
    r.Skip(8);
    ForEachFixedField(item->message, [&r](auto& field) {
      using T = std::decay_t<decltype(field)>;
      if constexpr (std::is_same_v<T, double>) r.F64(field);
      else if constexpr (std::is_same_v<T, uint32_t>) r.U32(field);
      else r.Bytes(field.data(), field.size());
    });
  }
  return ReadStrings(r, item) ? IndexParse::kRecord : IndexParse::kDamaged;
}

}  // namespace trv
