#include "mime/encoded_word.h"

#include <string>

#include "mime/base64.h"
#include "mime/charset/converter.h"
#include "base/hex_digits.h"

namespace trv {

namespace {

bool IsBlank(char16_t c) { return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n'; }

enum class Scan { kWord, kNotWord, kNoMoreWords };

struct Word {
  std::string charset;
  std::string bytes;
  size_t end = 0;  // index after "?="
};

// Reads an encoded word starting at text[i] == '=' and text[i + 1] == '?'.
Scan ReadWord(WStringView text, size_t i, Word* w) {
  size_t j = i + 2;
  const size_t n = text.size();
  std::string charset;
  for (; j < n && text[j] != u'?'; ++j) {
    const char16_t c = text[j];
    if (c <= 0x20 || c >= 0x7F || charset.size() >= kMaxEncodedWordCharset) return Scan::kNotWord;
    charset.push_back(static_cast<char>(c));
  }
  if (j >= n) return Scan::kNoMoreWords;
  if (charset.empty() || j + 2 >= n || text[j + 2] != u'?') return Scan::kNotWord;
  const char16_t enc = text[j + 1];
  const bool q = enc == u'Q' || enc == u'q';
  if (!q && enc != u'B' && enc != u'b') return Scan::kNotWord;
  const size_t start = j + 3;
  size_t k = start;
  for (; k < n && text[k] != u'?'; ++k) {
    if (text[k] <= 0x20 || text[k] >= 0x7F) return Scan::kNotWord;
  }
  if (k >= n) return Scan::kNoMoreWords;
  if (k + 1 >= n || text[k + 1] != u'=') return Scan::kNotWord;

  const size_t star = charset.find('*');  // RFC 2231 language suffix
  if (star != std::string::npos) charset.resize(star);
  if (charset.empty()) return Scan::kNotWord;
  w->charset = std::move(charset);
  w->bytes.clear();
  w->end = k + 2;
  const WStringView body = text.substr(start, k - start);
  if (q) {
    for (size_t m = 0; m < body.size(); ++m) {
      const char16_t c = body[m];
      if (c == u'_') {
        w->bytes.push_back(' ');
      } else if (c == u'=' && m + 2 < body.size() && HexDigitValue(body[m + 1]) >= 0 &&
                 HexDigitValue(body[m + 2]) >= 0) {
        w->bytes.push_back(static_cast<char>(HexDigitValue(body[m + 1]) << 4 | HexDigitValue(body[m + 2])));
        m += 2;
      } else {
        w->bytes.push_back(static_cast<char>(c));
      }
    }
  } else {
    std::string ascii(body.begin(), body.end());
    Base64Decode(ascii, w->bytes);
  }
  return Scan::kWord;
}

class Decoder {
 public:
  explicit Decoder(WString* out) : out_(out) {}

  void Word(Word& w) {
    blanks_.clear();  // blanks between two encoded words vanish
    if (!EqualsNoCase(charset_, w.charset)) {
      FlushBytes();
      charset_ = w.charset;
    }
    bytes_ += w.bytes;
    after_word_ = true;
  }

  void Char(char16_t c) {
    if (after_word_ && IsBlank(c)) {
      blanks_.push_back(c);
      return;
    }
    FlushBytes();
    after_word_ = false;
    *out_ += blanks_;
    blanks_.clear();
    out_->push_back(c);
  }

  bool Finish() {
    FlushBytes();
    *out_ += blanks_;
    return ok_;
  }

 private:
  void FlushBytes() {
    if (charset_.empty()) return;
    CXmConverter conv(charset_, "utf-16");
    WString text;
    ok_ = conv.Convert(bytes_, &text) && ok_;
    *out_ += text;
    bytes_.clear();
    charset_.clear();
  }

  WString* out_;
  WString blanks_;
  std::string charset_;
  std::string bytes_;
  bool after_word_ = false;
  bool ok_ = true;
};

}  // namespace

bool DecodeEncodedWords(WStringView text, WString* out) {
  out->clear();
  out->reserve(text.size());
  Decoder d(out);
  bool more_words = true;
  struct Word w;
  size_t i = 0;
  while (i < text.size()) {
    if (more_words && text[i] == u'=' && i + 1 < text.size() && text[i + 1] == u'?') {
      const Scan s = ReadWord(text, i, &w);
      if (s == Scan::kWord) {
        d.Word(w);
        i = w.end;
        continue;
      }
      // Without a "?" further on no word can close: stop looking.
      if (s == Scan::kNoMoreWords) more_words = false;
    }
    d.Char(text[i++]);
  }
  return d.Finish();
}

WString DecodeHeaderText(WStringView text) {
  WString out;
  DecodeEncodedWords(text, &out);
  return out;
}

}  // namespace trv
