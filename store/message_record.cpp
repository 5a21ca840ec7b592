#include "store/message_record.h"

#include <cstring>
#include <type_traits>

#include "base/byte_io.h"

namespace trv {

namespace {

// Cuts a string to the record limit without splitting a surrogate pair.
WStringView Bounded(const WString& s) {
  if (s.size() <= kMaxRecordStringUnits) return s;
  size_t n = kMaxRecordStringUnits;
  if (s[n - 1] >= 0xD800 && s[n - 1] <= 0xDBFF) --n;
  return WStringView(s).substr(0, n);
}

}  // namespace

uint32_t ReferenceEntry::key() const { return GetU32(fixed.data() + 12); }

std::string EncodeMessageRecord(const MessageRecord& r, uint32_t record_flags) {
  std::string out;
  ByteWriter w(&out);
  w.U32(0);  // length, filled in below
  w.U32(record_flags);
  ForEachFixedField(r, [&w](const auto& field) {
    using T = std::decay_t<decltype(field)>;
    if constexpr (std::is_same_v<T, double>) w.F64(field);
    else if constexpr (std::is_same_v<T, uint32_t>) w.U32(field);
    else w.Bytes(field.data(), field.size());
  });
  ForEachRecordString(r, [&w](const WString& s) { w.WStr(Bounded(s)); });
  w.WStr(u"");
  PutU32(reinterpret_cast<uint8_t*>(out.data()), static_cast<uint32_t>(out.size()));
  return out;
}

WString MessageStreamName(uint32_t key) {
  static constexpr char16_t kHex[] = u"0123456789ABCDEF";
  WString name(8, u'0');
  for (int i = 7; i >= 0; --i, key >>= 4) name[static_cast<size_t>(i)] = kHex[key & 0xF];
  return name;
}

bool KeyFromStreamName(WStringView name, uint32_t* key) {
  if (name.size() != 8) return false;
  uint32_t v = 0;
  for (char16_t c : name) {
    uint32_t digit;
    if (c >= u'0' && c <= u'9') digit = c - u'0';
    else if (c >= u'A' && c <= u'F') digit = c - u'A' + 10;
    else return false;
    v = v << 4 | digit;
  }
  if (v == 0) return false;
  *key = v;
  return true;
}

}  // namespace trv
