#include "base/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace trv {

Result WriteAllBytes(int fd, std::string_view bytes) {
  const char* p = bytes.data();
  size_t n = bytes.size();
  while (n > 0) {
    const ssize_t w = ::write(fd, p, n);
    if (w < 0) {
      if (errno == EINTR) continue;
      return ResultFromErrno(errno);
    }
    p += w;
    n -= static_cast<size_t>(w);
  }
  return rc::kOk;
}

Result ReadWholeFile(const std::filesystem::path& path, std::string* bytes) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return ResultFromErrno(errno);
  std::string data;
  Result r = rc::kOk;
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    r = ResultFromErrno(errno);
  } else if (!S_ISREG(st.st_mode)) {
    r = ResultFromErrno(EISDIR);
  } else {
    data.reserve(static_cast<size_t>(st.st_size));
    char buf[65536];
    for (;;) {
      const ssize_t n = ::read(fd, buf, sizeof buf);
      if (n < 0) {
        if (errno == EINTR) continue;
        r = ResultFromErrno(errno);
        break;
      }
      if (n == 0) break;
      data.append(buf, static_cast<size_t>(n));
    }
  }
  ::close(fd);
  if (r.ok()) *bytes = std::move(data);
  return r;
}

std::vector<std::string> ListRegularFiles(const std::filesystem::path& dir, Result* r) {
  std::vector<std::string> files;
  std::error_code ec;
  for (auto it = std::filesystem::directory_iterator(dir, ec); !ec && it != std::filesystem::directory_iterator();
       it.increment(ec)) {
    std::error_code type_ec;
    if (it->is_regular_file(type_ec)) files.push_back(it->path().filename().string());
  }
  if (r != nullptr) *r = ec ? ResultFromErrno(ec.value()) : rc::kOk;
  std::sort(files.begin(), files.end());
  return files;
}

void SyncDirectory(const std::filesystem::path& dir) {
  const int fd = ::open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

}  // namespace trv
