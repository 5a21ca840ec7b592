// The one rule for whether a line can start a header field. The header
// parser, the part tree, the import's message test and its stored form all
// ask it, so a line is a field everywhere or nowhere.
//
// Threads: pure functions; any thread.
#pragma once

#include <cstddef>
#include <string_view>

namespace trv {

// Where a field line's name ends and its ":" stands.
struct FieldLineSplit {
  size_t name_length = 0;  // the name, without blanks before the ":"
  size_t colon = 0;        // offset of the ":"
};

// A line starts a header field when it begins with a name of printable
// US-ASCII characters other than ":" (at least one), then optional spaces
// and TABs, then ":" (RFC 5322 3.6.8; the blanks are the obsolete syntax of
// 4.5.3, so "Subject : hi" is the field "Subject"). `line` may carry its line
// end and may be bytes or 16-bit text. False for anything else, `*split`
// then unchanged.
template <typename Char>
bool SplitFieldLine(std::basic_string_view<Char> line, FieldLineSplit* split = nullptr) {
  size_t i = 0;
  while (i < line.size() && line[i] > 32 && line[i] < 127 && line[i] != ':') ++i;
  if (i == 0) return false;
  const size_t name_length = i;
  while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
  if (i == line.size() || line[i] != ':') return false;
  if (split) *split = {name_length, i};
  return true;
}

inline bool StartsHeaderField(std::string_view line, FieldLineSplit* split = nullptr) {
  return SplitFieldLine(line, split);
}

}  // namespace trv
