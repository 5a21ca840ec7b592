// LineSource: input read in blocks and handed out line by line, for mbox
// files, message files and standard input alike: nothing needs to fit in
// memory but the longest line. Unlike CXmLineReader (line_reader.h) lines
// are never cut, and the views point into the buffer (no copy per line).
//
// Threads: one thread at a time per object.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "base/result.h"

namespace trv {

// Reads up to `size` bytes; `*got` 0 at the end of the input.
using ReadFn = std::function<Result(char* buf, size_t size, size_t* got)>;

class LineSource {
 public:
  static constexpr size_t kBlock = 1 << 20;

  explicit LineSource(ReadFn read, size_t block = kBlock);
  // Reads from an open file descriptor (not closed here; it must outlive
  // the source). Retries after EINTR; other errors come back as their code.
  static ReadFn FromFd(int fd);

  // Up to `n` bytes from the current position, without consuming them
  // (fewer at the end of the input).
  Result Peek(size_t n, std::string_view* head);
  // The next line with its "\n"; the last line of the input may lack it.
  // `*got` is false at the end. The view stays valid until the next call.
  Result NextLine(std::string_view* line, bool* got);
  // Everything not read yet.
  Result ReadRest(std::string* out);

  // The number of the line NextLine returned last (the first is 1).
  uint64_t line_number() const { return line_; }

 private:
  // Reads one more block at the end of the buffer; false at the end.
  Result ReadMore(bool* more);

  ReadFn read_;
  size_t block_;
  std::string buf_;
  size_t pos_ = 0;
  bool eof_ = false;
  uint64_t line_ = 0;
};

}  // namespace trv
