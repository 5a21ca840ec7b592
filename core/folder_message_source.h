// A stored message of a folder file as a CXmMessageSource: the part tree is
// parsed and its bodies decoded straight from the folder file through ranged
// reads, so a message with a large attachment is never held whole in memory.
//
// Lifetimes: the folder file must outlive the source and every message
// parsed from it (a parsed message reads its bodies again when they are
// decoded). Threads: one thread at a time, as every source; the folder file
// itself may be changed by other threads meanwhile (a message replaced
// under a reader reads as a short or failed range).
#pragma once

#include <cstdint>
#include <memory>

#include "base/result.h"
#include "mime/message_source.h"
#include "store/folder_file.h"

namespace trv {

class FolderMessageSource final : public CXmMessageSource {
 public:
  // `size` is the stored size of the message (its index record's).
  FolderMessageSource(FolderFile& file, uint32_t key, uint32_t size) : file_(file), key_(key), size_(size) {}

  // The source of message `key` sized from its index record;
  // rc::kInvalidArg when the folder file has no such message.
  static Result Open(FolderFile& file, uint32_t key, std::shared_ptr<FolderMessageSource>* out);

  uint64_t Size() const override { return size_; }
  Result ReadAt(uint64_t offset, void* buf, size_t size, size_t* got) override;

 private:
  FolderFile& file_;
  const uint32_t key_;
  const uint32_t size_;
};

}  // namespace trv
