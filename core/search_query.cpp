#include "core/search_query.h"

#include <cctype>
#include <vector>

#include "base/date_value.h"
#include "base/wide_string.h"

namespace trv {

namespace {

struct Term {
  std::string prefix;  // lower case, without ':'; empty for none
  std::string value;
  bool quoted = false;
};

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Splits on blanks; a '"' at the start of a term or right after "prefix:"
// opens a phrase that runs to the next '"'. A '"' without a partner stays
// an ordinary character of its term.
std::vector<Term> SplitTerms(std::string_view text) {
  std::vector<Term> terms;
  size_t i = 0;
  while (i < text.size()) {
    if (IsSpace(text[i])) {
      ++i;
      continue;
    }
    Term term;
    size_t start = i;
    // A prefix: letters then ':'.
    size_t p = i;
    while (p < text.size() && std::isalpha(static_cast<unsigned char>(text[p]))) ++p;
    if (p > i && p < text.size() && text[p] == ':') {
      term.prefix = ToLowerAscii(text.substr(i, p - i));
      start = p + 1;
    }
    if (start < text.size() && text[start] == '"') {
      const size_t close = text.find('"', start + 1);
      if (close != std::string_view::npos) {
        term.value = std::string(text.substr(start + 1, close - start - 1));
        term.quoted = true;
        i = close + 1;
        terms.push_back(std::move(term));
        continue;
      }
    }
    size_t end = start;
    while (end < text.size() && !IsSpace(text[end])) ++end;
    term.value = std::string(text.substr(start, end - start));
    i = end;
    terms.push_back(std::move(term));
  }
  return terms;
}

// Letters and digits (any non-ASCII byte counts: the tokenizer keeps those).
bool HasWord(std::string_view s) {
  for (char c : s) {
    if (std::isalnum(static_cast<unsigned char>(c)) || static_cast<unsigned char>(c) >= 0x80) return true;
  }
  return false;
}

// "YYYY-MM-DD" as the record date of that day's start, UTC; 0 when it does
// not read as a date.
double ParseDay(std::string_view s) {
  if (s.size() != 10 || s[4] != '-' || s[7] != '-') return 0;
  for (size_t i : {0, 1, 2, 3, 5, 6, 8, 9}) {
    if (!std::isdigit(static_cast<unsigned char>(s[i]))) return 0;
  }
  CivilTime t;
  t.year = std::stoi(std::string(s.substr(0, 4)));
  t.month = std::stoi(std::string(s.substr(5, 2)));
  t.day = std::stoi(std::string(s.substr(8, 2)));
  if (t.year < 1900 || t.month < 1 || t.month > 12 || t.day < 1 || t.day > 31) return 0;
  return DateFromCivil(t);
}

void AddMatch(std::string* match, std::string_view columns, std::string_view value) {
  if (!HasWord(value)) return;
  if (!match->empty()) *match += ' ';
  if (!columns.empty()) {
    *match += columns;
    *match += " : ";
  }
  *match += QuoteFtsString(value);
}

}  // namespace

std::string QuoteFtsString(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
  return out;
}

SearchQuery ParseSearchQuery(std::string_view text) {
  SearchQuery q;
  for (const Term& t : SplitTerms(text)) {
    const std::string lower = ToLowerAscii(t.value);
    if (t.prefix == "from") {
      AddMatch(&q.match, "sender", t.value);
    } else if (t.prefix == "to") {
      AddMatch(&q.match, "recipients", t.value);
    } else if (t.prefix == "subject") {
      AddMatch(&q.match, "subject", t.value);
    } else if (t.prefix == "before" && !t.quoted && ParseDay(t.value) != 0) {
      q.before = ParseDay(t.value);
    } else if (t.prefix == "after" && !t.quoted && ParseDay(t.value) != 0) {
      q.after = ParseDay(t.value);
    } else if (t.prefix == "has" && !t.quoted && lower == "attachment") {
      q.attachment = true;
    } else if (t.prefix == "is" && !t.quoted && lower == "unread") {
      q.unread = true;
    } else if (t.prefix.empty()) {
      AddMatch(&q.match, "", t.value);
    } else {
      // Not a known prefix (or a bad value): the whole term, literally.
      AddMatch(&q.match, "", t.prefix + ":" + t.value);
    }
  }
  return q;
}

}  // namespace trv
