// Transfer-encoding filters: streams that encode or decode what is written to
// them and write the result through to another stream. Each is made with a
// line width (76 for everything the system writes) and a work buffer size;
// output is handed on whenever the work buffer fills and at Finish().
//
// Usage: write the data in pieces of any size (the output does not depend on
// where the pieces are cut), then call Finish() once; it writes what was held
// back (a partial base64 group, a pending "=" sequence) and must be called
// before the output is used. Writing after Finish() fails with kFail. The
// filters cannot read or seek (kNotImplemented). Position() and Size() count
// the bytes written into the filter.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "base/result.h"
#include "mime/stream.h"

namespace trv {

inline constexpr int kDefaultLineWidth = 76;
inline constexpr size_t kDefaultFilterBuffer = 1024;

class CXmFilterStream : public CXmStream {
 public:
  CXmFilterStream(CXmStream& next, size_t buffer_size);

  Result Read(void* buf, size_t size, size_t* got) override;
  Result Write(const void* buf, size_t size) final;
  using CXmStream::Write;
  Result Seek(int64_t offset, SeekOrigin origin) override;
  uint64_t Position() const override { return written_; }
  uint64_t Size() const override { return written_; }

  Result Finish();

  // False when a decoder met input it had to skip or keep as it stood
  // (garbage in base64, a malformed "=" sequence in quoted-printable).
  bool clean() const { return clean_; }

 protected:
  virtual void Filter(const unsigned char* p, size_t n) = 0;  // appends to out_
  virtual void End() = 0;                                     // appends the held-back tail
  Result Drain(bool force);

  std::string out_;
  bool clean_ = true;

 private:
  CXmStream& next_;
  size_t buffer_size_;
  uint64_t written_ = 0;
  bool finished_ = false;
};

// Copies bytes unchanged (7bit, 8bit, Binary).
class CXmCopyFilter final : public CXmFilterStream {
 public:
  explicit CXmCopyFilter(CXmStream& next, size_t buffer_size = kDefaultFilterBuffer)
      : CXmFilterStream(next, buffer_size) {}

 protected:
  void Filter(const unsigned char* p, size_t n) override;
  void End() override {}
};

// Turns every bare LF, and every CR not followed by LF, into CR LF; CR LF
// stays. The parsers of this layer expect the message form with CR LF, so text
// from files written with Unix line ends (.eml, mbox) goes through this first.
class CXmLineEndFilter final : public CXmFilterStream {
 public:
  explicit CXmLineEndFilter(CXmStream& next, size_t buffer_size = kDefaultFilterBuffer)
      : CXmFilterStream(next, buffer_size) {}

 protected:
  void Filter(const unsigned char* p, size_t n) override;
  void End() override;

 private:
  bool after_cr_ = false;
};

// Base64 (RFC 2045 6.8): lines of `line_width` characters separated by
// "\r\n", no line end after the last line; the same text as
// Base64Encode(all, line_width).
class CXmBase64Encoder final : public CXmFilterStream {
 public:
  explicit CXmBase64Encoder(CXmStream& next, int line_width = kDefaultLineWidth,
                            size_t buffer_size = kDefaultFilterBuffer);

 protected:
  void Filter(const unsigned char* p, size_t n) override;
  void End() override;

 private:
  void Put(char c);
  int line_width_;
  int column_ = 0;
  unsigned char held_[2] = {0, 0};
  int held_count_ = 0;
};

// Decodes base64, skipping line ends, blanks and (marking the input unclean)
// any other character outside the alphabet. "=" ends a group: its partial
// bytes are written and decoding goes on after the padding, so concatenated
// encodings decode whole. A lone symbol left over is dropped (unclean).
class CXmBase64Decoder final : public CXmFilterStream {
 public:
  explicit CXmBase64Decoder(CXmStream& next, int line_width = kDefaultLineWidth,
                            size_t buffer_size = kDefaultFilterBuffer);

 protected:
  void Filter(const unsigned char* p, size_t n) override;
  void End() override;

 private:
  void EndGroup();
  uint32_t acc_ = 0;
  int count_ = 0;
};

// Quoted-printable with the byte rule of QpEncodeBytes, broken into lines of
// at most `line_width` characters with the soft break "=\r\n" (the "=" counts
// in the width). An escape is never split: the break goes before it. A space
// that ends the data is written "=20" so that no line ends in white space.
class CXmQpEncoder final : public CXmFilterStream {
 public:
  explicit CXmQpEncoder(CXmStream& next, int line_width = kDefaultLineWidth,
                        size_t buffer_size = kDefaultFilterBuffer);

 protected:
  void Filter(const unsigned char* p, size_t n) override;
  void End() override;

 private:
  void PutToken(const char* token, int length);
  int line_width_;
  int column_ = 0;
  bool space_held_ = false;
};

// Decodes quoted-printable (RFC 2045 6.7): "=" and two hexadecimal digits
// (either case) give a byte; "=" at the end of a line (optionally followed by
// blanks) is a soft break and vanishes; blanks at the end of a line are
// dropped. A malformed "=" sequence, and a lone "=" at the end, is kept as it
// stands (unclean). Line ends (CR LF, or a bare LF or CR) are kept.
class CXmQpDecoder final : public CXmFilterStream {
 public:
  explicit CXmQpDecoder(CXmStream& next, int line_width = kDefaultLineWidth,
                        size_t buffer_size = kDefaultFilterBuffer);

 protected:
  void Filter(const unsigned char* p, size_t n) override;
  void End() override;

 private:
  enum State { kText, kEquals, kHex, kSoftCr, kEqualsBlank };
  void Step(unsigned char c);
  void Put(char c);
  void PutBlanks();
  State state_ = kText;
  size_t write_ = 0;        // next byte of out_ to write
  unsigned char first_hex_ = 0;
  std::string blanks_;      // blanks held until it is known whether a line end follows
};

}  // namespace trv
