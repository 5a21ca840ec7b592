#include "mime/line_source.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace trv {

LineSource::LineSource(ReadFn read, size_t block) : read_(std::move(read)), block_(block) {}

ReadFn LineSource::FromFd(int fd) {
  return [fd](char* buf, size_t size, size_t* got) {
    for (;;) {
      const ssize_t n = ::read(fd, buf, size);
      if (n >= 0) {
        *got = static_cast<size_t>(n);
        return rc::kOk;
      }
      if (errno != EINTR) {
        *got = 0;
        return ResultFromErrno(errno);
      }
    }
  };
}

Result LineSource::ReadMore(bool* more) {
  *more = false;
  if (eof_) return rc::kOk;
  if (pos_ > 0) {  // drop what was handed out already
    buf_.erase(0, pos_);
    pos_ = 0;
  }
  const size_t old = buf_.size();
  buf_.resize(old + block_);
  size_t got = 0;
  const Result r = read_(buf_.data() + old, block_, &got);
  buf_.resize(old + got);
  if (r.failed()) return r;
  if (got == 0) eof_ = true;
  *more = got > 0;
  return rc::kOk;
}

Result LineSource::Peek(size_t n, std::string_view* head) {
  bool more = true;
  while (buf_.size() - pos_ < n && more) {
    if (Result r = ReadMore(&more); r.failed()) return r;
  }
  *head = std::string_view(buf_).substr(pos_, n);
  return rc::kOk;
}

Result LineSource::NextLine(std::string_view* line, bool* got) {
  size_t scan = pos_;
  for (;;) {
    const void* nl = std::memchr(buf_.data() + scan, '\n', buf_.size() - scan);
    if (nl != nullptr) {
      const size_t end = static_cast<size_t>(static_cast<const char*>(nl) - buf_.data()) + 1;
      *line = std::string_view(buf_).substr(pos_, end - pos_);
      pos_ = end;
      ++line_;
      *got = true;
      return rc::kOk;
    }
    const size_t scanned = buf_.size() - pos_;
    bool more = false;
    if (Result r = ReadMore(&more); r.failed()) return r;
    if (!more) break;
    scan = pos_ + scanned;
  }
  *got = pos_ < buf_.size();
  if (*got) {
    *line = std::string_view(buf_).substr(pos_);
    pos_ = buf_.size();
    ++line_;
  }
  return rc::kOk;
}

Result LineSource::ReadRest(std::string* out) {
  bool more = true;
  while (more) {
    if (Result r = ReadMore(&more); r.failed()) return r;
  }
  out->assign(buf_, pos_);
  pos_ = buf_.size();
  return rc::kOk;
}

}  // namespace trv
