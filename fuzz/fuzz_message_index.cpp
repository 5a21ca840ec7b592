// Feeds arbitrary bytes to the "/Index" record parser the way the loader and
// the repair do: record after record, and after damage resuming at every
// even offset. Every record it accepts must fit the bytes it was given and,
// re-encoded, parse back to a record that encodes to the same bytes.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "store/index_parser.h"

namespace {

bool FitsLimits(const trv::MessageRecord& r) {
  for (const trv::WString* s : {&r.subject, &r.from, &r.to, &r.cc, &r.message_id, &r.server_uid}) {
    if (s->size() > trv::kMaxRecordStringUnits) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view all(reinterpret_cast<const char*>(data), size);
  trv::IndexItem item;
  size_t pos = 0;
  while (pos < all.size()) {
    const std::string_view rest = all.substr(pos);
    // A window of a random-ish length first, as the loader's reads give.
    const size_t window = rest.size() > 8 ? (data[pos] * 7u) % rest.size() : rest.size();
    trv::IndexParse got = trv::ParseIndexRecord(rest.substr(0, window), rest.size(), &item);
    if (got == trv::IndexParse::kNeedMore) {
      if (item.length <= window) __builtin_trap();
      got = trv::ParseIndexRecord(rest, rest.size(), &item);
    }
    if (got == trv::IndexParse::kNeedMore || got == trv::IndexParse::kEnd) __builtin_trap();
    if (got != trv::IndexParse::kRecord) {
      pos += 2 - pos % 2;
      continue;
    }
    if (item.length < trv::kMinRecordSize || item.length > rest.size()) __builtin_trap();
    if (item.kind == trv::IndexItem::kMessage && FitsLimits(item.message)) {
      const std::string again = trv::EncodeMessageRecord(item.message);
      trv::IndexItem back;
      if (trv::ParseIndexRecord(again, again.size(), &back) != trv::IndexParse::kRecord) __builtin_trap();
      // Bytes, not fields: a date of garbage bytes may be a NaN.
      if (trv::EncodeMessageRecord(back.message) != again) __builtin_trap();
    }
    pos += item.length;
  }
  return 0;
}
