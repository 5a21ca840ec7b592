#include "mime/header_writer.h"

#include <algorithm>
#include <climits>

#include "mime/charset/converter.h"
#include "base/hex_digits.h"
#include "mime/quoted_printable.h"
#include "mime/mime_result.h"

namespace trv {

namespace {

constexpr char16_t kSpecials[] = u"()<>@,;:\"/[]?= ";

bool IsBlank(char16_t c) { return c == u' ' || c == u'\t'; }

bool HasHighChar(WStringView s) {
  for (char16_t c : s) {
    if (c >= 0x80) return true;
  }
  return false;
}

// Builds physical lines and folds them.
class LineFolder {
 public:
  explicit LineFolder(std::string* out) : out_(out) {}

  // One character of plain text (or one raw 8-bit byte).
  void Char(char c) {
    const size_t limit = has_word_ ? kMaxEncodedLine : kMaxHeaderLine;
    if (line_.size() + 1 >= limit) TryFold();
    if (IsBlank(static_cast<unsigned char>(c)) && folded_ && line_.size() == 1) return;  // no doubled blank
    if (c == ';') last_semi_ = line_.size();
    if (IsBlank(static_cast<unsigned char>(c)) && line_.size() > std::max(start(), value_start_)) {
      last_blank_ = line_.size();
    }
    line_.push_back(c);
  }

  // Text that must not be broken (encoded words).
  void Raw(std::string_view s) {
    line_ += s;
    has_word_ = true;
  }

  // Breaks the line now; a blank that ends it becomes the fold's blank.
  void Fold() {
    if (line_.size() <= start()) return;
    if (IsBlank(static_cast<unsigned char>(line_.back()))) line_.pop_back();
    Emit(line_.size(), " ");
  }

  size_t size() const { return line_.size(); }
  // Blanks before this point of the first line (the one after "Name:") are
  // no place to fold: the line would not get any shorter.
  void MarkValueStart() {
    value_start_ = line_.size();
    last_blank_ = std::string::npos;
  }
  size_t start() const { return folded_ ? 1 : 0; }

  void Finish() {
    *out_ += line_;
    *out_ += "\r\n";
  }

 private:
  // Breaks after the last ";" of the line, else before its last blank.
  void TryFold() {
    if (last_semi_ != std::string::npos && last_semi_ >= start()) {
      Emit(last_semi_ + 1, " ");
    } else if (last_blank_ != std::string::npos && last_blank_ > start()) {
      Emit(last_blank_, "");
    }
  }

  // Writes line_[0, at) and starts a continuation line with `lead` and the rest.
  void Emit(size_t at, std::string_view lead) {
    std::string rest = line_.substr(at);
    out_->append(line_, 0, at);
    *out_ += "\r\n";
    if (!lead.empty() && !rest.empty() && IsBlank(static_cast<unsigned char>(rest[0]))) lead = "";
    line_.assign(lead);
    line_ += rest;
    if (line_.empty()) line_ = " ";
    folded_ = true;
    value_start_ = 0;
    has_word_ = rest.find("=?") != std::string::npos;
    last_semi_ = last_blank_ = std::string::npos;
    for (size_t i = 1; i < line_.size(); ++i) {
      if (line_[i] == ';') last_semi_ = i;
      if (IsBlank(static_cast<unsigned char>(line_[i]))) last_blank_ = i;
    }
  }

  std::string* out_;
  std::string line_;
  bool folded_ = false;
  bool has_word_ = false;
  size_t last_semi_ = std::string::npos;
  size_t last_blank_ = std::string::npos;
  size_t value_start_ = 0;
};

class FieldWriter {
 public:
  FieldWriter(const HeaderWriteOptions& o, std::string* out)
      : options_(o), folder_(out), converter_("utf-16", o.sending_charset) {
    auto cs = CreateCharset(o.sending_charset);
    charset_name_ = cs ? cs->Name() : o.sending_charset;
  }

  void MarkValueStart() { folder_.MarkValueStart(); }

  void Text(WStringView text) {
    size_t i = 0;
    while (i < text.size()) {
      if (IsBlank(text[i])) {
        folder_.Char(static_cast<char>(text[i++]));
        continue;
      }
      if (text[i] == u'\r' || text[i] == u'\n') {
        // A line end inside a value would end the field and let the rest be
        // read as fields of its own: it becomes a blank.
        folder_.Char(' ');
        ++i;
        continue;
      }
      size_t j = WordEnd(text, i);
      if (!HasHighChar(text.substr(i, j - i))) {
        for (; i < j; ++i) folder_.Char(static_cast<char>(text[i]));
        continue;
      }
      // Join the following words that need encoding too, blanks included.
      for (;;) {
        size_t k = j;
        while (k < text.size() && IsBlank(text[k])) ++k;
        if (k == text.size()) break;
        const size_t next_end = WordEnd(text, k);
        if (!HasHighChar(text.substr(k, next_end - k))) break;
        j = next_end;
      }
      EncodedRun(text.substr(i, j - i));
      i = j;
    }
  }

