// A small streaming JSON writer for the command line's --json output.
// Strings are UTF-8; control characters and invalid bytes are escaped so the
// output is always valid JSON.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace trv::cli {

class JsonWriter {
 public:
  void BeginArray();
  void EndArray();
  void BeginObject();
  void EndObject();
  void Key(std::string_view key);
  void String(std::string_view utf8);
  void Int(int64_t v);
  void Bool(bool v);
  void Null();

  const std::string& text() const { return out_; }

 private:
  void Separate();
  void Escape(std::string_view s);

  std::string out_;
  // One entry per open container: whether it already holds an element.
  std::vector<bool> has_element_;
  bool after_key_ = false;
};

}  // namespace trv::cli
