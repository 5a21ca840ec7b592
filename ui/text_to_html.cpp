#include "ui/text_to_html.h"

#include <charconv>
#include <string>

namespace trv {

namespace {

constexpr char16_t kBreak[] = u"<br>";
constexpr char16_t kSeparatorLine[] = u"<hr width=\"100%\" size=\"2\">";
constexpr char16_t kLinkStart[] = u"<a href=\"";
constexpr char16_t kWebLinkStart[] = u"<a href=\"http://";
constexpr char16_t kMailLinkStart[] = u"<a href=\"mailto:";
constexpr char16_t kLinkMiddle[] = u"\">";
constexpr char16_t kLinkEnd[] = u"</a>";

// Address characters: the double quote (34) ends an address like the blank
// and "!" do.
bool IsAddressChar(char16_t c) { return c > 34 && c != u';' && c != u',' && c != u'<' && c != u'>'; }

bool IsWordStart(WStringView text, size_t i) {
  if (i == 0) return true;
  const char16_t p = text[i - 1];
  return p == u'\t' || p == u'\n' || p == u'\r' || p == u' ';
}

size_t AddressEnd(WStringView text, size_t from) {
  while (from < text.size() && IsAddressChar(text[from])) ++from;
  return from;
}

// The kinds of link that start at one letter.
struct LinkRule {
  std::u16string_view rest;  // what must follow the letter, compared without case
  const char16_t* start;     // the opening of the anchor
};
constexpr LinkRule kWebRule{u"ttp://", kLinkStart};
constexpr LinkRule kWwwRule{u"ww.", kWebLinkStart};
constexpr LinkRule kMailtoRule{u"ailto:", kLinkStart};

class Converter {
 public:
  Converter(WStringView in, bool no_links) : in_(in), no_links_(no_links) { out_.reserve(in.size() + in.size() / 8); }

  WString Run() {
    size_t i = 0;
    while (i < in_.size()) i = Step(i);
    return std::move(out_);
  }

 private:
  // Converts what starts at i; returns where to go on.
  size_t Step(size_t i) {
    const char16_t c = in_[i];
    switch (c) {
      case u'<': out_ += u"&lt;"; return i + 1;
      case u'>': out_ += u"&gt;"; return i + 1;
      case u'&': out_ += u"&amp;"; return i + 1;
      case u'\\': out_ += u"&quot;"; return i + 1;
      case u'\r':
        if (i + 1 < in_.size() && in_[i + 1] == u'\n') {
          out_ += kBreak;
          return i + 2;
        }
        return i + 1;
      case u';':
      case u',':
        separator_ = static_cast<long>(out_.size());
        out_ += c;
        return i + 1;
      default: break;
    }
    if (!no_links_) {
      switch (c) {
        case u'h': case u'H': return Link(i, kWebRule);
        case u'w': case u'W': return Link(i, kWwwRule);
        case u'm': case u'M': return Link(i, kMailtoRule);
        case u'@': return MailAddress(i);
        default: break;
      }
    }
    out_ += c;
    return i + 1;
  }

  size_t Link(size_t i, const LinkRule& rule) {
    const size_t first = i + 1 + rule.rest.size();  // first address character
    if (!IsWordStart(in_, i) || first >= in_.size() ||
        !EqualsNoCase(in_.substr(i + 1, rule.rest.size()), rule.rest) || !IsAddressChar(in_[first])) {
      out_ += in_[i];
      return i + 1;
    }
    const size_t end = AddressEnd(in_, first);
    AppendAnchor(rule.start, in_.substr(i, end - i));
    return end;
  }

