#include "mime/codec_streams.h"

#include "mime/base64_table.h"
#include "base/hex_digits.h"
#include "mime/quoted_printable.h"

namespace trv {

namespace {
using b64::kAlphabet;
constexpr const b64::DecodeTable& kB64Table = b64::kDecode;

// Bytes with a meaning of their own to the quoted-printable decoder.
struct QpSpecial {
  bool v[256];
  constexpr QpSpecial() : v() {
    for (unsigned char c : {'=', ' ', '\t', '\r', '\n'}) v[c] = true;
  }
};
constexpr QpSpecial kQpSpecial;
}  // namespace

// --- CXmFilterStream

CXmFilterStream::CXmFilterStream(CXmStream& next, size_t buffer_size)
    : next_(next), buffer_size_(buffer_size ? buffer_size : 1) {}

Result CXmFilterStream::Read(void*, size_t, size_t* got) {
  *got = 0;
  return rc::kNotImplemented;
}

Result CXmFilterStream::Seek(int64_t, SeekOrigin) { return rc::kNotImplemented; }

Result CXmFilterStream::Write(const void* buf, size_t size) {
  if (finished_) return rc::kFail;
  Filter(static_cast<const unsigned char*>(buf), size);
  written_ += size;
  return Drain(false);
}

Result CXmFilterStream::Drain(bool force) {
  if (out_.empty() || (!force && out_.size() < buffer_size_)) return rc::kOk;
  Result r = next_.Write(out_);
  out_.clear();
  return r;
}

Result CXmFilterStream::Finish() {
  if (finished_) return rc::kOk;
  finished_ = true;
  End();
  return Drain(true);
}

// --- CXmCopyFilter

void CXmCopyFilter::Filter(const unsigned char* p, size_t n) {
  out_.append(reinterpret_cast<const char*>(p), n);
}

// --- CXmLineEndFilter

void CXmLineEndFilter::Filter(const unsigned char* p, size_t n) {
  out_.reserve(out_.size() + n + n / 32);
  for (size_t i = 0; i < n; ++i) {
    const char c = static_cast<char>(p[i]);
    if (after_cr_ && c != '\n') out_.push_back('\n');
    if (c == '\n' && !after_cr_) out_.push_back('\r');
    out_.push_back(c);
    after_cr_ = c == '\r';
  }
}

void CXmLineEndFilter::End() {
  if (after_cr_) out_.push_back('\n');
  after_cr_ = false;
}

// --- CXmBase64Encoder

CXmBase64Encoder::CXmBase64Encoder(CXmStream& next, int line_width, size_t buffer_size)
    : CXmFilterStream(next, buffer_size), line_width_(line_width) {}

void CXmBase64Encoder::Put(char c) {
  if (line_width_ > 0 && column_ == line_width_) {
    out_ += "\r\n";
    column_ = 0;
  }
  out_.push_back(c);
  ++column_;
}

void CXmBase64Encoder::Filter(const unsigned char* p, size_t n) {
  size_t i = 0;
  while (held_count_ > 0 && held_count_ < 3 && i < n) {
    if (held_count_ == 2) {
      const uint32_t v = uint32_t(held_[0]) << 16 | uint32_t(held_[1]) << 8 | p[i++];
      Put(kAlphabet[v >> 18]);
      Put(kAlphabet[(v >> 12) & 63]);
      Put(kAlphabet[(v >> 6) & 63]);
      Put(kAlphabet[v & 63]);
      held_count_ = 0;
    } else {
      held_[held_count_++] = p[i++];
    }
  }
  out_.reserve(out_.size() + (n - i) / 3 * 4 + (n - i) / 38 + 8);
  for (; i + 3 <= n; i += 3) {
    const uint32_t v = uint32_t(p[i]) << 16 | uint32_t(p[i + 1]) << 8 | p[i + 2];
    Put(kAlphabet[v >> 18]);
    Put(kAlphabet[(v >> 12) & 63]);
    Put(kAlphabet[(v >> 6) & 63]);
    Put(kAlphabet[v & 63]);
  }
  for (; i < n; ++i) held_[held_count_++] = p[i];
}

void CXmBase64Encoder::End() {
  if (held_count_ == 0) return;
  uint32_t v = uint32_t(held_[0]) << 16;
  if (held_count_ == 2) v |= uint32_t(held_[1]) << 8;
  Put(kAlphabet[v >> 18]);
  Put(kAlphabet[(v >> 12) & 63]);
  Put(held_count_ == 2 ? kAlphabet[(v >> 6) & 63] : '=');
  Put('=');
  held_count_ = 0;
}

// --- CXmBase64Decoder

CXmBase64Decoder::CXmBase64Decoder(CXmStream& next, int, size_t buffer_size)
    : CXmFilterStream(next, buffer_size) {}

void CXmBase64Decoder::EndGroup() {
  if (count_ == 2) {
    out_.push_back(static_cast<char>(acc_ >> 4));
  } else if (count_ == 3) {
    out_.push_back(static_cast<char>(acc_ >> 10));
    out_.push_back(static_cast<char>(acc_ >> 2));
  } else if (count_ == 1) {
    clean_ = false;
  }
  acc_ = 0;
  count_ = 0;
}

void CXmBase64Decoder::Filter(const unsigned char* p, size_t n) {
  const size_t start = out_.size();
  out_.resize(start + n / 4 * 3 + 3);
  char* o = out_.data() + start;
  uint32_t acc = acc_;
  int count = count_;
  for (size_t i = 0; i < n; ++i) {
    // Whole groups of four symbols at once while the input is clean.
    while (count == 0 && i + 4 <= n) {
      const int a = kB64Table.v[p[i]];
      const int b = kB64Table.v[p[i + 1]];
      const int c = kB64Table.v[p[i + 2]];
      const int d = kB64Table.v[p[i + 3]];
      if ((a | b | c | d) < 0) break;
      const uint32_t v = uint32_t(a) << 18 | uint32_t(b) << 12 | uint32_t(c) << 6 | uint32_t(d);
      o[0] = static_cast<char>(v >> 16);
      o[1] = static_cast<char>(v >> 8);
      o[2] = static_cast<char>(v);
      o += 3;
      i += 4;
    }
    if (i >= n) break;
    const int v = kB64Table.v[p[i]];
    if (v >= 0) {
      acc = acc << 6 | static_cast<uint32_t>(v);
      if (++count == 4) {
        o[0] = static_cast<char>(acc >> 16);
        o[1] = static_cast<char>(acc >> 8);
        o[2] = static_cast<char>(acc);
        o += 3;
        acc = 0;
        count = 0;
      }
    } else if (v == b64::kPadding) {
      if (count) {
        out_.resize(static_cast<size_t>(o - out_.data()));
        acc_ = acc;
        count_ = count;
        EndGroup();
        const size_t at = out_.size();
        out_.resize(at + (n - i) / 4 * 3 + 3);
        o = out_.data() + at;
        acc = 0;
        count = 0;
      }
    } else if (v == b64::kOther) {
      clean_ = false;
    }
  }
  out_.resize(static_cast<size_t>(o - out_.data()));
  acc_ = acc;
  count_ = count;
}

void CXmBase64Decoder::End() { EndGroup(); }

// --- CXmQpEncoder

CXmQpEncoder::CXmQpEncoder(CXmStream& next, int line_width, size_t buffer_size)
    : CXmFilterStream(next, buffer_size), line_width_(line_width) {}

void CXmQpEncoder::PutToken(const char* token, int length) {
  if (line_width_ > 1 && column_ + length > line_width_ - 1) {
    out_ += "=\r\n";
    column_ = 0;
  }
  out_.append(token, static_cast<size_t>(length));
  column_ += length;
}

void CXmQpEncoder::Filter(const unsigned char* p, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (space_held_) {
      PutToken(" ", 1);
      space_held_ = false;
    }
    const unsigned char b = p[i];
    if (b == ' ') {
      space_held_ = true;
    } else if (QpEncodedLength(b) == 1) {
      const char c = static_cast<char>(b);
      PutToken(&c, 1);
    } else {
      const char esc[3] = {'=', kUpperHexDigits[b >> 4], kUpperHexDigits[b & 15]};
      PutToken(esc, 3);
    }
  }
}

