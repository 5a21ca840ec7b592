#include "mime/stream.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace trv {

namespace {
// New position for a seek over a stream of `size` bytes, or -1 when it would
// fall before the start.
int64_t SeekTarget(int64_t offset, SeekOrigin origin, uint64_t pos, uint64_t size) {
  int64_t base = 0;
  if (origin == SeekOrigin::kCurrent) base = static_cast<int64_t>(pos);
  if (origin == SeekOrigin::kEnd) base = static_cast<int64_t>(size);
  const int64_t target = base + offset;
  return target < 0 ? -1 : target;
}

// Read and Seek over bytes held in memory.
size_t CopyOut(std::string_view data, size_t* pos, void* buf, size_t size) {
  const size_t n = *pos < data.size() ? std::min(size, data.size() - *pos) : 0;
  if (n) std::memcpy(buf, data.data() + *pos, n);
  *pos += n;
  return n;
}

Result SeekIn(std::string_view data, size_t* pos, int64_t offset, SeekOrigin origin) {
  const int64_t t = SeekTarget(offset, origin, *pos, data.size());
  if (t < 0) return rc::kInvalidArg;
  *pos = static_cast<size_t>(t);
  return rc::kOk;
}
}  // namespace

Result ReadAll(CXmStream& in, std::string* out) {
  char buf[8192];
  for (;;) {
    size_t got = 0;
    if (Result r = in.Read(buf, sizeof buf, &got); r.failed()) return r;
    if (got == 0) return rc::kOk;
    out->append(buf, got);
  }
}

Result CopyStream(CXmStream& in, CXmStream& out, size_t block) {
  std::string buf(std::max<size_t>(block, 1), '\0');
  for (;;) {
    size_t got = 0;
    if (Result r = in.Read(buf.data(), buf.size(), &got); r.failed()) return r;
    if (got == 0) return rc::kOk;
    if (Result r = out.Write(buf.data(), got); r.failed()) return r;
  }
}

// --- CXmMemoryStream

Result CXmMemoryStream::Read(void* buf, size_t size, size_t* got) {
  *got = CopyOut(data_, &pos_, buf, size);
  return rc::kOk;
}

Result CXmMemoryStream::Write(const void* buf, size_t size) {
  if (pos_ > data_.size()) data_.resize(pos_, '\0');
  const size_t overlap = std::min(size, data_.size() - pos_);
  data_.replace(pos_, overlap, static_cast<const char*>(buf), size);
  pos_ += size;
  return rc::kOk;
}

Result CXmMemoryStream::Seek(int64_t offset, SeekOrigin origin) { return SeekIn(data_, &pos_, offset, origin); }

std::string CXmMemoryStream::Take() {
  std::string out = std::move(data_);
  data_.clear();
  pos_ = 0;
  return out;
}

// --- CXmViewStream

Result CXmViewStream::Read(void* buf, size_t size, size_t* got) {
  *got = CopyOut(data_, &pos_, buf, size);
  return rc::kOk;
}

Result CXmViewStream::Write(const void*, size_t) { return rc::kNotImplemented; }

Result CXmViewStream::Seek(int64_t offset, SeekOrigin origin) { return SeekIn(data_, &pos_, offset, origin); }

// --- CXmCountingStream

Result CXmCountingStream::Read(void*, size_t, size_t* got) {
  *got = 0;
  return rc::kOk;
}

Result CXmCountingStream::Write(const void*, size_t size) {
  count_ += size;
  return rc::kOk;
}

Result CXmCountingStream::Seek(int64_t, SeekOrigin) { return rc::kNotImplemented; }

// --- CXmFileStream

CXmFileStream::~CXmFileStream() { Close().Ignore(); }

Result CXmFileStream::Open(const std::filesystem::path& path, Mode mode) {
  if (Result r = Close(); r.failed()) return r;
  const char* how = mode == kRead ? "rb" : mode == kCreate ? "w+b" : "r+b";
  file_ = std::fopen(path.c_str(), how);
  return file_ ? rc::kOk : ResultFromErrno(errno);
}

Result CXmFileStream::Close() {
  if (!file_) return rc::kOk;
  const int rv = std::fclose(file_);
  file_ = nullptr;
  return rv == 0 ? rc::kOk : ResultFromErrno(errno);
}

Result CXmFileStream::Read(void* buf, size_t size, size_t* got) {
  *got = 0;
  if (!file_) return rc::kInvalidArg;
  *got = std::fread(buf, 1, size, file_);
  if (*got < size && std::ferror(file_)) {
    std::clearerr(file_);
    return ResultFromErrno(errno ? errno : EIO);
  }
  return rc::kOk;
}

Result CXmFileStream::Write(const void* buf, size_t size) {
  if (!file_) return rc::kInvalidArg;
  if (size && std::fwrite(buf, 1, size, file_) != size) {
    std::clearerr(file_);
    return ResultFromErrno(errno ? errno : EIO);
  }
  return rc::kOk;
}

Result CXmFileStream::Seek(int64_t offset, SeekOrigin origin) {
  if (!file_) return rc::kInvalidArg;
  const int64_t t = SeekTarget(offset, origin, Position(), Size());
  if (t < 0) return rc::kInvalidArg;
  if (fseeko(file_, static_cast<off_t>(t), SEEK_SET) != 0) return ResultFromErrno(errno);
  return rc::kOk;
}

uint64_t CXmFileStream::Position() const {
  if (!file_) return 0;
  const off_t p = ftello(file_);
  return p < 0 ? 0 : static_cast<uint64_t>(p);
}

uint64_t CXmFileStream::Size() const {
  if (!file_) return 0;
  const off_t here = ftello(file_);
  if (fseeko(file_, 0, SEEK_END) != 0) return 0;
  const off_t end = ftello(file_);
  fseeko(file_, here, SEEK_SET);
  return end < 0 ? 0 : static_cast<uint64_t>(end);
}

}  // namespace trv
