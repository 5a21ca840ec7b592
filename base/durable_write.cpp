#include "base/durable_write.h"

namespace trv {

Result WriteFileDurably(FileSystem& fs, const std::filesystem::path& target, std::string_view bytes,
                        const DurableWriteOptions& options) {
  std::filesystem::path temp = options.temp_path;
  if (temp.empty()) {
    temp = target;
    temp += ".tmp";
  }
  Result r = fs.WriteNewFile(temp, bytes);
  if (r.ok() && options.before_replace) r = options.before_replace();
  if (r.ok()) r = fs.Rename(temp, target);
  if (r.failed()) {
    fs.RemoveFile(temp).Ignore();  // the first failure is the one reported
    return r;
  }
  fs.SyncDirectory(target.parent_path());
  return rc::kOk;
}

}  // namespace trv
