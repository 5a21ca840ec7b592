#include "mime/address_list.h"

#include "mime/encoded_word.h"

namespace trv {

namespace {

enum class Tok { kAtom, kQuoted, kLiteral, kSpecial };

struct Token {
  Tok kind;
  WString text;       // atom text, unescaped quoted content, "[literal]", or the special
  bool space_before;  // blanks or a comment before it
};

bool IsBlank(char16_t c) { return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n'; }
bool IsSpecial(char16_t c) {
  return c == u'<' || c == u'>' || c == u',' || c == u':' || c == u';' || c == u'@' || c == u'.' ||
         c == u'(' || c == u')' || c == u'"' || c == u'[' || c == u']' || c == u'\\';
}

// The end of an encoded word starting at s[i] ("=?cs?X?text?="), or 0. Such a
// word is one atom even when its text holds specials such as "," (our header
// writer copies them as they are).
size_t EncodedWordEnd(WStringView s, size_t i) {
  if (i + 1 >= s.size() || s[i] != u'=' || s[i + 1] != u'?') return 0;
  int marks = 0;
  for (size_t j = i + 2; j < s.size(); ++j) {
    const char16_t c = s[j];
    if (IsBlank(c) || c < 0x21 || c > 0x7E) return 0;
    if (c != u'?') continue;
    if (++marks == 3) return j + 1 < s.size() && s[j + 1] == u'=' ? j + 2 : 0;
  }
  return 0;
}

struct Tokens {
  std::vector<Token> list;
  std::vector<WString> comments;  // comment text per token index (the comment after it)
};

void Tokenize(WStringView s, Tokens* out) {
  bool space = false;
  size_t i = 0;
  const size_t n = s.size();
  auto push = [&](Tok k, WString text) {
    out->list.push_back({k, std::move(text), space});
    out->comments.emplace_back();
    space = false;
  };
  while (i < n) {
    const char16_t c = s[i];
    if (IsBlank(c)) {
      space = true;
      ++i;
    } else if (c == u'(') {
      WString comment;
      int depth = 0;
      for (; i < n; ++i) {
        if (s[i] == u'\\' && i + 1 < n) {
          comment.push_back(s[++i]);
        } else if (s[i] == u'(') {
          if (depth++ > 0) comment.push_back(u'(');
        } else if (s[i] == u')') {
          if (--depth == 0) break;
          comment.push_back(u')');
        } else {
          comment.push_back(s[i]);
        }
      }
      ++i;
      if (!out->list.empty()) {
        WString& slot = out->comments.back();
        if (!slot.empty()) slot.push_back(u' ');
        slot += comment;
      } else {
        out->list.push_back({Tok::kSpecial, u"", false});  // keeps a leading comment
        out->comments.push_back(std::move(comment));
      }
      space = true;
    } else if (c == u'"') {
      WString q;
      for (++i; i < n && s[i] != u'"'; ++i) {
        if (s[i] == u'\\' && i + 1 < n) ++i;
        q.push_back(s[i]);
      }
      ++i;
      push(Tok::kQuoted, std::move(q));
    } else if (c == u'[') {
      const size_t end = s.find(u']', i);
      const size_t stop = end == WStringView::npos ? n : end + 1;
      push(Tok::kLiteral, WString(s.substr(i, stop - i)));
      i = stop;
    } else if (IsSpecial(c)) {
      push(Tok::kSpecial, WString(1, c));
      ++i;
    } else {
      size_t j = EncodedWordEnd(s, i);
      if (j == 0) j = i;
      while (j < n && !IsBlank(s[j]) && !IsSpecial(s[j])) ++j;
      push(Tok::kAtom, WString(s.substr(i, j - i)));
      i = j;
    }
  }
}

bool IsSpecialTok(const Token& t, char16_t c) { return t.kind == Tok::kSpecial && t.text.size() == 1 && t.text[0] == c; }

// Words of a display name joined as they stood, then decoded.
WString Phrase(const std::vector<Token>& toks, size_t from, size_t to) {
  WString out;
  for (size_t i = from; i < to; ++i) {
    const Token& t = toks[i];
    if (t.kind == Tok::kSpecial && t.text.empty()) continue;
    if (!out.empty() && t.space_before) out.push_back(u' ');
    out += t.text;
  }
  return DecodeHeaderText(TrimView(out));
}

// Appends `text` as a quoted string, with a backslash before '"' and '\\'.
void AppendQuoted(WStringView text, WString* out) {
  out->push_back(u'"');
  for (char16_t c : text) {
    if (c == u'"' || c == u'\\') out->push_back(u'\\');
    out->push_back(c);
  }
  out->push_back(u'"');
}

bool NeedsQuotes(WStringView local) {
  for (char16_t c : local) {
    if (IsBlank(c) || IsSpecial(c)) return true;
  }
  return local.empty();
}

// The address itself (local part "@" domain) from tokens, blanks and comments dropped.
WString BareAddress(const std::vector<Token>& toks, size_t from, size_t to) {
  WString out;
  for (size_t i = from; i < to; ++i) {
    const Token& t = toks[i];
    if (t.kind == Tok::kQuoted && NeedsQuotes(t.text)) {
      AppendQuoted(t.text, &out);
    } else {
      out += t.text;
    }
  }
  return out;
}

class Parser {
 public:
  Parser(const Tokens& t, std::vector<MailAddress>* out) : t_(t.list), c_(t.comments), out_(out) {}

  void Run() {
    size_t i = 0;
    while (i < t_.size()) i = Mailbox(i);
  }

 private:
  // Parses one mailbox (or a group opening or closing) from i; returns where
  // the next one starts.
  size_t Mailbox(size_t i) {
    const size_t n = t_.size();
    size_t angle = n;
    size_t at = n;
    size_t j = i;
    for (; j < n; ++j) {
      const Token& t = t_[j];
      if (IsSpecialTok(t, u',')) break;
      if (IsSpecialTok(t, u';') && in_group_) break;
      if (IsSpecialTok(t, u'@') && at == n) at = j;
      if (IsSpecialTok(t, u':') && angle == n && at == n && !in_group_) {
        group_ = Phrase(t_, i, j);
        in_group_ = true;
        return j + 1;
      }
      if (IsSpecialTok(t, u'<') && angle == n) {
        angle = j;
        // Up to ">"; a comma ends a mailbox whose ">" is missing, except the
        // commas of a route ("<@a,@b:addr>").
        const bool route = j + 1 < n && IsSpecialTok(t_[j + 1], u'@');
        bool route_done = !route;
        for (++j; j < n && !IsSpecialTok(t_[j], u'>'); ++j) {
          if (IsSpecialTok(t_[j], u':')) route_done = true;
          if (IsSpecialTok(t_[j], u',') && route_done) break;
        }
        if (j == n || IsSpecialTok(t_[j], u',')) break;
      }
    }
    MailAddress a;
    a.group = in_group_ ? group_ : WString();
    if (angle < n) {
      a.name = Phrase(t_, i, angle);
      // The address runs to ">" (or to the separator when ">" is missing).
      size_t from = angle + 1;
      size_t end = from;
      while (end < j && !IsSpecialTok(t_[end], u'>')) ++end;
      // Drop an obsolete route "@a,@b:" before the address.
      if (from < end && IsSpecialTok(t_[from], u'@')) {
        size_t k = from;
        while (k < end && !IsSpecialTok(t_[k], u':')) ++k;
        if (k < end) from = k + 1;
      }
      a.address = BareAddress(t_, from, end);
    } else if (at < j) {
      a.address = BareAddress(t_, i, j);
      for (size_t k = i; k < j; ++k) {
        if (!c_[k].empty()) a.name = DecodeHeaderText(TrimView(c_[k]));
      }
    } else {
      // No address sign: a single atom is taken as an address (a local user),
      // anything else as a name.
      size_t words = 0;
      bool quoted = false;
      for (size_t k = i; k < j; ++k) {
        words += !(t_[k].kind == Tok::kSpecial && t_[k].text.empty());
        quoted = quoted || t_[k].kind == Tok::kQuoted;
      }
      if (words == 1 && !quoted) {
        a.address = BareAddress(t_, i, j);
      } else if (words > 0) {
        a.name = Phrase(t_, i, j);
      }
      if (a.name.empty()) {
        for (size_t k = i; k < j; ++k) {
          if (!c_[k].empty()) a.name = DecodeHeaderText(TrimView(c_[k]));
        }
      }
    }
    a.address = WString(TrimView(a.address));
    if (!a.address.empty() || !a.name.empty()) out_->push_back(std::move(a));
    if (j < n && IsSpecialTok(t_[j], u';') && in_group_) {
      in_group_ = false;
      group_.clear();
    }
    return j + 1;
  }

  const std::vector<Token>& t_;
  const std::vector<WString>& c_;
  std::vector<MailAddress>* out_;
  bool in_group_ = false;
  WString group_;
};

}  // namespace

std::vector<MailAddress> ParseAddressList(WStringView text) {
  Tokens toks;
  Tokenize(text, &toks);
  std::vector<MailAddress> out;
  Parser(toks, &out).Run();
  return out;
}

WString FormatAddress(const MailAddress& a) {
  if (a.name.empty()) return a.address;
  bool quote = false;
  for (char16_t c : a.name) {
    if (IsSpecial(c)) quote = true;
  }
  WString out;
  if (quote) {
    AppendQuoted(a.name, &out);
  } else {
    out = a.name;
  }
  if (!a.address.empty()) out += u" <" + a.address + u">";
  return out;
}

}  // namespace trv
