#include "core/folder_message_source.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>

namespace trv {

Result FolderMessageSource::Open(FolderFile& file, uint32_t key, std::shared_ptr<FolderMessageSource>* out) {
  const std::optional<MessageRecord> record = file.FindMessage(key);
  if (!record) return rc::kInvalidArg;
  *out = std::make_shared<FolderMessageSource>(file, key, record->size);
  return rc::kOk;
}

Result FolderMessageSource::ReadAt(uint64_t offset, void* buf, size_t size, size_t* got) {
  *got = 0;
  if (offset >= size_ || size == 0) return rc::kOk;
  const uint32_t count = static_cast<uint32_t>(std::min<uint64_t>(size, size_ - offset));
  std::string bytes;
  if (Result r = file_.ReadMessageRange(key_, static_cast<uint32_t>(offset), count, &bytes); r.failed()) return r;
  const size_t n = std::min(bytes.size(), static_cast<size_t>(count));
  std::memcpy(buf, bytes.data(), n);
  *got = n;
  return rc::kOk;
}

}  // namespace trv
