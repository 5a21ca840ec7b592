// Sets an environment variable (null: unsets it) for one scope.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace trv::test {

class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    Set(value);
  }
  ~ScopedEnv() { Set(old_ ? old_->c_str() : nullptr); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  void Set(const char* value) { value ? ::setenv(name_.c_str(), value, 1) : ::unsetenv(name_.c_str()); }
  std::string name_;
  std::optional<std::string> old_;
};

}  // namespace trv::test