void CXmQpEncoder::End() {
  if (space_held_) PutToken("=20", 3);
  space_held_ = false;
}

// --- CXmQpDecoder
//
// Filter() sizes out_ once for the worst case of the piece (every input byte
// plus the held blanks and a held "=X"), writes through Put() and trims at
// the end, so the hot loop does no allocation.

CXmQpDecoder::CXmQpDecoder(CXmStream& next, int, size_t buffer_size)
    : CXmFilterStream(next, buffer_size) {}

inline void CXmQpDecoder::Put(char c) { out_[write_++] = c; }

void CXmQpDecoder::PutBlanks() {
  for (char b : blanks_) Put(b);
  blanks_.clear();
}

void CXmQpDecoder::Step(unsigned char c) {
  switch (state_) {
    case kText:
      if (c == ' ' || c == '\t') {
        blanks_.push_back(static_cast<char>(c));
      } else if (c == '\r' || c == '\n') {
        blanks_.clear();  // blanks before a line end were added in transport
        Put(static_cast<char>(c));
      } else {
        PutBlanks();
        if (c == '=') {
          state_ = kEquals;
        } else {
          Put(static_cast<char>(c));
        }
      }
      return;
    case kEquals:
      if (HexDigitValue(c) >= 0) {
        first_hex_ = c;
        state_ = kHex;
      } else if (c == '\r') {
        state_ = kSoftCr;
      } else if (c == '\n') {
        state_ = kText;
      } else if (c == ' ' || c == '\t') {
        blanks_.push_back(static_cast<char>(c));
        state_ = kEqualsBlank;
      } else {
        clean_ = false;
        Put('=');
        state_ = kText;
        Step(c);
      }
      return;
    case kHex:
      state_ = kText;
      if (HexDigitValue(c) >= 0) {
        Put(static_cast<char>(HexDigitValue(first_hex_) << 4 | HexDigitValue(c)));
      } else {
        clean_ = false;
        Put('=');
        Put(static_cast<char>(first_hex_));
        Step(c);
      }
      return;
    case kSoftCr:
      state_ = kText;
      if (c != '\n') Step(c);  // "=" CR without LF: still a soft break
      return;
    case kEqualsBlank:
      if (c == ' ' || c == '\t') {
        blanks_.push_back(static_cast<char>(c));
      } else if (c == '\r' || c == '\n') {
        blanks_.clear();  // "=" with blanks added in transport: a soft break
        state_ = c == '\r' ? kSoftCr : kText;
      } else {
        clean_ = false;
        Put('=');
        state_ = kText;
        Step(c);  // the held blanks go out before c
      }
      return;
  }
}

