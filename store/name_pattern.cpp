#include "store/name_pattern.h"

namespace trv {

namespace {

// One pattern element: a literal, "?" or "*".
struct Token {
  enum Kind { kLiteral, kAny, kRun } kind;
  char16_t c;
};

// Reads the token at `i` and advances past it.
Token NextToken(WStringView p, size_t& i) {
  const char16_t c = p[i++];
  if (c == u'*') return {Token::kRun, 0};
  if (c == u'?') return {Token::kAny, 0};
  if (c == u'\\' && i < p.size()) return {Token::kLiteral, p[i++]};
  return {Token::kLiteral, c};
}

}  // namespace

bool MatchNamePattern(WStringView pattern, WStringView name) {
  // Greedy matching with one backtrack point (the last "*"), linear in
  // practice and never recursive.
  size_t p = 0, n = 0;
  size_t star_p = WStringView::npos, star_n = 0;
  while (n < name.size()) {
    if (p < pattern.size()) {
      size_t after = p;
      const Token t = NextToken(pattern, after);
      if (t.kind == Token::kRun) {
        star_p = after;
        star_n = n;
        p = after;
        continue;
      }
      if (t.kind == Token::kAny || t.c == name[n]) {
        p = after;
        ++n;
        continue;
      }
    }
    if (star_p == WStringView::npos) return false;
    p = star_p;
    n = ++star_n;
  }
  while (p < pattern.size()) {
    if (NextToken(pattern, p).kind != Token::kRun) return false;
  }
  return true;
}

WString PatternLiteralPrefix(WStringView pattern) {
  WString prefix;
  size_t i = 0;
  while (i < pattern.size()) {
    const Token t = NextToken(pattern, i);
    if (t.kind != Token::kLiteral) break;
    prefix.push_back(t.c);
  }
  return prefix;
}

}  // namespace trv
