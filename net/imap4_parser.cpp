#include "net/imap4_parser.h"

#include <algorithm>

#include "base/wide_string.h"
#include "mime/charset/converter.h"
#include "mime/rfc822_date.h"

namespace trv {
namespace {

bool Digits(std::string_view s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Decimal digits that fit in max; false otherwise.
bool ToNumber(std::string_view s, uint64_t max, uint64_t* out) {
  if (!Digits(s) || s.size() > 20) return false;
  uint64_t v = 0;
  for (char c : s) {
    const uint64_t d = static_cast<uint64_t>(c - '0');
    if (v > (max - d) / 10) return false;
    v = v * 10 + d;
  }
  *out = v;
  return true;
}

bool ToNumber32(std::string_view s, uint32_t* out) {
  uint64_t v = 0;
  if (!ToNumber(s, 0xFFFFFFFFu, &v)) return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

// One value read by the token reader.
struct Value {
  bool nil = false;
  bool streamed = false;
  uint64_t size = 0;
  std::string bytes;
};

// The token reader over one joined response.
class Reader {
 public:
  Reader(const Imap4Response& r, size_t pos) : r_(r), t_(r.text), pos_(pos) {}

  size_t pos() const { return pos_; }
  bool AtEnd() const { return pos_ >= t_.size(); }
  char Peek() const { return AtEnd() ? '\0' : t_[pos_]; }
  bool Take(char c) {
    if (AtEnd() || t_[pos_] != c) return false;
    ++pos_;
    return true;
  }
  void SkipSpaces() {
    while (Take(' ')) {
    }
  }

  // A run of characters up to a blank, a control character, "(", ")", "{",
  // a double quote, and (unless brackets) "[" or "]".
  bool Word(std::string_view* out, bool brackets = false) {
    const size_t start = pos_;
    while (!AtEnd()) {
      const unsigned char c = static_cast<unsigned char>(t_[pos_]);
      if (c <= ' ' || c == 0x7F || c == '(' || c == ')' || c == '{' || c == '"') break;
      if (!brackets && (c == '[' || c == ']')) break;
      ++pos_;
    }
    *out = t_.substr(start, pos_ - start);
    return pos_ > start;
  }

  bool Number(uint32_t* out) {
    std::string_view w;
    const size_t start = pos_;
    if (Word(&w) && ToNumber32(w, out)) return true;
    pos_ = start;
    return false;
  }
  bool Number64(uint64_t* out) {
    std::string_view w;
    const size_t start = pos_;
    if (Word(&w) && ToNumber(w, UINT64_MAX, out)) return true;
    pos_ = start;
    return false;
  }

  // A double-quoted string with backslash escapes.
  bool Quoted(std::string* out) {
    if (!Take('"')) return false;
    out->clear();
    while (!AtEnd()) {
      char c = t_[pos_++];
      if (c == '"') return true;
      if (c == '\\') {
        if (AtEnd()) return false;
        c = t_[pos_++];
      }
      out->push_back(c);
    }
    return false;
  }

  // "{n}" (or "~{n}") whose literal was joined right after it.
  bool Literal(Value* out) {
    const size_t start = pos_;
    Take('~');
    if (!Take('{')) return Back(start);
    const size_t close = t_.find('}', pos_);
    uint64_t size = 0;
    if (close == std::string_view::npos || !ToNumber(t_.substr(pos_, close - pos_), UINT64_MAX, &size)) {
      return Back(start);
    }
    pos_ = close + 1;
    const auto it = std::lower_bound(r_.literals.begin(), r_.literals.end(), pos_,
                                     [](const Imap4Literal& l, size_t at) { return l.offset < at; });
    if (it == r_.literals.end() || it->offset != pos_ || it->size != size) return Back(start);
    out->nil = false;
    out->streamed = it->streamed;
    out->size = size;
    out->bytes = it->bytes;
    return true;
  }

  // NIL, a quoted string or a literal.
  bool NString(Value* out) {
    if (Peek() == '"') {
      *out = Value{};
      if (!Quoted(&out->bytes)) return false;
      out->size = out->bytes.size();
      return true;
    }
    if (Peek() == '{' || Peek() == '~') return Literal(out);
    const size_t start = pos_;
    std::string_view w;
    if (Word(&w) && EqualsNoCase(w, "NIL")) {
      *out = Value{};
      out->nil = true;
      return true;
    }
    return Back(start);
  }

  // An atom (brackets allowed, as in mailbox names), a quoted string or a
  // literal; NIL is refused.
  bool AString(std::string* out) {
    Value v;
    if (Peek() == '"' || Peek() == '{' || Peek() == '~') {
      if (!NString(&v) || v.streamed) return false;
      *out = std::move(v.bytes);
      return true;
    }
    std::string_view w;
    if (!Word(&w, true)) return false;
    *out = w;
    return true;
  }

  // Any one value: a scalar or a parenthesised list, nested at most
  // kImap4MaxDepth deep; iterative.
  bool SkipValue() {
    int depth = 0;
    for (;;) {
      if (depth > 0) SkipSpaces();
      if (Take('(')) {
        if (++depth > kImap4MaxDepth) return false;
        continue;
      }
      if (depth > 0 && Take(')')) {
        if (--depth == 0) return true;
        continue;
      }
      Value v;
      std::string_view w;
      if (Peek() == '"' || Peek() == '{' || Peek() == '~') {
        if (!NString(&v)) return false;
      } else if (!Word(&w, true)) {
        return false;
      }
      if (depth == 0) return true;
    }
  }

  // "(" words ")", words being flags or attributes.
  bool WordList(std::vector<std::string>* out) {
    SkipSpaces();
    if (!Take('(')) return false;
    for (;;) {
      SkipSpaces();
      if (Take(')')) return true;
      std::string_view w;
      if (!Word(&w)) return false;
      out->emplace_back(w);
    }
  }

  // A FETCH item name: a word, then "[section]" and "<origin>" when present.
  bool Item(std::string* item, std::string* section, bool* has_section, std::optional<uint32_t>* origin) {
    const size_t start = pos_;
    std::string_view w;
    if (!Word(&w)) return false;
    *has_section = false;
    origin->reset();
    if (Take('[')) {
      const size_t open = pos_;
      bool quoted = false;
      while (!AtEnd() && (quoted || t_[pos_] != ']')) {
        if (t_[pos_] == '"') quoted = !quoted;
        ++pos_;
      }
      if (!Take(']')) return false;
      *section = ToUpperAscii(t_.substr(open, pos_ - 1 - open));
      *has_section = true;
      if (Take('<')) {
        uint32_t n = 0;
        const size_t digits = pos_;
        while (!AtEnd() && t_[pos_] >= '0' && t_[pos_] <= '9') ++pos_;
        if (!ToNumber32(t_.substr(digits, pos_ - digits), &n) || !Take('>')) return false;
        *origin = n;
      }
    }
    *item = t_.substr(start, pos_ - start);
    return true;
  }

 private:
  bool Back(size_t start) {
    pos_ = start;
    return false;
  }

  const Imap4Response& r_;
  std::string_view t_;
  size_t pos_;
};

uint32_t AttributeBit(std::string_view word) {
  static constexpr std::pair<std::string_view, uint32_t> kAttributes[] = {
      {"\\NoSelect", kImap4AttrNoSelect}, {"\\NoInferiors", kImap4AttrNoInferiors},
      {"\\Marked", kImap4AttrMarked},     {"\\UnMarked", kImap4AttrUnMarked},
      {"\\HasChildren", kImap4AttrHasChildren}, {"\\HasNoChildren", kImap4AttrHasNoChildren},
  };
  for (const auto& [name, bit] : kAttributes) {
    if (EqualsNoCase(word, name)) return bit;
  }
  return 0;
}

void SplitFlags(const std::vector<std::string>& words, uint32_t* bits, std::vector<std::string>* keywords) {
  *bits = 0;
  keywords->clear();
  for (const std::string& w : words) {
    const uint32_t bit = Imap4FlagBit(w);
    if (bit) {
      *bits |= bit;
    } else {
      keywords->push_back(w);
    }
  }
}

// The section name a FETCH item stands for; false for items without one.
bool SectionOf(std::string_view item, bool has_section, const std::string& section, std::string* out) {
  if (has_section) {
    *out = section;
    return true;
  }
  if (EqualsNoCase(item, "RFC822")) return out->clear(), true;
  if (EqualsNoCase(item, "RFC822.HEADER")) return *out = "HEADER", true;
  if (EqualsNoCase(item, "RFC822.TEXT")) return *out = "TEXT", true;
  return false;
}

// Reads one FETCH item's value into out.
bool FetchValue(Reader& in, const std::string& item, bool has_section, const std::string& section,
                const std::optional<uint32_t>& origin, Imap4FetchData* out) {
  const std::string key = ToUpperAscii(item);
  if (key == "UID") {
    uint32_t uid = 0;
    if (!in.Number(&uid)) return false;
    out->uid = uid;
    return true;
  }
  if (key == "RFC822.SIZE") {
    uint64_t size = 0;
    if (!in.Number64(&size)) return false;
    out->size = size;
    return true;
  }
  if (key == "FLAGS") {
    std::vector<std::string> words;
    uint32_t bits = 0;
    if (!in.WordList(&words)) return false;
    SplitFlags(words, &bits, &out->keywords);
    out->flags = bits;
    return true;
  }
  if (key == "INTERNALDATE") {
    Value v;
    if (!in.NString(&v) || v.nil || v.streamed) return false;
    out->internal_date = v.bytes;
    if (!ParseImapDate(v.bytes, &out->internal_date_value)) out->internal_date_value = 0.0;
    return true;
  }
  std::string name;
  if (!SectionOf(key, has_section, section, &name) || key.starts_with("BODYSTRUCTURE")) return in.SkipValue();
  Value v;
  if (!in.NString(&v)) return false;
  Imap4Section s;
  s.item = item;
  s.name = std::move(name);
  s.origin = origin;
  s.size = v.size;
  s.nil = v.nil;
  s.streamed = v.streamed;
  s.bytes = std::move(v.bytes);
  out->sections.push_back(std::move(s));
  return true;
}

}  // namespace

bool Imap4Capabilities::Has(std::string_view word) const {
  return std::any_of(words.begin(), words.end(), [word](const std::string& w) { return EqualsNoCase(w, word); });
}

const Imap4Section* Imap4FetchData::Section(std::string_view name) const {
  for (const Imap4Section& s : sections) {
    if (EqualsNoCase(s.name, name)) return &s;
  }
  return nullptr;
}

uint64_t Imap4UidSet::Count() const {
  uint64_t n = 0;
  for (const Imap4UidRange& r : ranges) n += uint64_t{r.last} - r.first + 1;
  return n;
}

uint32_t Imap4UidSet::At(uint64_t n) const {
  for (const Imap4UidRange& r : ranges) {
    const uint64_t span = uint64_t{r.last} - r.first + 1;
    if (n < span) return static_cast<uint32_t>(r.first + n);
    n -= span;
  }
  return 0;
}

std::optional<uint64_t> TrailingLiteral(std::string_view line) {
  if (!line.ends_with('}')) return std::nullopt;
  const size_t open = line.rfind('{');
  uint64_t n = 0;
  if (open == std::string_view::npos || !ToNumber(line.substr(open + 1, line.size() - open - 2), UINT64_MAX, &n)) {
    return std::nullopt;
  }
  return n;
}

bool Imap4SplitWire(std::string_view* wire, Imap4Response* out) {
  out->Clear();
  std::string_view w = *wire;
  for (;;) {
    const size_t end = w.find("\r\n");
    if (end == std::string_view::npos) return false;
    const std::string_view line = w.substr(0, end);
    out->text += line;
    w.remove_prefix(end + 2);
    const std::optional<uint64_t> size = TrailingLiteral(line);
    if (!size) break;
    if (w.size() < *size) return false;
    Imap4Literal lit;
    lit.offset = out->text.size();
    lit.size = *size;
    lit.bytes = w.substr(0, *size);
    out->literals.push_back(std::move(lit));
    w.remove_prefix(*size);
  }
  *wire = w;
  return true;
}

Result ParseHead(std::string_view text, Imap4Head* head) {
  *head = Imap4Head{};
  if (text == "+" || text.starts_with("+ ")) {
    head->kind = Imap4Kind::kContinuation;
    head->rest = 1;
    return rc::kOk;
  }
  const size_t blank = text.find(' ');
  if (text.empty() || blank == std::string_view::npos || blank == 0) return rc::kImap4Malformed;
  size_t pos = blank + 1;
  const auto word = [&text, &pos]() {
    const size_t end = std::min(text.find(' ', pos), text.size());
    const std::string_view w = text.substr(pos, end - pos);
    pos = end;
    return w;
  };
  if (text.substr(0, blank) == "*") {
    std::string_view first = word();
    if (Digits(first)) {
      if (!ToNumber32(first, &head->number)) return rc::kImap4Malformed;
      head->kind = Imap4Kind::kNumbered;
      ++pos;
      if (pos > text.size()) return rc::kImap4Malformed;
      first = word();
    } else {
      head->kind = Imap4Kind::kUntagged;
    }
    if (first.empty()) return rc::kImap4Malformed;
    head->keyword = ToUpperAscii(first);
  } else {
    head->kind = Imap4Kind::kTagged;
    head->tag = text.substr(0, blank);
    head->keyword = ToUpperAscii(word());
  }
  head->rest = pos;
  static constexpr std::pair<std::string_view, Imap4Status> kStatus[] = {
      {"OK", Imap4Status::kOk},   {"NO", Imap4Status::kNo},           {"BAD", Imap4Status::kBad},
      {"BYE", Imap4Status::kBye}, {"PREAUTH", Imap4Status::kPreauth},
  };
  if (head->kind != Imap4Kind::kNumbered) {
    for (const auto& [name, status] : kStatus) {
      if (head->keyword == name) head->status = status;
    }
  }
  return rc::kOk;
}

Imap4StatusText ParseStatusText(std::string_view rest) {
  Imap4StatusText out;
  while (rest.starts_with(' ')) rest.remove_prefix(1);
  if (rest.starts_with('[')) {
    const size_t close = rest.find(']');
    if (close != std::string_view::npos) {
      std::string_view inside = rest.substr(1, close - 1);
      const size_t blank = std::min(inside.find(' '), inside.size());
      out.code = ToUpperAscii(inside.substr(0, blank));
      out.args = inside.substr(std::min(blank + 1, inside.size()));
      rest.remove_prefix(close + 1);
      while (rest.starts_with(' ')) rest.remove_prefix(1);
    }
  }
  out.text = rest;
  return out;
}

bool ApplyResponseCode(const Imap4StatusText& status, Imap4CommandResult* result, Imap4MailboxData* mailbox,
                       Imap4Capabilities* capabilities) {
  const std::string& code = status.code;
  static constexpr std::pair<std::string_view, uint32_t> kBits[] = {
      {"TRYCREATE", kImap4CodeTryCreate}, {"BADCHARSET", kImap4CodeBadCharset}, {"PARSE", kImap4CodeParse},
      {"ALERT", kImap4CodeAlert},         {"READ-ONLY", kImap4CodeReadOnly},    {"READ-WRITE", kImap4CodeReadWrite},
  };
  for (const auto& [name, bit] : kBits) {
    if (code == name) result->codes |= bit;
  }
  if (code == "ALERT") result->alerts.push_back(status.text);
  if (code == "READ-ONLY" || code == "READ-WRITE") mailbox->read_only = code == "READ-ONLY";
  if (code == "CAPABILITY") ParseCapabilities(status.args, capabilities);
  std::optional<uint32_t>* number = code == "UIDVALIDITY" ? &mailbox->uid_validity
                                    : code == "UIDNEXT"   ? &mailbox->uid_next
                                    : code == "UNSEEN"    ? &mailbox->unseen
                                                          : nullptr;
  if (number) {
    uint32_t n = 0;
    if (!ToNumber32(status.args, &n)) return false;
    *number = n;
  }
  if (code == "PERMANENTFLAGS") {
    Imap4Response r{status.args, {}};
    uint32_t bits = 0;
    if (!ParseFlagsData(r, 0, &bits, &mailbox->permanent_keywords)) return false;
    mailbox->permanent_flags = bits;
  }
  if (code == "COPYUID" || code == "APPENDUID") {
    const bool copy = code == "COPYUID";
    std::string_view args = status.args;
    Imap4UidPlusData data;
    const size_t b1 = args.find(' ');
    if (b1 == std::string_view::npos || !ToNumber32(args.substr(0, b1), &data.uid_validity)) return false;
    args.remove_prefix(b1 + 1);
    if (copy) {
      const size_t b2 = args.find(' ');
      if (b2 == std::string_view::npos || !ParseUidSet(args.substr(0, b2), &data.source)) return false;
      args.remove_prefix(b2 + 1);
    }
    if (!ParseUidSet(args, &data.destination)) return false;
    result->codes |= copy ? kImap4CodeCopyUid : kImap4CodeAppendUid;
    (copy ? result->copy_uid : result->append_uid) = std::move(data);
  }
  return true;
}

void ParseCapabilities(std::string_view words, Imap4Capabilities* out) {
  static constexpr std::pair<std::string_view, uint32_t> kCaps[] = {
      {"IMAP4rev1", kImap4CapRev1}, {"LOGINDISABLED", kImap4CapLoginDisabled}, {"AUTH=LOGIN", kImap4CapAuthLogin},
      {"STARTTLS", kImap4CapStartTls}, {"UIDPLUS", kImap4CapUidPlus},
  };
  out->known = true;
  out->bits = 0;
  out->words.clear();
  size_t pos = 0;
  while (pos < words.size()) {
    const size_t end = std::min(words.find(' ', pos), words.size());
    const std::string_view w = words.substr(pos, end - pos);
    pos = end + 1;
    if (w.empty()) continue;
    out->words.emplace_back(w);
    for (const auto& [name, bit] : kCaps) {
      if (EqualsNoCase(w, name)) out->bits |= bit;
    }
  }
}

uint32_t Imap4FlagBit(std::string_view word) {
  static constexpr std::pair<std::string_view, uint32_t> kFlags[] = {
      {"\\Answered", kImap4FlagAnswered}, {"\\Flagged", kImap4FlagFlagged}, {"\\Deleted", kImap4FlagDeleted},
      {"\\Seen", kImap4FlagSeen},         {"\\Draft", kImap4FlagDraft},     {"\\*", kImap4FlagAny},
      {"\\Recent", kImap4FlagRecent},
  };
  for (const auto& [name, bit] : kFlags) {
    if (EqualsNoCase(word, name)) return bit;
  }
  return 0;
}

bool DecodeMailboxName(std::string_view raw, WString* name) {
  name->clear();
  const bool ok = CXmConverter("imap4-utf-7", "utf-16").Convert(raw, name);
  return ok && std::all_of(raw.begin(), raw.end(), [](char c) { return c >= 0x20 && c < 0x7F; });
}

bool ParseListEntry(const Imap4Response& response, size_t pos, Imap4ListEntry* out) {
  *out = Imap4ListEntry{};
  Reader in(response, pos);
  if (!in.WordList(&out->attribute_words) || !in.Take(' ')) return false;
  for (const std::string& w : out->attribute_words) out->attributes |= AttributeBit(w);
  Value separator;
  if (!in.NString(&separator) || separator.streamed || !in.Take(' ')) return false;
  out->separator = separator.bytes;
  if (!in.AString(&out->raw)) return false;
  out->name_valid = DecodeMailboxName(out->raw, &out->name);
  return true;
}

bool ParseStatusData(const Imap4Response& response, size_t pos, Imap4StatusData* out) {
  *out = Imap4StatusData{};
  Reader in(response, pos);
  in.SkipSpaces();
  if (!in.AString(&out->raw) || !in.Take(' ') || !in.Take('(')) return false;
  DecodeMailboxName(out->raw, &out->name);
  for (;;) {
    in.SkipSpaces();
    if (in.Take(')')) return true;
    std::string_view word;
    uint32_t n = 0;
    if (!in.Word(&word) || !in.Take(' ') || !in.Number(&n)) return false;
    const std::string key = ToUpperAscii(word);
    if (key == "MESSAGES") out->messages = n;
    if (key == "RECENT") out->recent = n;
    if (key == "UIDNEXT") out->uid_next = n;
    if (key == "UIDVALIDITY") out->uid_validity = n;
    if (key == "UNSEEN") out->unseen = n;
  }
}

bool ParseFlagsData(const Imap4Response& response, size_t pos, uint32_t* bits, std::vector<std::string>* keywords) {
  Reader in(response, pos);
  std::vector<std::string> words;
  if (!in.WordList(&words)) return false;
  SplitFlags(words, bits, keywords);
  return true;
}

bool ParseFetchData(const Imap4Response& response, size_t pos, Imap4FetchData* out) {
  Reader in(response, pos);
  in.SkipSpaces();
  if (!in.Take('(')) return false;
  for (;;) {
    in.SkipSpaces();
    if (in.Take(')')) return true;
    std::string item, section;
    bool has_section = false;
    std::optional<uint32_t> origin;
    if (!in.Item(&item, &section, &has_section, &origin) || !in.Take(' ')) return false;
    if (!FetchValue(in, item, has_section, section, origin, out)) return false;
  }
}

bool ParseSearch(std::string_view rest, std::vector<uint32_t>* out) {
  size_t pos = 0;
  while (pos < rest.size()) {
    if (rest[pos] == ' ') {
      ++pos;
      continue;
    }
    if (rest[pos] == '(') return true;  // extension data after the numbers
    const size_t end = std::min(rest.find(' ', pos), rest.size());
    uint32_t n = 0;
    if (!ToNumber32(rest.substr(pos, end - pos), &n)) return false;
    out->push_back(n);
    pos = end;
  }
  return true;
}

bool ParseUidSet(std::string_view text, Imap4UidSet* out) {
  out->ranges.clear();
  size_t pos = 0;
  while (pos <= text.size()) {
    const size_t end = std::min(text.find(',', pos), text.size());
    const std::string_view part = text.substr(pos, end - pos);
    const size_t colon = part.find(':');
    Imap4UidRange r;
    if (!ToNumber32(part.substr(0, colon), &r.first)) return false;
    r.last = r.first;
    if (colon != std::string_view::npos && !ToNumber32(part.substr(colon + 1), &r.last)) return false;
    if (r.first == 0 || r.last == 0) return false;
    if (r.last < r.first) std::swap(r.first, r.last);
    out->ranges.push_back(r);
    pos = end + 1;
  }
  return !out->ranges.empty();
}

bool ParseImapDate(std::string_view text, double* value) {
  while (text.starts_with(' ')) text.remove_prefix(1);
  const size_t blank = std::min(text.find(' '), text.size());
  std::string date(text.substr(0, blank));
  if (std::count(date.begin(), date.end(), '-') != 2) return *value = 0.0, false;
  std::replace(date.begin(), date.end(), '-', ' ');
  date += text.substr(blank);
  if (ReadDate(std::string_view(date), value)) return true;
  *value = 0.0;
  return false;
}

bool FindLiteralPlace(const Imap4Response& so_far, Imap4LiteralPlace* out) {
  *out = Imap4LiteralPlace{};
  Imap4Head head;
  const std::string_view text = so_far.text;
  const size_t marker = text.rfind('{');
  if (ParseHead(text, &head).failed() || head.kind != Imap4Kind::kNumbered || head.keyword != "FETCH" ||
      marker == std::string_view::npos || !TrailingLiteral(text)) {
    return false;
  }
  const size_t start = marker > 0 && text[marker - 1] == '~' ? marker - 1 : marker;
  Reader in(so_far, head.rest);
  in.SkipSpaces();
  if (!in.Take('(')) return false;
  Imap4FetchData scratch;
  for (;;) {
    in.SkipSpaces();
    std::string item, section;
    bool has_section = false;
    std::optional<uint32_t> origin;
    if (!in.Item(&item, &section, &has_section, &origin) || !in.Take(' ')) return false;
    if (in.pos() == start) {
      out->number = head.number;
      out->item = std::move(item);
      if (SectionOf(ToUpperAscii(out->item), has_section, section, &out->section)) out->origin = origin;
      return true;
    }
    if (in.pos() > start || !FetchValue(in, item, has_section, section, origin, &scratch)) return false;
  }
}

}  // namespace trv
