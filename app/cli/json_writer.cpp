#include "app/cli/json_writer.h"

#include <cstdio>

#include "base/wide_string.h"

namespace trv::cli {

void JsonWriter::Separate() {
  if (after_key_) {
    after_key_ = false;
    return;
  }
  if (!has_element_.empty()) {
    if (has_element_.back()) out_ += ',';
    has_element_.back() = true;
  }
}

void JsonWriter::BeginArray() {
  Separate();
  out_ += '[';
  has_element_.push_back(false);
}

void JsonWriter::EndArray() {
  out_ += ']';
  has_element_.pop_back();
}

void JsonWriter::BeginObject() {
  Separate();
  out_ += '{';
  has_element_.push_back(false);
}

void JsonWriter::EndObject() {
  out_ += '}';
  has_element_.pop_back();
}

void JsonWriter::Key(std::string_view key) {
  Separate();
  Escape(key);
  out_ += ':';
  after_key_ = true;
}

void JsonWriter::String(std::string_view utf8) {
  Separate();
  Escape(utf8);
}

void JsonWriter::Int(int64_t v) {
  Separate();
  out_ += std::to_string(v);
}

void JsonWriter::Bool(bool v) {
  Separate();
  out_ += v ? "true" : "false";
}

void JsonWriter::Null() {
  Separate();
  out_ += "null";
}

void JsonWriter::Escape(std::string_view s) {
  // Round trip through UTF-16 replaces invalid UTF-8 with U+FFFD.
  const std::string clean = WideToUtf8(Utf8ToWide(s));
  out_ += '"';
  for (unsigned char c : clean) {
    switch (c) {
      case '"': out_ += "\\\""; break;
      case '\\': out_ += "\\\\"; break;
      case '\n': out_ += "\\n"; break;
      case '\r': out_ += "\\r"; break;
      case '\t': out_ += "\\t"; break;
      default:
        if (c < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out_ += buf;
        } else {
          out_ += static_cast<char>(c);
        }
    }
  }
  out_ += '"';
}

}  // namespace trv::cli
