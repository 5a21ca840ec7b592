#include "base/byte_io.h"

namespace trv {

void ByteWriter::WStr(WStringView s) {
  I32(static_cast<int32_t>(s.size()));
  const size_t start = out_->size();
  out_->resize(start + 2 * s.size());
  auto* p = reinterpret_cast<uint8_t*>(out_->data() + start);
  for (size_t i = 0; i < s.size(); ++i) PutU16(p + 2 * i, s[i]);
}

bool ByteReader::Bytes(void* p, size_t n) {
  if (n > remaining()) return false;
  if (n) std::memcpy(p, data_.data() + pos_, n);
  pos_ += n;
  return true;
}

bool ByteReader::Skip(size_t n) {
  if (n > remaining()) return false;
  pos_ += n;
  return true;
}

bool ByteReader::U8(uint8_t& v) { return Bytes(&v, 1); }

bool ByteReader::U16(uint16_t& v) {
  uint8_t b[2];
  if (!Bytes(b, 2)) return false;
  v = GetU16(b);
  return true;
}

bool ByteReader::U32(uint32_t& v) {
  uint8_t b[4];
  if (!Bytes(b, 4)) return false;
  v = GetU32(b);
  return true;
}

bool ByteReader::I32(int32_t& v) {
  uint32_t u;
  if (!U32(u)) return false;
  v = static_cast<int32_t>(u);
  return true;
}

bool ByteReader::U64(uint64_t& v) {
  uint8_t b[8];
  if (!Bytes(b, 8)) return false;
  v = GetU64(b);
  return true;
}

bool ByteReader::F64(double& v) {
  uint64_t u;
  if (!U64(u)) return false;
  std::memcpy(&v, &u, 8);
  return true;
}

bool ByteReader::WStr(WString& s, size_t max_units) {
  const size_t start = pos_;
  int32_t count;
  if (!I32(count)) return false;
  if (count <= 0) {
    s.clear();
    return true;
  }
  const size_t n = static_cast<size_t>(count);
  if (n > max_units || n > remaining() / 2) {
    pos_ = start;
    return false;
  }
  s.resize(n);
  const auto* p = reinterpret_cast<const uint8_t*>(data_.data() + pos_);
  for (size_t i = 0; i < n; ++i) s[i] = GetU16(p + 2 * i);
  pos_ += 2 * n;
  return true;
}

bool ByteReader::SkipWStr() {
  const size_t start = pos_;
  int32_t count;
  if (!I32(count)) return false;
  if (count <= 0) return true;
  if (static_cast<size_t>(count) > remaining() / 2) {
    pos_ = start;
    return false;
  }
  pos_ += 2 * static_cast<size_t>(count);
  return true;
}

}  // namespace trv
