// The one durable replacement of a whole file: the bytes go to a temporary
// file beside the target (0600, flushed to the disk), which is renamed over
// the target, and the directory is flushed. After a crash at any point the
// target holds either its old content or the new one, never a part; a
// failure removes the temporary file and leaves the target as it was. A
// stale temporary file left by a crash is overwritten by the next write.
// Everything goes through the FileSystem seam, so tests can fail any step.
#pragma once

#include <filesystem>
#include <functional>
#include <string_view>

#include "base/file_system.h"
#include "base/result.h"

namespace trv {

struct DurableWriteOptions {
  // The temporary file; empty means the target's name + ".tmp".
  std::filesystem::path temp_path;
  // Called once the temporary file is complete, just before the rename (the
  // storage index moves its old file to the backup name there). A failure
  // stops the write with that code. Called at most once, during the call.
  std::function<Result()> before_replace;
};

// Returns the code of the first failing step; the temporary file is gone
// then. REQUIRES: the target's directory exists.
Result WriteFileDurably(FileSystem& fs, const std::filesystem::path& target, std::string_view bytes,
                        const DurableWriteOptions& options = {});

}  // namespace trv
