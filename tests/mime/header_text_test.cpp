// Encoded words, RFC 2231 parameters and address lists.
#include <gtest/gtest.h>

#include <string>

#include "mime/address_list.h"
#include "mime/encoded_word.h"
#include "mime/rfc2231.h"

namespace trv {
namespace {

TEST(EncodedWordTest, Decoding) {
  struct Row { const char* name; WString in; WString out; bool ok; };
  const Row rows[] = {
      {"plain text", u"Hello world", u"Hello world", true},
      {"Q word", u"=?iso-8859-1?Q?Gr=FC=DFe?=", u"Gr\u00fc\u00dfe", true},
      {"Q underscore is space", u"=?utf-8?q?a_b?=", u"a b", true},
      {"B word", u"=?UTF-8?B?4oKs?=", u"\u20ac", true},
      {"B without padding", u"=?utf-8?b?4oKs4oKs4g?=", u"\u20ac\u20ac\uFFFD", false},
      {"text around", u"Re: =?utf-8?Q?caf=C3=A9?= ok", u"Re: caf\u00e9 ok", true},
      {"blank between words dropped", u"=?utf-8?Q?a?= \t =?utf-8?Q?b?=", u"ab", true},
      {"folded words joined", u"=?utf-8?Q?a?=\r\n =?utf-8?Q?b?=", u"ab", true},
      {"touching words (own unfolding)", u"=?utf-8?Q?a?==?utf-8?Q?b?=", u"ab", true},
      {"blank before text kept", u"=?utf-8?Q?a?= b", u"a b", true},
      {"character split between words", u"=?utf-8?B?4oI=?= =?utf-8?B?rA==?=", u"\u20ac", true},
      {"split bytes in different charsets stay apart",
       u"=?iso-8859-1?Q?=E9?= =?utf-8?Q?=C3=A9?=", u"\u00e9\u00e9", true},
      {"language suffix", u"=?utf-8*en?Q?hi?=", u"hi", true},
      {"unknown charset falls back", u"=?x-foo?Q?caf=C3=A9?=", u"caf\u00e9", false},
      {"unknown encoding stays", u"=?utf-8?X?abc?=", u"=?utf-8?X?abc?=", true},
      {"missing end stays", u"=?utf-8?Q?abc", u"=?utf-8?Q?abc", true},
      {"blank inside stays", u"=?utf-8?Q?a b?=", u"=?utf-8?Q?a b?=", true},
      {"empty charset stays", u"=?" u"?Q?a?=", u"=?" u"?Q?a?=", true},
      {"truncated after charset", u"=?utf-8", u"=?utf-8", true},
      {"lone =?", u"a =? b", u"a =? b", true},
      {"malformed Q escape kept", u"=?utf-8?Q?a=ZZ=4?=", u"a=ZZ=4", true},
      {"empty encoded text", u"x =?utf-8?Q?" u"?= y", u"x  y", true},
      {"malformed then good", u"=?bad =?utf-8?Q?ok?=", u"=?bad ok", true},
      {"non-ascii inside stays", u"=?utf-8?Q?\u00e9?=", u"=?utf-8?Q?\u00e9?=", true},
  };
  for (const Row& r : rows) {
    WString out;
    EXPECT_EQ(DecodeEncodedWords(r.in, &out), r.ok) << r.name;
    EXPECT_EQ(out, r.out) << r.name;
  }
}

TEST(EncodedWordTest, HostileInputIsLinear) {
  // Many openings and no closing: each start must not rescan the rest.
  WString text;
  for (int i = 0; i < 200000; ++i) text += u"=?a?q?";
  WString out;
  DecodeEncodedWords(text, &out);
  EXPECT_EQ(out, text);
  WString long_word = u"=?utf-8?Q?" + WString(1000000, u'a');
  DecodeEncodedWords(long_word, &out);
  EXPECT_EQ(out, long_word);
}

TEST(Rfc2231Test, MergesParameters) {
  struct Row {
    const char* name;
    std::vector<CXmParameter> in;
    std::vector<CXmParameter> out;
  };
  const Row rows[] = {
      {"plain stays", {{u"name", u"a.txt", {}}}, {{u"name", u"a.txt", {}}}},
      {"extended value", {{u"filename*", u"utf-8'en'na%C3%AFve%20file.txt", {}}},
       {{u"filename", u"na\u00efve file.txt", u"en"}}},
      {"continuations in order",
       {{u"filename*1", u"part2", {}}, {u"filename*0", u"part1-", {}}, {u"x", u"y", {}}},
       {{u"filename", u"part1-part2", {}}, {u"x", u"y", {}}}},
      {"extended continuations split inside a character",
       {{u"title*0*", u"utf-8''%E2%82", {}}, {u"title*1*", u"%AC", {}}, {u"title*2", u" end", {}}},
       {{u"title", u"\u20ac end", {}}}},
      {"gap ends the value", {{u"n*0", u"a", {}}, {u"n*2", u"c", {}}}, {{u"n", u"a", {}}}},
      {"extended replaces plain", {{u"filename", u"fallback", {}}, {u"filename*", u"iso-8859-1''%E9", {}}},
       {{u"filename", u"\u00e9", {}}}},
      {"no charset", {{u"f*", u"''a%41", {}}}, {{u"f", u"aA", {}}}},
      {"no quotes: all is value", {{u"f*", u"a%41b", {}}}, {{u"f", u"aAb", {}}}},
      {"bad percent kept", {{u"f*", u"utf-8''100%", {}}}, {{u"f", u"100%", {}}}},
      {"not a section number", {{u"f*x", u"1", {}}}, {{u"f*x", u"1", {}}}},
      {"case of names ignored", {{u"Name*0", u"a", {}}, {u"NAME*1", u"b", {}}}, {{u"Name", u"ab", {}}}},
  };
  for (const Row& r : rows) {
    std::vector<CXmParameter> params = r.in;
    MergeRfc2231Parameters(&params);
    ASSERT_EQ(params.size(), r.out.size()) << r.name;
    for (size_t i = 0; i < params.size(); ++i) {
      EXPECT_EQ(params[i].name, r.out[i].name) << r.name;
      EXPECT_EQ(params[i].value, r.out[i].value) << r.name;
      EXPECT_EQ(params[i].language, r.out[i].language) << r.name;
    }
  }
}

TEST(Rfc2231Test, UnknownCharsetReportsFailureAndKeepsText) {
  std::vector<CXmParameter> params = {{u"f*", u"x-none''caf%C3%A9", {}}};
  EXPECT_FALSE(MergeRfc2231Parameters(&params));
  EXPECT_EQ(params[0].value, u"caf\u00e9");
}

struct AddressRow {
  const char* name;
  WString in;
  std::vector<MailAddress> out;
};

TEST(AddressListTest, Parses) {
  const AddressRow rows[] = {
      {"bare", u"alice@example.org", {{u"", u"alice@example.org", u""}}},
      {"name and angle", u"Alice Smith <alice@example.org>", {{u"Alice Smith", u"alice@example.org", u""}}},
      {"quoted name with comma",
       u"\"Smith, Alice\" <alice@example.org>, bob@example.org",
       {{u"Smith, Alice", u"alice@example.org", u""}, {u"", u"bob@example.org", u""}}},
      {"quoted pair in name", u"\"A \\\"B\\\" C\" <a@x>", {{u"A \"B\" C", u"a@x", u""}}},
      {"comment as name", u"alice@example.org (Alice Smith)", {{u"Alice Smith", u"alice@example.org", u""}}},
      {"comment ignored with phrase", u"Alice (work) <a@x>", {{u"Alice", u"a@x", u""}}},
      {"encoded name", u"=?utf-8?Q?J=C3=BCrgen?= <j@x>", {{u"J\u00fcrgen", u"j@x", u""}}},
      {"encoded name with comma inside", u"=?utf-8?Q?M=C3=BCller,=20J?= <j@x>, b@y",
       {{u"M\u00fcller, J", u"j@x", u""}, {u"", u"b@y", u""}}},
      {"two encoded words", u"=?utf-8?Q?J=C3=BC?= =?utf-8?Q?rgen?= <j@x>", {{u"J\u00fcrgen", u"j@x", u""}}},
      {"group", u"Team: a@x, B <b@y>;, c@z",
       {{u"", u"a@x", u"Team"}, {u"B", u"b@y", u"Team"}, {u"", u"c@z", u""}}},
      {"empty group", u"undisclosed-recipients:;", {}},
      {"route dropped", u"<@relay1,@relay2:a@x>", {{u"", u"a@x", u""}}},
      {"blanks and comments in address", u"a . b (c) @ example . org", {{u"c", u"a.b@example.org", u""}}},
      {"missing closing bracket", u"A <a@x, b@y", {{u"A", u"a@x", u""}, {u"", u"b@y", u""}}},
      {"empty elements", u",, a@x ,, ", {{u"", u"a@x", u""}}},
      {"quoted local part", u"\"john doe\"@x", {{u"", u"\"john doe\"@x", u""}}},
      {"obsolete dotted phrase", u"John Q. Public <jqp@x>", {{u"John Q. Public", u"jqp@x", u""}}},
      {"local user without domain", u"root", {{u"", u"root", u""}}},
      {"name without address", u"John Smith", {{u"John Smith", u"", u""}}},
      {"domain literal", u"a@[127.0.0.1]", {{u"", u"a@[127.0.0.1]", u""}}},
      {"empty", u"", {}},
      {"unterminated quote", u"\"abc <a@x>", {{u"abc <a@x>", u"", u""}}},
      {"text after bracket ignored", u"A <a@x> junk, b@y", {{u"A", u"a@x", u""}, {u"", u"b@y", u""}}},
  };
  for (const AddressRow& r : rows) {
    const std::vector<MailAddress> got = ParseAddressList(r.in);
    ASSERT_EQ(got.size(), r.out.size()) << r.name;
    for (size_t i = 0; i < got.size(); ++i) {
      EXPECT_EQ(got[i].name, r.out[i].name) << r.name << " #" << i;
      EXPECT_EQ(got[i].address, r.out[i].address) << r.name << " #" << i;
      EXPECT_EQ(got[i].group, r.out[i].group) << r.name << " #" << i;
    }
  }
}

TEST(AddressListTest, FormatReadsBack) {
  const MailAddress addresses[] = {
      {u"Smith, Alice", u"alice@example.org", u""},
      {u"Alice", u"a@x", u""},
      {u"", u"bob@example.org", u""},
      {u"Say \"hi\"", u"c@x", u""},
  };
  for (const MailAddress& a : addresses) {
    const WString text = FormatAddress(a);
    const std::vector<MailAddress> back = ParseAddressList(text);
    ASSERT_EQ(back.size(), 1u) << WideToUtf8(text);
    EXPECT_EQ(back[0].name, a.name) << WideToUtf8(text);
    EXPECT_EQ(back[0].address, a.address) << WideToUtf8(text);
  }
  EXPECT_EQ(FormatAddress({u"Alice", u"a@x", u""}), u"Alice <a@x>");
  EXPECT_EQ(FormatAddress({u"Smith, Alice", u"a@x", u""}), u"\"Smith, Alice\" <a@x>");
}

}  // namespace
}  // namespace trv
