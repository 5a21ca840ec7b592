// CXmStream: the byte stream of the message format library. Parsers read
// messages from it (through CXmLineReader), writers and the transfer-encoding
// filters write to it, and the store's container streams are adapted to it.
// Kept deliberately small: read, write, seek, position, size.
//
// Threads: a stream object is used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>

#include "base/result.h"

namespace trv {

enum class SeekOrigin { kBegin, kCurrent, kEnd };

class CXmStream {
 public:
  virtual ~CXmStream() = default;

  // Reads up to `size` bytes into `buf`; `*got` is the count read, 0 only at
  // the end of the stream (or when size is 0).
  virtual Result Read(void* buf, size_t size, size_t* got) = 0;
  // Writes all `size` bytes or fails.
  virtual Result Write(const void* buf, size_t size) = 0;
  // Moves the position; a position before 0 is refused with kInvalidArg.
  // Streams that cannot seek return kNotImplemented.
  virtual Result Seek(int64_t offset, SeekOrigin origin) = 0;
  virtual uint64_t Position() const = 0;
  virtual uint64_t Size() const = 0;

  Result Write(std::string_view bytes) { return Write(bytes.data(), bytes.size()); }
  Result Rewind() { return Seek(0, SeekOrigin::kBegin); }
};

// Reads the rest of `in` and appends it to `out`.
Result ReadAll(CXmStream& in, std::string* out);
// Copies the rest of `in` to `out` in blocks of `block` bytes.
Result CopyStream(CXmStream& in, CXmStream& out, size_t block = 4096);

// A growable in-memory stream. Writing past the end extends it; writing in the
// middle overwrites.
class CXmMemoryStream final : public CXmStream {
 public:
  CXmMemoryStream() = default;
  explicit CXmMemoryStream(std::string data) : data_(std::move(data)) {}

  Result Read(void* buf, size_t size, size_t* got) override;
  Result Write(const void* buf, size_t size) override;
  using CXmStream::Write;
  Result Seek(int64_t offset, SeekOrigin origin) override;
  uint64_t Position() const override { return pos_; }
  uint64_t Size() const override { return data_.size(); }

  const std::string& data() const { return data_; }
  std::string Take();  // moves the contents out and empties the stream

 private:
  std::string data_;
  size_t pos_ = 0;
};

// A read-only stream over bytes the caller keeps alive; Write fails.
class CXmViewStream final : public CXmStream {
 public:
  explicit CXmViewStream(std::string_view data) : data_(data) {}

  Result Read(void* buf, size_t size, size_t* got) override;
  Result Write(const void* buf, size_t size) override;
  using CXmStream::Write;
  Result Seek(int64_t offset, SeekOrigin origin) override;
  uint64_t Position() const override { return pos_; }
  uint64_t Size() const override { return data_.size(); }

 private:
  std::string_view data_;
  size_t pos_ = 0;
};

// Counts what is written and drops it (sizes of encoded output).
class CXmCountingStream final : public CXmStream {
 public:
  Result Read(void*, size_t, size_t* got) override;
  Result Write(const void* buf, size_t size) override;
  using CXmStream::Write;
  Result Seek(int64_t, SeekOrigin) override;
  uint64_t Position() const override { return count_; }
  uint64_t Size() const override { return count_; }

 private:
  uint64_t count_ = 0;
};

// A file on disk through stdio. Open() reports the cause as a result code;
// the file is closed by the destructor.
class CXmFileStream final : public CXmStream {
 public:
  enum Mode { kRead, kCreate, kReadWrite };

  CXmFileStream() = default;
  ~CXmFileStream() override;
  CXmFileStream(const CXmFileStream&) = delete;
  CXmFileStream& operator=(const CXmFileStream&) = delete;

  // kRead opens an existing file; kCreate creates or truncates; kReadWrite
  // opens an existing file for both.
  Result Open(const std::filesystem::path& path, Mode mode);
  Result Close();

  Result Read(void* buf, size_t size, size_t* got) override;
  Result Write(const void* buf, size_t size) override;
  using CXmStream::Write;
  Result Seek(int64_t offset, SeekOrigin origin) override;
  uint64_t Position() const override;
  uint64_t Size() const override;

 private:
  std::FILE* file_ = nullptr;
};

}  // namespace trv
