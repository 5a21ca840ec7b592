// CXmConverter: converts text between a source and a destination character
// set (names as in charset.h). "utf-16" is the internal form: UTF-16
// little-endian without byte-order mark when it appears as bytes.
//
// Every Convert returns true on success. On failure the output still holds the
// text converted as well as possible (see the fallback rules in charset.h),
// unless kConvertStrict (or stream mode 1) asked to stop at the first failure.
// last_error() then tells a character-set failure (0xA0003003) from a stream
// error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/result.h"
#include "base/wide_string.h"
#include "mime/charset/charset.h"
#include "mime/stream.h"
#include "mime/mime_result.h"

namespace trv {

class CXmConverter {
 public:
  CXmConverter();
  CXmConverter(std::string_view src_charset, std::string_view dst_charset);
  virtual ~CXmConverter();

  void SetSrcCharsetName(std::string_view name);
  void SetDstCharsetName(std::string_view name);
  const std::string& src_charset() const { return src_; }
  const std::string& dst_charset() const { return dst_; }

  // 8-bit text in the source set to UTF-16 (the destination is not used).
  bool Convert(std::string_view in, WString* out, uint32_t flags = 0);
  // UTF-16 to 8-bit text in the destination set (the source is not used).
  bool Convert(WStringView in, std::string* out, uint32_t flags = 0);
  // Bytes in the source set to bytes in the destination set; `*out` is
  // replaced.
  bool Convert(const char* in, size_t length, std::string* out, uint32_t flags = 0);
  // Reads `in` to its end in pieces of `buffer_size` bytes and writes the
  // converted bytes to `out`. Mode 0 (reading) replaces what cannot be
  // converted and goes on; mode 1 (writing header text) stops at the first
  // failure.
  bool Convert(CXmStream& in, CXmStream& out, size_t buffer_size, int mode);

  // kOk after a successful Convert, kMimeCharset after a conversion failure,
  // or the stream's code after a read or write error.
  Result last_error() const { return last_error_; }

 private:
  bool Finish(bool ok);

  std::string src_;
  std::string dst_;
  Result last_error_;
};

}  // namespace trv
