// Whole-file helpers over the POSIX calls, with failures as result codes
// (through ResultFromErrno). Shared by the settings file and the storages.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"

namespace trv {

// Writes every byte, retrying interrupted and short writes.
Result WriteAllBytes(int fd, std::string_view bytes);

// The whole content of a regular file (a directory or device is refused with
// the code of EISDIR); *bytes is changed only on success.
Result ReadWholeFile(const std::filesystem::path& path, std::string* bytes);

// The names of the regular files directly in `dir` (links followed), sorted.
// *r (optional) gets the failure of reading the directory.
std::vector<std::string> ListRegularFiles(const std::filesystem::path& dir, Result* r = nullptr);

// Flushes a directory so that a rename or a creation in it survives a crash.
// Best effort: the change itself has been made and cannot be undone.
void SyncDirectory(const std::filesystem::path& dir);

}  // namespace trv
