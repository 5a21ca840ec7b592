// CXmLineReader: a buffered line reader over a CXmStream, for the header
// reader and the part tree.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/result.h"
#include "mime/stream.h"

namespace trv {

// Lines longer than this are handed out in pieces of this size.
inline constexpr size_t kMaxLineLength = 64 * 1024;
inline constexpr size_t kDefaultLineBuffer = 1024;

class CXmLineReader {
 public:
  // REQUIRES: `in` outlives the reader. Reading starts at the stream's
  // current position; the reader reads ahead, so the stream's own position
  // is meaningless while the reader is in use.
  explicit CXmLineReader(CXmStream& in, size_t buffer_size = kDefaultLineBuffer,
                         size_t max_line = kMaxLineLength);

  // Replaces *line with the next line including its line end (a line ends
  // after "\n"; CR LF is the message form). The last line of the stream may
  // lack a line end; a line longer than max_line comes in several pieces, each
  // but the last without line end. *line is empty only at the end.
  Result ReadLine(std::string* line);

  // Raw bytes from the same position (for bodies read in blocks).
  Result Read(void* buf, size_t size, size_t* got);

  bool AtEnd();
  // Bytes handed out so far.
  uint64_t consumed() const { return consumed_; }
  CXmStream& stream() { return in_; }

 private:
  Result Fill();

  CXmStream& in_;
  std::string buf_;
  size_t begin_ = 0;
  size_t end_ = 0;
  size_t max_line_;
  bool eof_ = false;
  uint64_t consumed_ = 0;
};

}  // namespace trv
