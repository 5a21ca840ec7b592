// One open stream of a container: a byte sequence of up to 4 GB - 1 with a
// position, read and written at that position.
//
// Reads never go past the stream's end: a read at or past it returns 0
// bytes, one that reaches it returns fewer bytes than asked (not an error of
// the stream; callers that need the whole count treat it as one). A seek may
// go past the end; a write there fills the gap with zero bytes. Each
// operation sets the stream's error state (0 after success). Sizes are
// reloaded when another stream object or a rollback changed them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "base/result.h"
#include "base/wide_string.h"

namespace trv {

namespace container_internal {
class ContainerDb;
}

// Seek origins.
inline constexpr int kSeekStart = 0;
inline constexpr int kSeekEnd = 1;
inline constexpr int kSeekCurrent = 2;

class ContainerStream {
 public:
  ~ContainerStream();
  ContainerStream(const ContainerStream&) = delete;
  ContainerStream& operator=(const ContainerStream&) = delete;

  // Bytes read into `buffer` (at most `count`).
  uint32_t Read(void* buffer, uint32_t count);
  // Bytes written: `count`, or 0 on a failure (nothing is written then).
  // A write is written in one piece: chunks it covers whole are stored
  // without reading them first.
  uint32_t Write(const void* buffer, uint32_t count);
  // Moves to `offset` from the origin (kSeekStart, kSeekEnd, kSeekCurrent)
  // and returns the new position. A target below 0 or past 4 GB - 1 is
  // rc::kInvalidArg and leaves the position unchanged.
  uint32_t Seek(int64_t offset, int origin);
  // Seek for callers that go on to read or write there: the seek's code, so
  // a failed seek stops the operation that follows instead of letting it
  // work at the old position.
  Result SeekTo(int64_t offset, int origin = kSeekStart) {
    Seek(offset, origin);
    return error_;
  }
  uint32_t Position() const { return pos_; }
  uint32_t Size();
  // Ends the stream at the current position (a position past the end makes
  // the stream longer, the new bytes zero).
  Result Cut();

  // Helpers over the above: exactly `count` bytes or rc::kReadFault (30).
  Result ReadExact(void* buffer, uint32_t count);
  // All bytes from the position to the end, refused with rc::kInvalidData
  // when more than `max_bytes` would be read.
  Result ReadRest(std::string* out, uint32_t max_bytes);
  // Writes all of `data`; rc::kWriteFault (29) when the container wrote less
  // without a code of its own.
  Result WriteAll(std::string_view data);

  Result last_error() const { return error_; }
  const WString& name() const { return name_; }

 private:
  friend class Container;
  ContainerStream(std::shared_ptr<container_internal::ContainerDb> db, int64_t id, WString name,
                  uint32_t size, bool writable);

  Result Fail(Result r) {
    error_ = r;
    return r;
  }
  // Reloads the size when the container changed since it was read.
  Result Refresh();
  Result WriteChunks(uint32_t pos, const uint8_t* data, uint32_t count);
  Result SetSize(uint32_t new_size);

  std::shared_ptr<container_internal::ContainerDb> db_;
  int64_t id_;
  WString name_;
  uint32_t size_;
  uint32_t pos_ = 0;
  uint64_t generation_;
  bool writable_;
  Result error_;
};

}  // namespace trv
