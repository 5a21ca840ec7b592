#include "store/name_pattern.h"

#include <gtest/gtest.h>

namespace trv {
namespace {

TEST(NamePatternTest, MatchesWildcardsEscapesAndCase) {
  struct Row {
    const char16_t* pattern;
    const char16_t* name;
    bool match;
  } rows[] = {
      {u"\\0*", u"0000002A", true}, {u"\\0*", u"0", true},       {u"\\0*", u"1000002A", false},
      {u"\\0*", u"", false},        {u"*", u"", true},           {u"a*b", u"axxbyb", true},
      {u"a*b", u"axxbx", false},    {u"a*b*c", u"abbbc", true},  {u"?", u"", false},
      {u"??", u"ab", true},         {u"??", u"abc", false},      {u"\\*", u"*", true},
      {u"\\*", u"x", false},        {u"\\?x", u"?x", true},      {u"x\\", u"x\\", true},
      {u"Index", u"index", false},  {u"**a", u"a", true},        {u"*\\0", u"10", true},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(MatchNamePattern(row.pattern, row.name), row.match)
        << "pattern " << WideToUtf8(row.pattern) << " name " << WideToUtf8(row.name);
  }
}

}  // namespace
}  // namespace trv
