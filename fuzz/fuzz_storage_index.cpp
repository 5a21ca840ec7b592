// Reads arbitrary bytes as a storage index file. Checks that nothing
// crashes and that whatever was read (whole or up to damage) is written in a
// form that reads back the same, whole.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "store/storage_index_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  trv::StorageIndex index;
  std::optional<trv::IndexDamage> damage;
  if (trv::ParseStorageIndex(bytes, &index, &damage).failed()) {
    if (!damage) std::abort();  // a failure always says why
    return 0;
  }
  const std::string written = trv::EncodeStorageIndex(index);
  trv::StorageIndex again;
  std::optional<trv::IndexDamage> again_damage;
  if (trv::ParseStorageIndex(written, &again, &again_damage).failed() || again_damage) std::abort();
  index.magic = trv::kIndexMagicCurrent;
  if (!(again == index)) std::abort();
  return 0;
}
