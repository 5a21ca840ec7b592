// A small JSON reader for checking the command line's --json output: one
// value with nothing after it but blanks, kept as a tree.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace trv::test {

struct JsonValue {
  enum Type { kNull, kBool, kNumber, kString, kArray, kObject } type = kNull;
  bool boolean = false;
  double number = 0;
  std::string text;  // UTF-8
  std::vector<JsonValue> items;
  std::map<std::string, JsonValue> members;

  // A member that is not there throws std::out_of_range, failing the test.
  const JsonValue& operator[](const std::string& key) const { return members.at(key); }
  const JsonValue& operator[](size_t i) const { return items.at(i); }
  size_t size() const { return type == kArray ? items.size() : members.size(); }
};

// `text` parsed; text that is not one valid JSON value fails the test.
JsonValue Json(const std::string& text);

}  // namespace trv::test