void CXmQpDecoder::Filter(const unsigned char* p, size_t n) {
  write_ = out_.size();
  out_.resize(write_ + n + blanks_.size() + 2);
  size_t i = 0;
  while (i < n) {
    if (state_ != kText || !blanks_.empty()) {
      Step(p[i++]);
      continue;
    }
    // The common cases inline with a local write pointer; anything unusual
    // (a line end after blanks, a malformed or cut "=") goes through Step.
    char* o = out_.data() + write_;
    while (i < n) {
      const unsigned char c = p[i];
      if (!kQpSpecial.v[c]) {
        *o++ = static_cast<char>(c);
        ++i;
      } else if (c == '=' && i + 2 < n) {
        const int hi = HexDigitValue(p[i + 1]);
        const int lo = HexDigitValue(p[i + 2]);
        if (hi >= 0 && lo >= 0) {
          *o++ = static_cast<char>(hi << 4 | lo);
        } else if (p[i + 1] != '\r' || p[i + 2] != '\n') {
          break;
        }
        i += 3;  // an escape, or a soft break
      } else if (c == ' ' || c == '\t') {
        // Blanks followed by text in the same piece are data.
        size_t j = i + 1;
        while (j < n && (p[j] == ' ' || p[j] == '\t')) ++j;
        if (j == n || p[j] == '\r' || p[j] == '\n') break;
        while (i < j) *o++ = static_cast<char>(p[i++]);
      } else if (c == '\r' || c == '\n') {
        *o++ = static_cast<char>(c);
        ++i;
      } else {
        break;
      }
    }
    write_ = static_cast<size_t>(o - out_.data());
    if (i < n) Step(p[i++]);
  }
  out_.resize(write_);
}

void CXmQpDecoder::End() {
  write_ = out_.size();
  out_.resize(write_ + 2);
  switch (state_) {
    case kEquals:
      clean_ = false;
      Put('=');
      break;
    case kHex:
      clean_ = false;
      Put('=');
      Put(static_cast<char>(first_hex_));
      break;
    default:
      break;
  }
  out_.resize(write_);
  blanks_.clear();
  state_ = kText;
}

}  // namespace trv
