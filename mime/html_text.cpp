#include "mime/html_text.h"

#include <charconv>

namespace trv {

namespace {

bool IsHtmlSpace(char16_t c) { return c == u' ' || c == u'\t' || c == u'\n' || c == u'\r' || c == u'\f'; }

// Finds `needle` (ASCII, lower case) from `from` without regard to case.
size_t FindNoCase(WStringView text, WStringView needle, size_t from) {
  if (needle.size() > text.size()) return WStringView::npos;
  for (size_t i = from; i + needle.size() <= text.size(); ++i) {
    if (EqualsNoCase(text.substr(i, needle.size()), needle)) return i;
  }
  return WStringView::npos;
}

constexpr struct {
  std::u16string_view name;
  char16_t c;
} kEntities[] = {
    {u"amp", u'&'},       {u"lt", u'<'},        {u"gt", u'>'},        {u"quot", u'"'},
    {u"apos", u'\''},     {u"nbsp", u'\u00A0'}, {u"copy", u'\u00A9'}, {u"reg", u'\u00AE'},
    {u"mdash", u'\u2014'}, {u"ndash", u'\u2013'}, {u"hellip", u'\u2026'}, {u"laquo", u'\u00AB'},
    {u"raquo", u'\u00BB'}, {u"euro", u'\u20AC'}, {u"shy", u'\u00AD'},  {u"bull", u'\u2022'},
};

void AppendCodePoint(WString* out, uint32_t cp) {
  if (cp == 0 || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = 0xFFFD;
  if (cp < 0x10000) {
    *out += static_cast<char16_t>(cp);
  } else {
    cp -= 0x10000;
    *out += static_cast<char16_t>(0xD800 + (cp >> 10));
    *out += static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
  }
}

// Decodes the character reference at html[i] ("&..."); returns the index
// after it, or i + 1 with a plain "&" when it is none.
size_t Reference(WStringView html, size_t i, WString* out) {
  const size_t semi = html.find(u';', i + 1);
  if (semi == WStringView::npos || semi - i > 10) {
    *out += u'&';
    return i + 1;
  }
  const WStringView name = html.substr(i + 1, semi - i - 1);
  if (name.starts_with(u'#') && name.size() > 1) {
    const bool hex = name[1] == u'x' || name[1] == u'X';
    const std::string digits = WideToLatin1(name.substr(hex ? 2 : 1));
    uint32_t cp = 0;
    const auto r = std::from_chars(digits.data(), digits.data() + digits.size(), cp, hex ? 16 : 10);
    if (r.ec == std::errc() && r.ptr == digits.data() + digits.size() && !digits.empty()) {
      AppendCodePoint(out, cp);
      return semi + 1;
    }
  }
  for (const auto& e : kEntities) {
    if (name == e.name) {
      *out += e.c;
      return semi + 1;
    }
  }
  *out += u'&';
  return i + 1;
}

class Converter {
 public:
  explicit Converter(WStringView html) : html_(html) {}

  WString Run() {
    size_t i = 0;
    while (i < html_.size()) {
      const char16_t c = html_[i];
      if (c == u'<') {
        i = Tag(i);
      } else if (c == u'&') {
        WString decoded;
        i = Reference(html_, i, &decoded);
        Text(decoded);
      } else {
        Text(WStringView(&html_[i], 1));
        ++i;
      }
    }
    while (!out_.empty() && IsHtmlSpace(out_.back())) out_.pop_back();
    if (!out_.empty()) out_ += u'\n';
    return std::move(out_);
  }

 private:
  void Text(WStringView text) {
    for (char16_t c : text) {
      if (pre_ == 0 && IsHtmlSpace(c)) {
        space_ = true;
        continue;
      }
      if (space_ && !out_.empty() && out_.back() != u'\n') out_ += u' ';
      space_ = false;
      out_ += c == u'\u00A0' ? u' ' : c;
    }
  }

  void Break() {
    space_ = false;
    while (!out_.empty() && out_.back() == u' ') out_.pop_back();
    if (out_.empty()) return;
    // At most one empty line in a row.
    if (out_.size() >= 2 && out_[out_.size() - 1] == u'\n' && out_[out_.size() - 2] == u'\n') return;
    out_ += u'\n';
  }

  // Handles the tag at html_[i]; returns the index after it.
  size_t Tag(size_t i) {
    if (html_.substr(i).starts_with(u"<!--")) {
      const size_t end = html_.find(u"-->", i + 4);
      return end == WStringView::npos ? html_.size() : end + 3;
    }
    size_t end = html_.find(u'>', i + 1);
    if (end == WStringView::npos) end = html_.size();
    const WStringView inside = html_.substr(i + 1, end - i - 1);
    const bool closing = inside.starts_with(u'/');
    size_t n = closing ? 1 : 0;
    while (n < inside.size() && !IsHtmlSpace(inside[n]) && inside[n] != u'/' && inside[n] != u'>') ++n;
    const WString name = ToLowerAscii(inside.substr(closing ? 1 : 0, n - (closing ? 1 : 0)));
    const size_t after = std::min(end + 1, html_.size());

    if (!closing && (name == u"script" || name == u"style" || name == u"head" || name == u"title")) {
      const size_t close = FindNoCase(html_, u"</" + name, after);
      if (close == WStringView::npos) return html_.size();
      const size_t close_end = html_.find(u'>', close);
      return close_end == WStringView::npos ? html_.size() : close_end + 1;
    }
    if (name == u"pre") {
      Break();
      pre_ += closing ? (pre_ > 0 ? -1 : 0) : 1;
    } else if (name == u"br") {
      out_ += u'\n';
      space_ = false;
    } else if (name == u"li" && !closing) {
      Break();
      out_ += u"\u2022 ";
    } else if (name == u"p" || name == u"div" || name == u"tr" || name == u"table" || name == u"ul" ||
               name == u"ol" || name == u"blockquote" || name == u"hr" || name == u"li" ||
               (name.size() == 2 && name[0] == u'h' && name[1] >= u'1' && name[1] <= u'6')) {
      Break();
      if (name == u"p" || name[0] == u'h') Break();
    } else if ((name == u"td" || name == u"th") && !closing) {
      space_ = true;
    }
    return after;
  }

  WStringView html_;
  WString out_;
  bool space_ = false;
  int pre_ = 0;
};

}  // namespace

WString HtmlToPlainText(WStringView html) { return Converter(html).Run(); }

WStringView HtmlBodyContent(WStringView html) {
  const size_t body = FindNoCase(html, u"<body", 0);
  if (body == WStringView::npos) return html;
  const size_t open_end = html.find(u'>', body);
  if (open_end == WStringView::npos) return html.substr(html.size());
  const size_t close = FindNoCase(html, u"</body", open_end);
  return html.substr(open_end + 1, (close == WStringView::npos ? html.size() : close) - open_end - 1);
}

}  // namespace trv
