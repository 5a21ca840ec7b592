// Compact descriptions of part trees for assertions, shared by the part tree,
// composition and view tests.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "mime/mime_message.h"

namespace trv::test {

// The message form of a text written with "\n" line ends.
inline std::string Crlf(std::string_view text) {
  std::string out;
  for (char c : text) c == '\n' ? out += "\r\n" : out += c;
  return out;
}

// "C:multipart/mixed{T:text/plain,P:application/pdf}": C a container, T a
// CXmPlainTextPart, P a CXmMessagePart; children in braces.
inline std::string Shape(const CXmMessagePart& part) {
  const std::string cls = part.GetClassName();
  std::string s = (cls == "CXmMultiPartPart" ? "C:" : cls == "CXmPlainTextPart" ? "T:" : "P:") +
                  WideToUtf8(part.GetContentType());
  for (size_t i = 0; i < part.children().size(); ++i) s += (i ? "," : "{") + Shape(*part.children()[i]);
  return part.IsMultipart() ? s + (part.children().empty() ? "{}" : "}") : s;
}

// The decoded text of every single part in document order, joined by "|".
inline std::string Texts(const CXmMimeMessage& message) {
  std::string out;
  bool first = true;
  ForEachPart(message.root(), [&](const CXmMessagePart& p, int) {
    if (p.IsMultipart()) return;
    WString text;
    p.GetText(&text).Ignore();
    out += (first ? "" : "|") + WideToUtf8(text);
    first = false;
  });
  return out;
}

// A source that hands out at most `piece` bytes per read, to show that the
// parse does not depend on how its input arrives.
class ChunkedSource final : public CXmMessageSource {
 public:
  ChunkedSource(std::string text, size_t piece) : text_(std::move(text)), piece_(piece) {}
  uint64_t Size() const override { return text_.size(); }
  Result ReadAt(uint64_t offset, void* buf, size_t size, size_t* got) override {
    *got = offset < text_.size() ? std::min({size, piece_, static_cast<size_t>(text_.size() - offset)}) : 0;
    if (*got) std::memcpy(buf, text_.data() + offset, *got);
    largest_ = std::max(largest_, size);
    return rc::kOk;
  }
  size_t largest_request() const { return largest_; }

 private:
  std::string text_;
  size_t piece_;
  size_t largest_ = 0;
};

}  // namespace trv::test
