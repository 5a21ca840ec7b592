// A temporary directory made for one test and removed with everything in it.
#pragma once

#include <filesystem>
#include <string>

namespace trv::test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

// Whole-file helpers for assertions.
std::string ReadFile(const std::filesystem::path& p);
void WriteFile(const std::filesystem::path& p, const std::string& bytes);

}  // namespace trv::test