  // A parameter with characters from 128 up: name*=charset''%XX (RFC 2231).
  void ExtendedParam(WStringView name, WStringView value) {
    Text(name);
    std::string text = "*=" + charset_name_ + "''";
    for (unsigned char b : Convert(value)) {
      const bool plain = (b >= 'A' && b <= 'Z') || (b >= 'a' && b <= 'z') || (b >= '0' && b <= '9') ||
                         (b && std::string_view("!#$&+-.^_`|~").find(static_cast<char>(b)) != std::string_view::npos);
      if (plain) {
        text.push_back(static_cast<char>(b));
      } else {
        AppendHexEscape('%', b, &text);
      }
    }
    for (char c : text) folder_.Char(c);
  }

  Result Finish() {
    folder_.Finish();
    return status_;
  }

 private:
  static size_t WordEnd(WStringView text, size_t i) {
    while (i < text.size() && !IsBlank(text[i]) && text[i] != u'\r' && text[i] != u'\n') ++i;
    return i;
  }

  // Converted to the sending set; on failure the best-effort bytes and the
  // status 0xA0003003.
  std::string Convert(WStringView text) {
    std::string bytes;
    if (!converter_.Convert(text, &bytes, kConvertStrict)) {
      status_ = rc::kMimeCharset;
      converter_.Convert(text, &bytes, 0);
    }
    return bytes;
  }

  void EncodedRun(WStringView run) {
    if (options_.allow_8bit) {
      for (char c : Convert(run)) folder_.Char(c);
      return;
    }
    const std::string prefix = "=?" + charset_name_ + "?Q?";
    bool open = false;
    std::string encoded;
    for (size_t i = 0; i < run.size();) {
      // One character at a time, so a word never ends inside a character.
      size_t n = 1;
      if (run[i] >= 0xD800 && run[i] <= 0xDBFF && i + 1 < run.size() && run[i + 1] >= 0xDC00 &&
          run[i + 1] <= 0xDFFF) {
        n = 2;
      }
      const std::string bytes = Convert(run.substr(i, n));
      i += n;
      size_t cost = 0;
      for (unsigned char b : bytes) cost += static_cast<size_t>(HeaderWordCost(b));
      if (!open) {
        if (folder_.size() + prefix.size() + cost + 2 >= kMaxEncodedLine) folder_.Fold();
        folder_.Raw(prefix);
        open = true;
      } else if (folder_.size() + cost + 2 >= kMaxEncodedLine) {
        folder_.Raw("?=");
        folder_.Fold();
        folder_.Raw(prefix);
      }
      encoded.clear();
      size_t index = 0;
      EncodeHeaderWord(bytes, &index, INT_MAX, &encoded);
      folder_.Raw(encoded);
    }
    if (open) folder_.Raw("?=");
  }

  const HeaderWriteOptions& options_;
  LineFolder folder_;
  CXmConverter converter_;
  std::string charset_name_;
  Result status_;
};

}  // namespace

WString QuoteParameterValue(WStringView value) {
  bool needs = false;
  for (char16_t c : value) {
    if (c < 32 || c >= 127 || WStringView(kSpecials).find(c) != WStringView::npos) {
      needs = true;
      break;
    }
  }
  if (!needs) return WString(value);
  WString out(1, u'"');
  for (size_t i = 0; i < value.size(); ++i) {
    if (value[i] == u'"' && i > 0 && value[i - 1] != u'\\') out.push_back(u'\\');
    out.push_back(value[i]);
  }
  out.push_back(u'"');
  return out;
}

Result WriteHeaderField(const CXmHeaderField& field, const HeaderWriteOptions& options, std::string* out) {
  if (!field.raw().empty()) {
    *out += field.raw();
    *out += "\r\n";
    return rc::kOk;
  }
  FieldWriter w(options, out);
  w.Text(field.name());
  w.Text(u": ");
  w.MarkValueStart();
  w.Text(field.value());
  for (const CXmParameter& p : field.params()) {
    w.Text(u"; ");
    if (HasHighChar(p.value)) {
      w.ExtendedParam(p.name, p.value);
    } else {
      w.Text(p.name);
      w.Text(u"=");
      w.Text(QuoteParameterValue(p.value));
    }
  }
  return w.Finish();
}

}  // namespace trv
