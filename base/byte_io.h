// Little-endian binary reading and writing over byte buffers, and the
// length-prefixed wide string (a signed 32-bit count of UTF-16 units, then the
// units, no terminator; a count of 0 or less has no units) used by the storage
// index file and the message index.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "base/wide_string.h"

namespace trv {

inline void PutU16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}
inline void PutU32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
inline void PutU64(uint8_t* p, uint64_t v) {
  for (int i = 0; i < 8; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
inline uint16_t GetU16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
inline uint32_t GetU32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
inline uint64_t GetU64(const uint8_t* p) {
  uint64_t v = 0;
  for (int i = 7; i >= 0; --i) v = v << 8 | p[i];
  return v;
}

// Appends little-endian values to a byte string.
class ByteWriter {
 public:
  explicit ByteWriter(std::string* out) : out_(out) {}

  void U8(uint8_t v) { out_->push_back(static_cast<char>(v)); }
  void U16(uint16_t v) { uint8_t b[2]; PutU16(b, v); Bytes(b, 2); }
  void U32(uint32_t v) { uint8_t b[4]; PutU32(b, v); Bytes(b, 4); }
  void I32(int32_t v) { U32(static_cast<uint32_t>(v)); }
  void U64(uint64_t v) { uint8_t b[8]; PutU64(b, v); Bytes(b, 8); }
  void F64(double v) { uint64_t u; std::memcpy(&u, &v, 8); U64(u); }
  void Bytes(const void* p, size_t n) { out_->append(static_cast<const char*>(p), n); }
  void Bytes(std::string_view s) { out_->append(s); }
  // Length-prefixed wide string.
  void WStr(WStringView s);

  size_t size() const { return out_->size(); }

 private:
  std::string* out_;
};

// Reads little-endian values from a byte buffer. Every read checks the bounds
// first; a failed read leaves the position where it was and returns false.
class ByteReader {
 public:
  explicit ByteReader(std::string_view data) : data_(data) {}

  bool U8(uint8_t& v);
  bool U16(uint16_t& v);
  bool U32(uint32_t& v);
  bool I32(int32_t& v);
  bool U64(uint64_t& v);
  bool F64(double& v);
  bool Bytes(void* p, size_t n);
  bool Skip(size_t n);
  // Length-prefixed wide string; fails when the count exceeds max_units or
  // the bytes left, so a damaged count never allocates beyond the buffer.
  bool WStr(WString& s, size_t max_units = SIZE_MAX);
  // Skips a length-prefixed wide string without decoding it.
  bool SkipWStr();

  size_t pos() const { return pos_; }
  size_t remaining() const { return data_.size() - pos_; }
  bool Seek(size_t pos) {
    if (pos > data_.size()) return false;
    pos_ = pos;
    return true;
  }

 private:
  std::string_view data_;
  size_t pos_ = 0;
};

// Encoded size of a length-prefixed wide string.
inline size_t WStrEncodedSize(WStringView s) { return 4 + 2 * s.size(); }

}  // namespace trv
