#include "tests/app/json_value.h"

#include <cstdlib>
#include <stdexcept>

namespace trv::test {

namespace {

class Reader {
 public:
  explicit Reader(const std::string& s) : s_(s) {}

  bool Document(JsonValue* v) {
    Blanks();
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
  bool Literal(const char* word) {
    const std::string w = word;
    if (s_.compare(pos_, w.size(), w) != 0) return Error(w);
    pos_ += w.size();
    return true;
  }
  bool Value(JsonValue* v, int depth) {
    if (depth > 64) return Error("less nesting");
    if (pos_ >= s_.size()) return Error("a value");
    switch (s_[pos_]) {
      case '{': return Object(v, depth);
      case '[': return Array(v, depth);
      case '"': v->type = JsonValue::kString; return String(&v->text);
      case 't': v->type = JsonValue::kBool; v->boolean = true; return Literal("true");
      case 'f': v->type = JsonValue::kBool; return Literal("false");
      case 'n': v->type = JsonValue::kNull; return Literal("null");
      default: return Number(v);
    }
  }
  bool Number(JsonValue* v) {
    const size_t start = pos_;
    if (pos_ < s_.size() && s_[pos_] == '-') ++pos_;
    if (pos_ >= s_.size() || !std::isdigit(static_cast<unsigned char>(s_[pos_]))) return Error("a value");
    while (pos_ < s_.size() && (std::isdigit(static_cast<unsigned char>(s_[pos_])) || s_[pos_] == '.' ||
                                s_[pos_] == 'e' || s_[pos_] == 'E' || s_[pos_] == '+' || s_[pos_] == '-')) {
      ++pos_;
    }
    v->type = JsonValue::kNumber;
    v->number = std::strtod(s_.substr(start, pos_ - start).c_str(), nullptr);
    return true;
  }
  // \uXXXX of the Basic Multilingual Plane (the writer escapes only control
  // characters), as UTF-8.
  bool Escaped(std::string* out) {
    if (pos_ + 4 > s_.size()) return Error("four hexadecimal digits");
    const std::string hex = s_.substr(pos_, 4);
    if (hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) return Error("hexadecimal digits");
    pos_ += 4;
    const unsigned cp = static_cast<unsigned>(std::stoul(hex, nullptr, 16));
    if (cp < 0x80) {
      *out += static_cast<char>(cp);
    } else if (cp < 0x800) {
      *out += static_cast<char>(0xC0 | cp >> 6);
      *out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      *out += static_cast<char>(0xE0 | cp >> 12);
      *out += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
      *out += static_cast<char>(0x80 | (cp & 0x3F));
    }
    return true;
  }
  bool String(std::string* out) {
    ++pos_;  // the opening quote
    out->clear();
    while (pos_ < s_.size()) {
      const unsigned char c = static_cast<unsigned char>(s_[pos_++]);
      if (c == '"') return true;
      if (c < 0x20) return Error("no control character in a string");
      if (c != '\\') {
        *out += static_cast<char>(c);
        continue;
      }
      if (pos_ >= s_.size()) break;
      const char e = s_[pos_++];
      switch (e) {
        case '"': case '\\': case '/': *out += e; break;
        case 'b': *out += '\b'; break;
        case 'f': *out += '\f'; break;
        case 'n': *out += '\n'; break;
        case 'r': *out += '\r'; break;
        case 't': *out += '\t'; break;
        case 'u':
          if (!Escaped(out)) return false;
          break;
        default: return Error("a known escape");
      }
    }
    return Error("the end of the string");
  }
  bool Array(JsonValue* v, int depth) {
    v->type = JsonValue::kArray;
    ++pos_;
    Blanks();
    if (pos_ < s_.size() && s_[pos_] == ']') return ++pos_, true;
    for (;;) {
      v->items.emplace_back();
      Blanks();
      if (!Value(&v->items.back(), depth + 1)) return false;
      Blanks();
      if (pos_ < s_.size() && s_[pos_] == ',') { ++pos_; continue; }
      if (pos_ < s_.size() && s_[pos_] == ']') return ++pos_, true;
      return Error("',' or ']'");
    }
  }
  bool Object(JsonValue* v, int depth) {
    v->type = JsonValue::kObject;
    ++pos_;
    Blanks();
    if (pos_ < s_.size() && s_[pos_] == '}') return ++pos_, true;
    for (;;) {
      Blanks();
      std::string key;
      if (pos_ >= s_.size() || s_[pos_] != '"' || !String(&key)) return Error("a member name");
      Blanks();
      if (pos_ >= s_.size() || s_[pos_++] != ':') return Error("':'");
      Blanks();
      JsonValue member;
      if (!Value(&member, depth + 1)) return false;
      if (v->members.count(key)) return Error("no repeated member \"" + key + "\"");
      v->member_order.push_back(key);
      v->members[key] = std::move(member);
      Blanks();
      if (pos_ < s_.size() && s_[pos_] == ',') { ++pos_; continue; }
      if (pos_ < s_.size() && s_[pos_] == '}') return ++pos_, true;
      return Error("',' or '}'");
    }
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

}  // namespace trv::test
