// A small JSON reader for checking the command line's --json output: one
// value with nothing after it but blanks, kept as a tree. Text that is not
// one valid JSON value fails the test.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
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

namespace json {

// Recursive descent over a NUL-terminated text; false on bad syntax.
inline void Blanks(const char*& p) { p += std::strspn(p, " \t\r\n"); }

inline bool String(const char*& p, std::string* out) {
  static const std::string kEscapes = "\"\\/bfnrt", kMeanings = "\"\\/\b\f\n\r\t";
  for (++p; *p != '"'; ++p) {
    if (static_cast<unsigned char>(*p) < 0x20) return false;  // the end of the text too
    if (*p != '\\') {
      *out += *p;
    } else if (const size_t k = kEscapes.find(*++p); *p && k != std::string::npos) {
      *out += kMeanings[k];
    } else {  // the writer escapes control characters only
      if (*p != 'u' || !std::all_of(p + 1, p + 5, [](char c) { return std::isxdigit(c); })) return false;
      const unsigned long code = std::strtoul(std::string(p + 1, 4).c_str(), nullptr, 16);
      if (code >= 0x80) return false;
      *out += static_cast<char>(code), p += 4;
    }
  }
  return ++p, true;
}

inline bool Value(const char*& p, JsonValue* v) {
  Blanks(p);
  if (*p == '"') return v->type = JsonValue::kString, String(p, &v->text);
  if (*p == '[' || *p == '{') {
    const bool object = *p++ == '{';
    const char close = object ? '}' : ']';
    v->type = object ? JsonValue::kObject : JsonValue::kArray;
    if (Blanks(p), *p == close) return ++p, true;
    do {
      std::string key;
      JsonValue item;
      if (object && !((Blanks(p), *p == '"') && String(p, &key) && (Blanks(p), *p++ == ':'))) return false;
      if (!Value(p, &item) || (object && v->members.count(key))) return false;
      object ? (void)(v->members[key] = std::move(item)) : v->items.push_back(std::move(item));
    } while ((Blanks(p), *p == ',') && ++p);
    return *p++ == close;
  }
  for (const char* word : {"true", "false", "null"}) {
    if (std::strncmp(p, word, std::strlen(word)) != 0) continue;
    v->type = *word == 'n' ? JsonValue::kNull : JsonValue::kBool;
    v->boolean = *word == 't';
    return p += std::strlen(word), true;
  }
  char* end = nullptr;
  v->type = JsonValue::kNumber;
  v->number = std::strtod(p, &end);
  return (*p == '-' || std::isdigit(static_cast<unsigned char>(*p))) && (p = end, true);
}

}  // namespace json

// `text` parsed.
inline JsonValue Json(const std::string& text) {
  JsonValue v;
  const char* p = text.c_str();
  const bool ok = json::Value(p, &v) && (json::Blanks(p), p == text.c_str() + text.size());
  EXPECT_TRUE(ok) << "not JSON near offset " << p - text.c_str() << ":\n" << text;
  return v;
}

}  // namespace trv::test
