#include "tests/app/json_value.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <stdexcept>

#include "base/wide_string.h"

namespace trv::test {

namespace {

class Reader {
 public:
  explicit Reader(const std::string& s) : s_(s) {}

  bool Document(JsonValue* v) {
    if (!Value(v, 0)) return false;
    Blanks();
    return pos_ == s_.size() || Error("end of text");
  }
  const std::string& error() const { return error_; }

 private:
  bool Error(const std::string& expected) {
    if (error_.empty()) error_ = "at offset " + std::to_string(pos_) + ": expected " + expected;
    return false;
  }
  void Blanks() {
    while (pos_ < s_.size() && (s_[pos_] == ' ' || s_[pos_] == '\t' || s_[pos_] == '\n' || s_[pos_] == '\r')) ++pos_;
  }
  // Consumes `c` after blanks.
  bool Next(char c) {
    Blanks();
    if (pos_ >= s_.size() || s_[pos_] != c) return false;
    ++pos_;
    return true;
  }
  bool Value(JsonValue* v, int depth) {
    Blanks();
    if (depth > 64) return Error("less nesting");
    if (pos_ >= s_.size()) return Error("a value");
    if (s_[pos_] == '{' || s_[pos_] == '[') return Container(v, depth);
    if (s_[pos_] == '"') {
      v->type = JsonValue::kString;
      return String(&v->text);
    }
    for (const std::string word : {"true", "false", "null"}) {
      if (s_.compare(pos_, word.size(), word) != 0) continue;
      pos_ += word.size();
      v->type = word == "null" ? JsonValue::kNull : JsonValue::kBool;
      v->boolean = word == "true";
      return true;
    }
    static const std::regex kNumber(R"(-?(0|[1-9]\d*)(\.\d+)?([eE][+-]?\d+)?)");
    std::smatch m;
    if (!std::regex_search(s_.begin() + static_cast<std::ptrdiff_t>(pos_), s_.end(), m, kNumber,
                           std::regex_constants::match_continuous)) {
      return Error("a value");
    }
    v->type = JsonValue::kNumber;
    v->number = std::strtod(m.str().c_str(), nullptr);
    pos_ += static_cast<size_t>(m.length());
    return true;
  }
  bool String(std::string* out) {
    static const std::string kEscapes = "\"\\/bfnrt", kMeanings = "\"\\/\b\f\n\r\t";
    ++pos_;  // the opening quote
    out->clear();
    while (pos_ < s_.size()) {
      const char c = s_[pos_++];
      if (c == '"') return true;
      if (static_cast<unsigned char>(c) < 0x20) return Error("no control character in a string");
      if (c != '\\') {
        *out += c;
        continue;
      }
      if (pos_ >= s_.size()) break;
      const char e = s_[pos_++];
      if (const size_t k = kEscapes.find(e); k != std::string::npos) {
        *out += kMeanings[k];
      } else if (e == 'u' && pos_ + 4 <= s_.size() &&
                 s_.find_first_not_of("0123456789abcdefABCDEF", pos_) >= pos_ + 4) {
        // The writer escapes control characters only: no surrogate pairs.
        *out += WideToUtf8(WString(1, static_cast<char16_t>(std::stoul(s_.substr(pos_, 4), nullptr, 16))));
        pos_ += 4;
      } else {
        return Error("a known escape");
      }
    }
    return Error("the end of the string");
  }
  // An array, or an object whose members keep their order and do not repeat.
  bool Container(JsonValue* v, int depth) {
    const bool object = s_[pos_++] == '{';
    const char close = object ? '}' : ']';
    v->type = object ? JsonValue::kObject : JsonValue::kArray;
    if (Next(close)) return true;
    do {
      std::string key;
      if (object) {
        if (!Next('"')) return Error("a member name");
        --pos_;
        if (!String(&key)) return false;
        if (!Next(':')) return Error("':'");
        if (v->members.count(key)) return Error("no repeated member \"" + key + "\"");
      }
      JsonValue item;
      if (!Value(&item, depth + 1)) return false;
      if (object) {
        v->member_order.push_back(key);
        v->members[key] = std::move(item);
      } else {
        v->items.push_back(std::move(item));
      }
    } while (Next(','));
    return Next(close) || Error(std::string("',' or '") + close + "'");
  }

  const std::string& s_;
  size_t pos_ = 0;
  std::string error_;
};

}  // namespace

const JsonValue& JsonValue::operator[](const std::string& key) const {
  const auto it = members.find(key);
  if (it == members.end()) throw std::out_of_range("no member \"" + key + "\"");
  return it->second;
}

bool ParseJson(const std::string& text, JsonValue* value, std::string* error) {
  *value = JsonValue();
  Reader reader(text);
  if (reader.Document(value)) return true;
  *error = reader.error();
  return false;
}

JsonValue Json(const std::string& text) {
  JsonValue v;
  std::string error;
  EXPECT_TRUE(ParseJson(text, &v, &error)) << error << "\n" << text;
  return v;
}

}  // namespace trv::test
