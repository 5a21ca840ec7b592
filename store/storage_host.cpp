#include "store/storage_host.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "base/file_system.h"

namespace trv {

std::filesystem::path WithTrailingSlash(const std::filesystem::path& dir) {
  std::string s = dir.string();
  if (!s.empty() && s.back() != '/') s.push_back('/');
  return s;
}

FileSystem& StorageHost::FileOps() { return PosixFileSystem::Instance(); }

std::filesystem::path StorageHost::UserHomeDirectory() {
  const char* home = std::getenv("HOME");
  if (home == nullptr || home[0] == '\0') {
    const passwd* pw = ::getpwuid(::getuid());
    home = pw != nullptr ? pw->pw_dir : nullptr;
  }
  if (home == nullptr || home[0] == '\0') return {};
  return WithTrailingSlash(home);
}

std::vector<std::filesystem::path> StorageHost::MountedMediaRoots() {
  std::string user;
  if (const char* u = std::getenv("USER"); u != nullptr && u[0] != '\0') {
    user = u;
  } else if (const passwd* pw = ::getpwuid(::getuid()); pw != nullptr) {
    user = pw->pw_name;
  }
  std::vector<std::filesystem::path> roots;
  if (user.empty()) return roots;
  for (const std::filesystem::path& base : {std::filesystem::path("/media") / user,
                                           std::filesystem::path("/run/media") / user}) {
    std::vector<std::filesystem::path> found;
    std::error_code ec;
    for (auto it = std::filesystem::directory_iterator(base, ec); !ec && it != std::filesystem::directory_iterator();
         it.increment(ec)) {
      if (it->is_directory(ec)) found.push_back(WithTrailingSlash(it->path()));
    }
    std::sort(found.begin(), found.end());
    roots.insert(roots.end(), found.begin(), found.end());
  }
  return roots;
}

}  // namespace trv
