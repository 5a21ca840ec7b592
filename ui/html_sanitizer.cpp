#include "ui/html_sanitizer.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace trv {

namespace {

bool IsSpace(char16_t c) { return c == u' ' || c == u'\t' || c == u'\n' || c == u'\r' || c == u'\f'; }
bool IsAlpha(char16_t c) { return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z'); }
bool IsDigit(char16_t c) { return c >= u'0' && c <= u'9'; }
bool IsNameChar(char16_t c) { return IsAlpha(c) || IsDigit(c) || c == u'-' || c == u':' || c == u'_'; }

bool StartsWith(WStringView s, std::string_view ascii) {
  if (s.size() < ascii.size()) return false;
  for (size_t i = 0; i < ascii.size(); ++i) {
    if (s[i] != static_cast<char16_t>(ascii[i])) return false;
  }
  return true;
}

bool Is(WStringView name, std::initializer_list<std::string_view> names) {
  return std::any_of(names.begin(), names.end(), [&](std::string_view n) {
    return name.size() == n.size() && StartsWith(name, n);
  });
}

// Where `ascii` (lower case) starts in `s` from `from`, ignoring case; npos if nowhere.
size_t FindNoCase(WStringView s, std::string_view ascii, size_t from) {
  if (ascii.empty() || s.size() < ascii.size()) return WString::npos;
  for (size_t i = from; i + ascii.size() <= s.size(); ++i) {
    if (ToLowerAscii(s[i]) != static_cast<char16_t>(ascii[0])) continue;
    size_t k = 1;
    while (k < ascii.size() && ToLowerAscii(s[i + k]) == static_cast<char16_t>(ascii[k])) ++k;
    if (k == ascii.size()) return i;
  }
  return WString::npos;
}

// What a browser would see in an attribute value, for deciding only: character
// references decoded, blanks and control characters dropped (they may split
// "java&#9;script:"), lower case.
WString NormalizeUrl(WStringView v) {
  WString out;
  for (size_t i = 0; i < v.size() && out.size() < 64; ++i) {
    char16_t c = v[i];
    if (c == u'&' && i + 1 < v.size() && v[i + 1] == u'#') {
      size_t k = i + 2;
      const bool hex = k < v.size() && (v[k] == u'x' || v[k] == u'X');
      if (hex) ++k;
      uint32_t code = 0;
      size_t digits = 0;
      for (; k < v.size() && digits < 8; ++k, ++digits) {
        const char16_t d = ToLowerAscii(v[k]);
        if (IsDigit(d)) code = code * (hex ? 16 : 10) + (d - u'0');
        else if (hex && d >= u'a' && d <= u'f') code = code * 16 + (d - u'a' + 10);
        else break;
      }
      if (digits > 0) {
        if (k < v.size() && v[k] == u';') ++k;
        i = k - 1;
        c = code < 0x10000 ? static_cast<char16_t>(code) : u'?';
      }
    } else if (c == u'&') {
      static constexpr std::pair<std::string_view, char16_t> kNamed[] = {
          {"&colon;", u':'}, {"&sol;", u'/'}, {"&tab;", u'\t'}, {"&newline;", u'\n'}};
      for (const auto& [name, ch] : kNamed) {
        if (FindNoCase(v.substr(i, 10), name, 0) == 0) {
          c = ch;
          i += name.size() - 1;
          break;
        }
      }
    }
    if (c > u' ') out += ToLowerAscii(c);
  }
  return out;
}

enum class UrlKind { kOwn, kDataPicture, kRemote, kScript, kMail, kAnchor, kOther };

UrlKind Classify(WStringView value) {
  const WString n = NormalizeUrl(value);
  if (StartsWith(n, "cid:") || StartsWith(n, "inl:")) return UrlKind::kOwn;
  if (StartsWith(n, "data:image/")) return UrlKind::kDataPicture;
  for (std::string_view s : {"javascript:", "vbscript:", "livescript:", "data:"}) {
    if (StartsWith(n, s)) return UrlKind::kScript;
  }
  for (std::string_view s : {"http:", "https:", "ftp:", "//", "\\\\"}) {
    if (StartsWith(n, s)) return UrlKind::kRemote;
  }
  if (StartsWith(n, "mailto:")) return UrlKind::kMail;
  if (StartsWith(n, "#")) return UrlKind::kAnchor;
  return UrlKind::kOther;
}

// Elements removed with what they contain, and the kind they count as.
enum class Removed { kNone, kScript, kEmbedded, kQuiet };

Removed RemovedWithContent(WStringView name) {
  if (Is(name, {"script"})) return Removed::kScript;
  if (Is(name, {"iframe", "frame", "frameset", "object", "applet", "svg", "math", "template", "textarea", "select"})) {
    return Removed::kEmbedded;
  }
  if (Is(name, {"head", "title", "xml"})) return Removed::kQuiet;
  return Removed::kNone;
}

Removed RemovedTag(WStringView name) {
  if (Is(name, {"embed", "form", "input", "button", "option", "optgroup", "keygen", "isindex"})) {
    return Removed::kEmbedded;
  }
  if (Is(name, {"html", "body", "meta", "base", "link", "noscript", "noframes", "noembed", "param", "basefont"})) {
    return Removed::kQuiet;
  }
  return Removed::kNone;
}

bool IsVoid(WStringView name) {
  return Is(name, {"area", "br", "col", "hr", "img", "wbr", "source", "track", "image"});
}

// Attributes that make the viewer load something.
bool IsSourceAttribute(WStringView name) {
  return Is(name, {"src", "background", "lowsrc", "dynsrc", "poster", "srcset", "data", "action", "formaction",
                    "codebase", "xlink:href", "ping", "longdesc", "profile", "manifest"});
}

// Whether a new element `name` closes the open element `open` (and all
// opened inside it); `*stop` ends the search down the open elements (a cell
// closes an open cell of its own row, never one of an outer table).
bool ImpliedEnd(WStringView name, WStringView open, bool* stop) {
  *stop = false;
  if (Is(name, {"td", "th"})) {
    *stop = Is(open, {"tr", "table", "tbody", "thead", "tfoot"});
    return Is(open, {"td", "th"});
  }
  if (Is(name, {"tr"})) {
    *stop = Is(open, {"table", "tbody", "thead", "tfoot"});
    return Is(open, {"tr"});  // and the cells open in it
  }
  if (Is(name, {"li"})) {
    *stop = Is(open, {"ul", "ol", "menu"});
    return Is(open, {"li"});
  }
  if (Is(name, {"dt", "dd"})) {
    *stop = Is(open, {"dl"});
    return Is(open, {"dt", "dd"});
  }
  if (Is(name, {"p", "div", "table", "ul", "ol", "h1", "h2", "h3", "h4", "h5", "h6", "pre", "blockquote"})) {
    *stop = true;  // only an open paragraph right above
    return Is(open, {"p"});
  }
  *stop = true;
  return false;
}

void AppendEscaped(WString* out, WStringView value) {
  for (char16_t c : value) {
    if (c == u'"') *out += u"&quot;";
    else if (c == u'<') *out += u"&lt;";
    else if (c == u'>') *out += u"&gt;";
    else *out += c;
  }
}

struct Attribute {
  WStringView name;
  WStringView value;
};

class Sanitizer {
 public:
  Sanitizer(WStringView html, const HtmlSanitizeOptions& options, HtmlSanitizeReport* report)
      : in_(html), options_(options), report_(*report) {}

  WString Run() {
    while (pos_ < in_.size() && !report_.cut) {
      if (in_[pos_] == u'<') {
        Markup();
      } else {
        const size_t end = std::min(in_.find(u'<', pos_), in_.size());
        Emit(in_.substr(pos_, end - pos_));
        pos_ = end;
      }
    }
    while (!open_.empty()) CloseTop();
    return std::move(out_);
  }

  // CSS of a style attribute or element: "" when it cannot be made safe.
  WString Css(WStringView css) {
    // Escapes could spell "url(" or "expression(" past the checks below.
    if (css.find(u'\\') != WStringView::npos) return WString();
    for (std::string_view bad : {"expression(", "javascript:", "vbscript:", "behavior", "-moz-binding"}) {
      if (FindNoCase(css, bad, 0) != WString::npos) {
        ++report_.scripts;
        return WString();
      }
    }
    WString out;
    size_t pos = 0;
    // Each search runs again only once passed, so that many url(...) stay linear.
    size_t import = FindNoCase(css, "@import", 0);
    size_t url = FindNoCase(css, "url(", 0);
    while (pos < css.size()) {
      if (import != WString::npos && import < pos) import = FindNoCase(css, "@import", pos);
      if (url != WString::npos && url < pos) url = FindNoCase(css, "url(", pos);
      const size_t next = std::min(import, url);
      if (next == WString::npos) {
        out += css.substr(pos);
        break;
      }
      out += css.substr(pos, next - pos);
      if (next == import) {
        // A style sheet from elsewhere: never loaded, whatever is allowed.
        ++report_.remote_styles;
        const size_t semi = css.find(u';', next);
        pos = semi == WString::npos ? css.size() : semi + 1;
        continue;
      }
      const size_t close = css.find(u')', next);
      const size_t end = close == WString::npos ? css.size() : close + 1;
      WStringView arg = TrimView(css.substr(next + 4, (close == WString::npos ? css.size() : close) - next - 4));
      if (arg.size() >= 2 && (arg.front() == u'"' || arg.front() == u'\'')) arg = arg.substr(1, arg.size() - 2);
      const UrlKind kind = Classify(arg);
      if (kind == UrlKind::kRemote) ++report_.remote_styles;
      const bool keep = kind == UrlKind::kOwn || kind == UrlKind::kDataPicture ||
                        (kind == UrlKind::kRemote && options_.allow_remote);
      out += keep ? css.substr(next, end - next) : WStringView(u"none");
      pos = end;
    }
    std::erase(out, u'<');  // never ends a <style> element early
    return out;
  }

 private:
  // Text, or as much of it as the output may still take.
  void Emit(WStringView text) {
    if (out_.size() + text.size() > options_.max_output) {
      report_.cut = true;
      text = text.substr(0, options_.max_output - std::min(out_.size(), options_.max_output));
    }
    out_ += text;
  }

  void Markup() {
    const WStringView rest = in_.substr(pos_);
    if (StartsWith(rest, "<!--")) {
      const size_t end = in_.find(u"-->", pos_ + 4);
      pos_ = end == WString::npos ? in_.size() : end + 3;
      return;
    }
    const bool closing = rest.size() > 1 && rest[1] == u'/';
    const size_t name_at = pos_ + 1 + (closing ? 1 : 0);
    if (name_at < in_.size() && IsAlpha(in_[name_at])) {
      Tag(closing, name_at);
      return;
    }
    if (rest.size() > 1 && (rest[1] == u'!' || rest[1] == u'?' || closing)) {
      const size_t end = in_.find(u'>', pos_);  // doctype, processing instruction, bogus comment
      pos_ = end == WString::npos ? in_.size() : end + 1;
      return;
    }
    Emit(u"&lt;");
    ++pos_;
  }

  // Reads the tag at name_at; false when the input ends inside it.
  bool ReadTag(size_t name_at, WString* name, std::vector<Attribute>* attributes) {
    size_t p = name_at;
    while (p < in_.size() && IsNameChar(in_[p])) ++p;
    *name = ToLowerAscii(in_.substr(name_at, p - name_at));
    for (;;) {
      while (p < in_.size() && (IsSpace(in_[p]) || in_[p] == u'/')) ++p;
      if (p >= in_.size()) return false;
      if (in_[p] == u'>') {
        pos_ = p + 1;
        return true;
      }
      const size_t attr_at = p++;
      while (p < in_.size() && !IsSpace(in_[p]) && in_[p] != u'/' && in_[p] != u'>' && in_[p] != u'=') ++p;
      Attribute a{in_.substr(attr_at, p - attr_at), {}};
      size_t q = p;
      while (q < in_.size() && IsSpace(in_[q])) ++q;
      if (q < in_.size() && in_[q] == u'=') {
        ++q;
        while (q < in_.size() && IsSpace(in_[q])) ++q;
        if (q >= in_.size()) return false;
        if (in_[q] == u'"' || in_[q] == u'\'') {
          const size_t end = in_.find(in_[q], q + 1);
          if (end == WString::npos) return false;
          a.value = in_.substr(q + 1, end - q - 1);
          p = end + 1;
        } else {
          p = q;
          while (p < in_.size() && !IsSpace(in_[p]) && in_[p] != u'>') ++p;
          a.value = in_.substr(q, p - q);
        }
      }
      attributes->push_back(a);
    }
  }

  void Tag(bool closing, size_t name_at) {
    WString name;
    std::vector<Attribute> attributes;
    if (!ReadTag(name_at, &name, &attributes)) {
      pos_ = in_.size();  // a tag cut off by the end of the text
      return;
    }
    if (const Removed r = RemovedWithContent(name); r != Removed::kNone) {
      if (closing) return;
      Count(r);
      SkipContent(name);
      return;
    }
    if (const Removed r = RemovedTag(name); r != Removed::kNone) {
      if (!closing) Count(r);
      return;
    }
    if (closing) {
      End(name);
      return;
    }
    Start(name, attributes);
  }

  void Count(Removed r) {
    if (r == Removed::kScript) ++report_.scripts;
    if (r == Removed::kEmbedded) ++report_.embedded;
  }

  // Past the end tag of `name` (or to the end of the text).
  void SkipContent(WStringView name) {
    std::string end = "</";
    for (char16_t c : name) end += static_cast<char>(c);
    size_t at = pos_;
    for (;;) {
      at = FindNoCase(in_, end, at);
      if (at == WString::npos) {
        pos_ = in_.size();
        return;
      }
      const size_t after = at + end.size();
      if (after >= in_.size() || !IsNameChar(in_[after])) break;
      at = after;
    }
    const size_t gt = in_.find(u'>', at);
    pos_ = gt == WString::npos ? in_.size() : gt + 1;
  }

  void Start(const WString& name, const std::vector<Attribute>& attributes) {
    // A new cell closes the open one, and so on; never past a table or list,
    // and not searched deeper than kImpliedEndSearch open elements.
    constexpr size_t kImpliedEndSearch = 32;
    for (size_t i = open_.size(); i > 0 && open_.size() - i < kImpliedEndSearch; --i) {
      bool stop = false;
      if (ImpliedEnd(name, open_[i - 1], &stop)) {
        while (open_.size() >= i) CloseTop();
        break;
      }
      if (stop) break;
    }
    const bool is_void = IsVoid(name);
    if (!is_void && open_.size() >= options_.max_depth) {
      report_.depth_cut = true;
      if (Is(name, {"style"})) SkipContent(name);
      return;
    }
    if (++elements_ > options_.max_elements) {
      report_.cut = true;
      return;
    }
    WString tag = u"<" + name;
    for (const Attribute& a : attributes) AddAttribute(a, &tag);
    tag += u'>';
    if (Is(name, {"style"})) {
      const size_t content_at = pos_;
      SkipContent(name);
      const size_t end = FindNoCase(in_.substr(0, pos_), "</style", content_at);
      tag += Css(in_.substr(content_at, (end == WString::npos ? pos_ : end) - content_at));
      tag += u"</style>";
      Emit(tag);
      return;
    }
    if (out_.size() + tag.size() > options_.max_output) {
      report_.cut = true;
      return;
    }
    out_ += tag;
    if (!is_void) open_.push_back(name);
  }

  void AddAttribute(const Attribute& a, WString* tag) {
    const WString name = ToLowerAscii(a.name);
    if (name.empty() || !std::all_of(name.begin(), name.end(), IsNameChar)) return;
    if (a.value.size() > options_.max_attribute) {
      ++report_.long_attributes;
      return;
    }
    if (StartsWith(name, "on")) {
      ++report_.event_handlers;
      return;
    }
    WString value(a.value);
    if (IsSourceAttribute(name)) {
      const UrlKind kind = Classify(value);
      if (kind == UrlKind::kScript) ++report_.scripts;
      if (kind == UrlKind::kRemote) {
        ++report_.remote_pictures;
        if (report_.remote_sources.size() < HtmlSanitizeReport::kMaxRemoteSources) report_.remote_sources.push_back(value);
        if (!options_.allow_remote) return;
      } else if (kind != UrlKind::kOwn && kind != UrlKind::kDataPicture) {
        return;
      }
    } else if (name == u"href") {
      const UrlKind kind = Classify(value);
      if (kind == UrlKind::kScript) ++report_.scripts;
      if (kind != UrlKind::kRemote && kind != UrlKind::kMail && kind != UrlKind::kAnchor) return;
    } else if (name == u"style") {
      value = Css(value);
      if (value.empty()) return;
    }
    *tag += u' ';
    *tag += name;
    *tag += u"=\"";
    AppendEscaped(tag, value);
    *tag += u'"';
  }

  // An end tag closes its element and every one opened inside it; one with
  // no open element is dropped.
  void End(const WString& name) {
    const auto it = std::find(open_.rbegin(), open_.rend(), name);
    if (it == open_.rend()) return;
    const size_t keep = static_cast<size_t>(open_.rend() - it) - 1;
    while (open_.size() > keep) CloseTop();
  }

  void CloseTop() {
    out_ += u"</" + open_.back() + u">";
    open_.pop_back();
  }

  WStringView in_;
  const HtmlSanitizeOptions& options_;
  HtmlSanitizeReport& report_;
  size_t pos_ = 0;
  size_t elements_ = 0;
  std::vector<WString> open_;
  WString out_;
};

}  // namespace

WString SanitizeHtml(WStringView html, const HtmlSanitizeOptions& options, HtmlSanitizeReport* report) {
  *report = HtmlSanitizeReport();
  return Sanitizer(html, options, report).Run();
}

}  // namespace trv
