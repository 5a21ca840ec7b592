// CXmMessageSource: random access to the stored text of one message. The part
// tree records each single part's body as a position in its source and reads
// that range again when the body is decoded, so a parsed message never holds
// an attachment in memory. A memory buffer, a file and a seekable CXmStream
// implement it here; a folder file's message is adapted by its caller.
//
// Threads: a source is used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "base/result.h"
#include "mime/stream.h"

namespace trv {

class CXmMessageSource {
 public:
  virtual ~CXmMessageSource() = default;

  // Bytes of the whole message.
  virtual uint64_t Size() const = 0;
  // Reads up to `size` bytes from `offset`. `*got` may be less than `size`;
  // it is 0 only at or past the end of the message.
  virtual Result ReadAt(uint64_t offset, void* buf, size_t size, size_t* got) = 0;
};

// Bytes held in memory: owned, or borrowed from a caller who keeps them alive.
class CXmMemorySource final : public CXmMessageSource {
 public:
  explicit CXmMemorySource(std::string text) : owned_(std::move(text)), data_(owned_) {}
  static std::shared_ptr<CXmMemorySource> Borrow(std::string_view data);

  uint64_t Size() const override { return data_.size(); }
  Result ReadAt(uint64_t offset, void* buf, size_t size, size_t* got) override;
  std::string_view data() const { return data_; }

 private:
  struct BorrowTag {};
  CXmMemorySource(BorrowTag, std::string_view data) : data_(data) {}
  std::string owned_;
  std::string_view data_;
};

// A file read with pread; the size is taken when it is opened.
class CXmFileSource final : public CXmMessageSource {
 public:
  CXmFileSource() = default;
  ~CXmFileSource() override;
  CXmFileSource(const CXmFileSource&) = delete;
  CXmFileSource& operator=(const CXmFileSource&) = delete;

  // The cause of a failure comes back as the code of the errno value.
  Result Open(const std::filesystem::path& path);
  uint64_t Size() const override { return size_; }
  Result ReadAt(uint64_t offset, void* buf, size_t size, size_t* got) override;

 private:
  int fd_ = -1;
  uint64_t size_ = 0;
};

// A seekable CXmStream the caller keeps alive (a container stream, a file
// stream); each read seeks first.
class CXmStreamSource final : public CXmMessageSource {
 public:
  explicit CXmStreamSource(CXmStream& stream) : stream_(stream) {}
  uint64_t Size() const override { return stream_.Size(); }
  Result ReadAt(uint64_t offset, void* buf, size_t size, size_t* got) override;

 private:
  CXmStream& stream_;
};

// A window [offset, offset + length) of another source, seen from 0 (a
// message attached inside another message).
class CXmRangeSource final : public CXmMessageSource {
 public:
  CXmRangeSource(std::shared_ptr<CXmMessageSource> base, uint64_t offset, uint64_t length);
  uint64_t Size() const override { return length_; }
  Result ReadAt(uint64_t offset, void* buf, size_t size, size_t* got) override;

 private:
  std::shared_ptr<CXmMessageSource> base_;
  uint64_t offset_;
  uint64_t length_;
};

// Reads a range of a source front to back as a CXmStream (what the line reader
// and the decoders consume). Seek and Position are relative to the range.
class CXmSourceStream final : public CXmStream {
 public:
  CXmSourceStream(CXmMessageSource& source, uint64_t offset, uint64_t length);
  explicit CXmSourceStream(CXmMessageSource& source) : CXmSourceStream(source, 0, source.Size()) {}

  Result Read(void* buf, size_t size, size_t* got) override;
  Result Write(const void* buf, size_t size) override;
  using CXmStream::Write;
  Result Seek(int64_t offset, SeekOrigin origin) override;
  uint64_t Position() const override { return pos_; }
  uint64_t Size() const override { return length_; }

 private:
  CXmMessageSource& source_;
  uint64_t offset_;
  uint64_t length_;
  uint64_t pos_ = 0;
};

// Copies `length` bytes from `offset` of `source` to `out` in blocks.
Result CopySourceRange(CXmMessageSource& source, uint64_t offset, uint64_t length, CXmStream& out);

}  // namespace trv
