#include "tests/app/json_value.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

namespace trv::test {
namespace {

// Recursive descent over `s`; every function returns false on bad syntax.
class Reader {
 public:
  explicit Reader(const std::string& s) : s_(s) {}

  bool Document(JsonValue* v) { return Value(v) && (Blanks(), pos_ == s_.size()); }
  size_t pos() const { return pos_; }

 private:
  void Blanks() {
    while (pos_ < s_.size() && s_[pos_] && std::strchr(" \t\r\n", s_[pos_])) ++pos_;
  }
  bool Next(char c) {
    Blanks();
    return pos_ < s_.size() && s_[pos_] == c && ++pos_;
  }
  bool Value(JsonValue* v) {
    Blanks();
    if (pos_ >= s_.size()) return false;
    if (s_[pos_] == '{' || s_[pos_] == '[') return Container(v);
    if (s_[pos_] == '"') return v->type = JsonValue::kString, String(&v->text);
    for (const std::string word : {"true", "false", "null"}) {
      if (s_.compare(pos_, word.size(), word) != 0) continue;
      pos_ += word.size();
      v->type = word == "null" ? JsonValue::kNull : JsonValue::kBool;
      v->boolean = word == "true";
      return true;
    }
    if (s_[pos_] != '-' && !std::isdigit(static_cast<unsigned char>(s_[pos_]))) return false;
    char* end = nullptr;
    v->type = JsonValue::kNumber;
    v->number = std::strtod(s_.c_str() + pos_, &end);
    const size_t start = pos_;
    pos_ = static_cast<size_t>(end - s_.c_str());
    return pos_ > start;
  }
  bool String(std::string* out) {
    static const std::string kEscapes = "\"\\/bfnrt", kMeanings = "\"\\/\b\f\n\r\t";
    for (++pos_; pos_ < s_.size();) {
      const char c = s_[pos_++];
      if (c == '"') return true;
      if (static_cast<unsigned char>(c) < 0x20 || (c == '\\' && pos_ >= s_.size())) return false;
      if (c != '\\') {
        *out += c;
      } else if (const size_t k = kEscapes.find(s_[pos_]); k != std::string::npos) {
        *out += kMeanings[k], ++pos_;
      } else if (s_[pos_] == 'u' && pos_ + 5 <= s_.size()) {
        // The writer escapes control characters only.
        const unsigned long code = std::strtoul(s_.substr(pos_ + 1, 4).c_str(), nullptr, 16);
        if (code >= 0x80) return false;
        *out += static_cast<char>(code), pos_ += 5;
      } else {
        return false;
      }
    }
    return false;
  }
  bool Container(JsonValue* v) {
    const bool object = s_[pos_++] == '{';
    const char close = object ? '}' : ']';
    v->type = object ? JsonValue::kObject : JsonValue::kArray;
    if (Next(close)) return true;
    do {
      std::string key;
      if (object && !(Next('"') && (--pos_, String(&key)) && Next(':') && !v->members.count(key))) return false;
      JsonValue item;
      if (!Value(&item)) return false;
      if (object) {
        v->members[key] = std::move(item);
      } else {
        v->items.push_back(std::move(item));
      }
    } while (Next(','));
    return Next(close);
  }

  const std::string& s_;
  size_t pos_ = 0;
};

}  // namespace

JsonValue Json(const std::string& text) {
  JsonValue v;
  Reader reader(text);
  EXPECT_TRUE(reader.Document(&v)) << "not JSON near offset " << reader.pos() << ":\n" << text;
  return v;
}

}  // namespace trv::test
