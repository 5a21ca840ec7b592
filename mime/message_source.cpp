#include "mime/message_source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace trv {

namespace {
constexpr size_t kCopyBlock = 64 * 1024;
}  // namespace

std::shared_ptr<CXmMemorySource> CXmMemorySource::Borrow(std::string_view data) {
  return std::shared_ptr<CXmMemorySource>(new CXmMemorySource(BorrowTag{}, data));
}

Result CXmMemorySource::ReadAt(uint64_t offset, void* buf, size_t size, size_t* got) {
  *got = 0;
  if (offset >= data_.size()) return rc::kOk;
  *got = static_cast<size_t>(std::min<uint64_t>(size, data_.size() - offset));
  std::memcpy(buf, data_.data() + offset, *got);
  return rc::kOk;
}

CXmFileSource::~CXmFileSource() {
  if (fd_ >= 0) ::close(fd_);
}

Result CXmFileSource::Open(const std::filesystem::path& path) {
  if (fd_ >= 0) ::close(fd_);
  fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd_ < 0) return ResultFromErrno(errno);
  struct stat st {};
  if (::fstat(fd_, &st) != 0) return ResultFromErrno(errno);
  size_ = static_cast<uint64_t>(st.st_size);
  return rc::kOk;
}

Result CXmFileSource::ReadAt(uint64_t offset, void* buf, size_t size, size_t* got) {
  *got = 0;
  if (fd_ < 0) return rc::kInvalidArg;
  char* p = static_cast<char*>(buf);
  while (*got < size) {
    const ssize_t n = ::pread(fd_, p + *got, size - *got, static_cast<off_t>(offset + *got));
    if (n < 0) {
      if (errno == EINTR) continue;
      return ResultFromErrno(errno);
    }
    if (n == 0) break;
    *got += static_cast<size_t>(n);
  }
  return rc::kOk;
}

Result CXmStreamSource::ReadAt(uint64_t offset, void* buf, size_t size, size_t* got) {
  *got = 0;
  if (Result r = stream_.Seek(static_cast<int64_t>(offset), SeekOrigin::kBegin); r.failed()) return r;
  char* p = static_cast<char*>(buf);
  while (*got < size) {
    size_t n = 0;
    if (Result r = stream_.Read(p + *got, size - *got, &n); r.failed()) return r;
    if (n == 0) break;
    *got += n;
  }
  return rc::kOk;
}

CXmRangeSource::CXmRangeSource(std::shared_ptr<CXmMessageSource> base, uint64_t offset, uint64_t length)
    : base_(std::move(base)), offset_(offset), length_(length) {
  const uint64_t size = base_->Size();
  offset_ = std::min(offset_, size);
  length_ = std::min(length_, size - offset_);
}

Result CXmRangeSource::ReadAt(uint64_t offset, void* buf, size_t size, size_t* got) {
  *got = 0;
  if (offset >= length_) return rc::kOk;
  return base_->ReadAt(offset_ + offset, buf, static_cast<size_t>(std::min<uint64_t>(size, length_ - offset)), got);
}

CXmSourceStream::CXmSourceStream(CXmMessageSource& source, uint64_t offset, uint64_t length)
    : source_(source), offset_(offset), length_(length) {
  const uint64_t size = source.Size();
  offset_ = std::min(offset_, size);
  length_ = std::min(length_, size - offset_);
}

Result CXmSourceStream::Read(void* buf, size_t size, size_t* got) {
  *got = 0;
  if (pos_ >= length_) return rc::kOk;
  const size_t want = static_cast<size_t>(std::min<uint64_t>(size, length_ - pos_));
  if (Result r = source_.ReadAt(offset_ + pos_, buf, want, got); r.failed()) return r;
  pos_ += *got;
  return rc::kOk;
}

Result CXmSourceStream::Write(const void*, size_t) { return rc::kNotImplemented; }

Result CXmSourceStream::Seek(int64_t offset, SeekOrigin origin) {
  int64_t base = 0;
  if (origin == SeekOrigin::kCurrent) base = static_cast<int64_t>(pos_);
  if (origin == SeekOrigin::kEnd) base = static_cast<int64_t>(length_);
  if (base + offset < 0) return rc::kInvalidArg;
  pos_ = static_cast<uint64_t>(base + offset);
  return rc::kOk;
}

Result CopySourceRange(CXmMessageSource& source, uint64_t offset, uint64_t length, CXmStream& out) {
  std::string buf(static_cast<size_t>(std::min<uint64_t>(length, kCopyBlock)), '\0');
  while (length > 0) {
    size_t got = 0;
    const size_t want = static_cast<size_t>(std::min<uint64_t>(length, buf.size()));
    if (Result r = source.ReadAt(offset, buf.data(), want, &got); r.failed()) return r;
    if (got == 0) return rc::kReadFault;  // the range runs past the stored message
    if (Result r = out.Write(buf.data(), got); r.failed()) return r;
    offset += got;
    length -= got;
  }
  return rc::kOk;
}

}  // namespace trv
