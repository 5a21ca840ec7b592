// The search field's query language, turned into an FTS5 expression and
// filters for the search database (core/search_index.h).
//
//   word            a word anywhere (sender, recipients, subject, text,
//                   attachments' file names)
//   "a phrase"      words next to each other, in that order
//   from:X to:X subject:X   X (a word or a "phrase") in that field only;
//                   to: covers To and Cc
//   before:YYYY-MM-DD   sent before that day (UTC)
//   after:YYYY-MM-DD    sent on that day or later (UTC)
//   has:attachment  is:unread
// Every term must match. Everything else is taken literally: a quote
// without its partner is an ordinary character, an unknown prefix or a bad
// date is a word, and FTS5 operators (AND, OR, NOT, NEAR, *, ^, -, :) are
// never operators, because every term reaches FTS5 as a quoted string.
// Terms with no letter or digit are dropped (the tokenizer would find no
// word in them).
//
// Threads: pure functions; any thread.
#pragma once

#include <string>
#include <string_view>

namespace trv {

struct SearchQuery {
  std::string match;          // FTS5 MATCH expression; empty: no text condition
  double before = 0;          // record date unit (days since 1899-12-30); 0: none
  double after = 0;
  bool unread = false;
  bool attachment = false;

  // No condition at all: the query matches nothing rather than everything.
  bool empty() const { return match.empty() && before == 0 && after == 0 && !unread && !attachment; }
};

SearchQuery ParseSearchQuery(std::string_view text);

// The FTS5 string literal of `text`: in double quotes, quotes doubled.
std::string QuoteFtsString(std::string_view text);

}  // namespace trv