  size_t MailAddress(size_t i) {
    // The local part is the run of address characters (other than "@") at
    // the end of the output, never reaching back past the last separator:
    // it starts at separator_ + 1 at the earliest.
    const size_t floor = static_cast<size_t>(separator_ + 1);
    size_t local_start = out_.size();
    while (local_start > floor && IsAddressChar(out_[local_start - 1]) && out_[local_start - 1] != u'@') {
      --local_start;
    }

    if (local_start >= out_.size() || out_[local_start] == u'@' || i + 1 >= in_.size() ||
        !IsAddressChar(in_[i + 1])) {
      out_ += u'@';
      return i + 1;
    }
    WString address = RestoreEntities(WStringView(out_).substr(local_start));
    out_.resize(local_start);
    const size_t end = AddressEnd(in_, i + 1);
    address += u'@';
    address += in_.substr(i + 1, end - i - 1);
    AppendAnchor(kMailLinkStart, address);
    return end;
  }

  // "&amp;" and "&quot;" back to "&" and the double quote.
  static WString RestoreEntities(WStringView s) {
    WString raw;
    for (size_t j = 0; j < s.size();) {
      if (s.substr(j).starts_with(u"&amp;")) {
        raw += u'&';
        j += 5;
      } else if (s.substr(j).starts_with(u"&quot;")) {
        raw += u'"';
        j += 6;
      } else {
        raw += s[j++];
      }
    }
    return raw;
  }

  void AppendAnchor(const char16_t* start, WStringView target) {
    out_ += start;
    out_ += target;
    out_ += kLinkMiddle;
    out_ += Converter(target, true).Run();
    out_ += kLinkEnd;
  }

  const WStringView in_;
  const bool no_links_;
  WString out_;
  long separator_ = -1;  // output length at the last ";" or ","
};

void AppendNumber(WString& out, int v) {
  char buf[16];
  const auto r = std::to_chars(buf, buf + sizeof buf, v);
  out += Latin1ToWide(std::string_view(buf, static_cast<size_t>(r.ptr - buf)));
}

// Escapes a value for a double-quoted attribute; the browser reads back the
// same characters.
void AppendAttribute(WString& out, WStringView value) {
  for (const char16_t c : value) {
    switch (c) {
      case u'&': out += u"&amp;"; break;
      case u'"': out += u"&quot;"; break;
      case u'<': out += u"&lt;"; break;
      case u'>': out += u"&gt;"; break;
      default: out += c;
    }
  }
}

}  // namespace

void ConvertTextToHtml(WString* text, bool no_links) { *text = Converter(*text, no_links).Run(); }

WString TextToHtml(WStringView text, bool no_links) { return Converter(text, no_links).Run(); }

WString PictureSource(const HtmlPicture& picture) {
  WStringView id = picture.content_id;
  if (id.empty()) {
    WString name = u"inl:";
    AppendNumber(name, picture.item);
    name += u'.';
    AppendNumber(name, picture.number);
    return name;
  }
  if (id.starts_with(u'<')) id.remove_prefix(1);
  if (id.ends_with(u'>')) id.remove_suffix(1);
  return u"cid:" + WString(id);
}

WString BuildHtmlDocument(const std::vector<HtmlBlock>& blocks) {
  WString doc = u"<HTML><HEAD></HEAD><BODY>\n";
  bool had_text = false;
  for (const HtmlBlock& block : blocks) {
    const auto* text = std::get_if<WString>(&block);
    const auto* markup = std::get_if<HtmlMarkup>(&block);
    if (text || markup) {
      if (had_text) {
        doc += u'\n';
        doc += kBreak;
        doc += kSeparatorLine;
        doc += kBreak;
        doc += u'\n';
      }
      had_text = true;
      doc += text ? TextToHtml(*text) : markup->html;
    } else {
      const HtmlPicture& picture = std::get<HtmlPicture>(block);
      doc += u"<img src=\"";
      AppendAttribute(doc, PictureSource(picture));
      doc += u"\" title=\"\" alt=\"\" width=\"";
      AppendNumber(doc, picture.width);
      doc += u"\" height=\"";
      AppendNumber(doc, picture.height);
      doc += u"\">";
    }
  }
  doc += u"</BODY></HTML>";
  return doc;
}

}  // namespace trv
