// A tiny JSON reader for checking the command line's --json output: strict
// RFC 8259 syntax (one value, nothing after it but blanks), values kept as a
// small tree.
#pragma once

#include <map>
#include <memory>
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
  std::vector<std::string> member_order;

  const JsonValue& operator[](const std::string& key) const;
  const JsonValue& operator[](size_t i) const { return items.at(i); }
  size_t size() const { return type == kArray ? items.size() : members.size(); }
};

// False with `*error` (the offset and what was expected) when `text` is not
// one valid JSON document.
bool ParseJson(const std::string& text, JsonValue* value, std::string* error);

// `text` parsed; text that does not parse fails the test.
JsonValue Json(const std::string& text);

}  // namespace trv::test
