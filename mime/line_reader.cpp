#include "mime/line_reader.h"

#include <algorithm>
#include <cstring>

namespace trv {

CXmLineReader::CXmLineReader(CXmStream& in, size_t buffer_size, size_t max_line)
    : in_(in), buf_(std::max<size_t>(buffer_size, 16), '\0'), max_line_(std::max<size_t>(max_line, 1)) {}

Result CXmLineReader::Fill() {
  if (eof_) return rc::kOk;
  if (begin_ == end_) begin_ = end_ = 0;
  if (end_ == buf_.size()) {
    std::memmove(buf_.data(), buf_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  size_t got = 0;
  if (Result r = in_.Read(buf_.data() + end_, buf_.size() - end_, &got); r.failed()) return r;
  if (got == 0) eof_ = true;
  end_ += got;
  return rc::kOk;
}

Result CXmLineReader::ReadLine(std::string* line) {
  line->clear();
  for (;;) {
    const size_t room = max_line_ - line->size();
    const size_t avail = std::min(end_ - begin_, room);
    const char* start = buf_.data() + begin_;
    const void* nl = std::memchr(start, '\n', avail);
    const size_t take = nl ? static_cast<size_t>(static_cast<const char*>(nl) - start) + 1 : avail;
    line->append(start, take);
    begin_ += take;
    consumed_ += take;
    if (nl || line->size() >= max_line_) return rc::kOk;
    if (eof_) return rc::kOk;
    if (Result r = Fill(); r.failed()) return r;
    if (eof_ && begin_ == end_) return rc::kOk;
  }
}

Result CXmLineReader::Read(void* buf, size_t size, size_t* got) {
  *got = 0;
  if (begin_ == end_) {
    if (Result r = Fill(); r.failed()) return r;
  }
  const size_t n = std::min(size, end_ - begin_);
  std::memcpy(buf, buf_.data() + begin_, n);
  begin_ += n;
  consumed_ += n;
  *got = n;
  return rc::kOk;
}

bool CXmLineReader::AtEnd() {
  if (begin_ < end_) return false;
  if (Fill().failed()) return true;
  return begin_ == end_;
}

}  // namespace trv
