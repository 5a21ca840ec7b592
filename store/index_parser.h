// The parser of "/Index" records: pure, over bytes, with the limits a
// damaged or hostile index needs. The loader feeds it a window of the stream.
#pragma once

#include <cstdint>
#include <string_view>

#include "store/message_record.h"

namespace trv {

enum class IndexParse {
  kRecord,    // one record parsed; `item` filled, `item.length` bytes used
  kNeedMore,  // the window ends inside the record; give at least `item.length` bytes
  kEnd,       // nothing left in the stream: a clean end
  kStop,      // a zero length or key, or fewer than 80 bytes left: the index ends here
  kDamaged,   // a record that cannot be what it claims (length out of bounds, strings overflow)
};

struct IndexItem {
  enum Kind { kMessage, kReference, kDeleted } kind = kMessage;
  uint32_t length = 0;  // of the record, bytes
  uint32_t record_flags = 0;
  MessageRecord message;      // kMessage
  ReferenceEntry reference;   // kReference
};

// Parses the record at the start of `window`. `left` is the number of bytes
// from the record's start to the end of the stream (window.size() <= left).
IndexParse ParseIndexRecord(std::string_view window, uint64_t left, IndexItem* item);

}  // namespace trv
