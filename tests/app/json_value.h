// Reads back the command line's --json listing: an array of objects whose
// members are strings, numbers, true, false or null. Text that is not such
// an array, with nothing after it but blanks, fails the test.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace trv::test {

struct JsonValue {
  enum Type { kNull, kBool, kNumber, kString } type = kNull;
  bool boolean = false;
  double number = 0;
  std::string text;  // UTF-8
};

struct JsonObject : std::map<std::string, JsonValue> {
  // A member that is not there throws std::out_of_range, failing the test.
  const JsonValue& operator[](const std::string& key) const { return at(key); }
};
using JsonList = std::vector<JsonObject>;

namespace json {

// Each reads from `p` in a NUL-terminated text, after blanks; false on bad
// syntax.
inline char Peek(const char*& p) { return *(p += std::strspn(p, " \t\r\n")); }
inline bool Next(const char*& p, char c) { return Peek(p) == c && ++p; }

inline bool String(const char*& p, std::string* out) {
  static const std::string kEscapes = "\"\\/bfnrt", kMeanings = "\"\\/\b\f\n\r\t";
  if (!Next(p, '"')) return false;
  for (; *p != '"'; ++p) {
    if (static_cast<unsigned char>(*p) < 0x20) return false;  // the end of the text too
    // "\u" is written for control characters the tests do not store.
    const bool escaped = *p == '\\';
    const size_t k = escaped ? kEscapes.find(*++p) : std::string::npos;
    if (escaped && (!*p || k == std::string::npos)) return false;
    *out += k == std::string::npos ? *p : kMeanings[k];
  }
  return ++p, true;
}

inline bool Scalar(const char*& p, JsonValue* v) {
  if (Peek(p) == '"') return v->type = JsonValue::kString, String(p, &v->text);
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

inline JsonList Json(const std::string& text) {
  JsonList list;
  const char* p = text.c_str();
  bool ok = json::Next(p, '[');
  const bool empty = ok && json::Next(p, ']');
  for (bool more = ok && !empty; more; more = json::Next(p, ',')) {
    JsonObject& object = list.emplace_back();
    if (!(ok = json::Next(p, '{'))) break;
    if (json::Next(p, '}')) continue;
    do {
      std::string key;
      JsonValue value;
      ok = json::String(p, &key) && json::Next(p, ':') && json::Scalar(p, &value) && object.emplace(key, value).second;
    } while (ok && json::Next(p, ','));
    if (!(ok = ok && json::Next(p, '}'))) break;
  }
  ok = ok && (empty || json::Next(p, ']')) && json::Peek(p) == '\0' && p == text.c_str() + text.size();
  EXPECT_TRUE(ok) << "not a JSON list near offset " << p - text.c_str() << ":\n" << text;
  return list;
}

}  // namespace trv::test
