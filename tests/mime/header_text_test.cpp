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
      {"Q word", u"=?iso-8859-1?Q?Gr=FC=DFe?=", u"Gr\u00fc\u00dfe", true},
      {"Q underscore is space", u"=?utf-8?q?a_b?=", u"a b", true},
      {"B word", u"=?UTF-8?B?4oKs?=", u"\u20ac", true},
      {"B without padding", u"=?utf-8?b?4oKs4oKs4g?=", u"\u20ac\u20ac\uFFFD", false},
      {"text around", u"Re: =?utf-8?Q?caf=C3=A9?= ok", u"Re: caf\u00e9 ok", true},
      {"blank between words dropped", u"=?utf-8?Q?a?= \t =?utf-8?Q?b?=", u"ab", true},
      {"folded words joined", u"=?utf-8?Q?a?=\r\n =?utf-8?Q?b?=", u"ab", true},
      {"touching words", u"=?utf-8?Q?a?==?utf-8?Q?b?=", u"ab", true},
      {"blank before text kept", u"=?utf-8?Q?a?= b", u"a b", true},
      {"character split between words", u"=?utf-8?B?4oI=?= =?utf-8?B?rA==?=", u"\u20ac", true},
      {"split bytes in different charsets stay apart", u"=?iso-8859-1?Q?=E9?= =?utf-8?Q?=C3=A9?=", u"\u00e9\u00e9",
       true},
      {"language suffix", u"=?utf-8*en?Q?hi?=", u"hi", true},
      {"unknown charset falls back", u"=?x-foo?Q?caf=C3=A9?=", u"caf\u00e9", false},
      {"unknown encoding stays", u"=?utf-8?X?abc?=", u"=?utf-8?X?abc?=", true},
      {"missing end stays", u"=?utf-8?Q?abc", u"=?utf-8?Q?abc", true},
      {"blank inside stays", u"=?utf-8?Q?a b?=", u"=?utf-8?Q?a b?=", true},
      {"empty charset stays", u"=?" u"?Q?a?=", u"=?" u"?Q?a?=", true},
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
  const WString long_word = u"=?utf-8?Q?" + WString(1000000, u'a');
  DecodeEncodedWords(long_word, &out);
  EXPECT_EQ(out, long_word);
}

// "name=value[language]" of every parameter, joined by "; ".
std::string Describe(const std::vector<CXmParameter>& params) {
  std::string out;
  for (const CXmParameter& p : params) {
    out += (out.empty() ? "" : "; ") + WideToUtf8(p.name) + "=" + WideToUtf8(p.value);
    if (!p.language.empty()) out += "[" + WideToUtf8(p.language) + "]";
  }
  return out;
}

TEST(Rfc2231Test, MergesParameters) {
  struct Row { const char* name; std::vector<CXmParameter> in; const char* out; };
  const Row rows[] = {
      {"extended value", {{u"filename*", u"utf-8'en'na%C3%AFve%20file.txt", {}}}, "filename=naïve file.txt[en]"},
      {"continuations in order", {{u"f*1", u"part2", {}}, {u"f*0", u"part1-", {}}, {u"x", u"y", {}}},
       "f=part1-part2; x=y"},
      {"extended continuations split inside a character",
       {{u"t*0*", u"utf-8''%E2%82", {}}, {u"t*1*", u"%AC", {}}, {u"t*2", u" end", {}}}, "t=€ end"},
      {"gap ends the value", {{u"n*0", u"a", {}}, {u"n*2", u"c", {}}}, "n=a"},
      {"extended replaces plain", {{u"f", u"fallback", {}}, {u"f*", u"iso-8859-1''%E9", {}}}, "f=é"},
      {"no charset", {{u"f*", u"''a%41", {}}}, "f=aA"},
      {"no quotes: all is value", {{u"f*", u"a%41b", {}}}, "f=aAb"},
      {"bad percent kept", {{u"f*", u"utf-8''100%", {}}}, "f=100%"},
      {"not a section number", {{u"f*x", u"1", {}}}, "f*x=1"},
      {"case of names ignored", {{u"Name*0", u"a", {}}, {u"NAME*1", u"b", {}}}, "Name=ab"},
  };
  for (const Row& r : rows) {
    std::vector<CXmParameter> params = r.in;
    EXPECT_TRUE(MergeRfc2231Parameters(&params)) << r.name;
    EXPECT_EQ(Describe(params), r.out) << r.name;
  }
  std::vector<CXmParameter> params = {{u"f*", u"x-none''caf%C3%A9", {}}};
  EXPECT_FALSE(MergeRfc2231Parameters(&params)) << "an unknown charset fails";
  EXPECT_EQ(Describe(params), "f=café") << "and keeps the text";
}

// "name<address>group" of every address, joined by ", ".
std::string Describe(const std::vector<MailAddress>& list) {
  std::string out;
  for (const MailAddress& a : list) {
    out += (out.empty() ? "" : ", ") + WideToUtf8(a.name) + "<" + WideToUtf8(a.address) + ">" + WideToUtf8(a.group);
  }
  return out;
}

TEST(AddressListTest, Parses) {
  struct Row { const char* name; WString in; const char* out; };
  const Row rows[] = {
      {"bare", u"alice@example.org", "<alice@example.org>"},
      {"name and angle", u"Alice Smith <alice@example.org>", "Alice Smith<alice@example.org>"},
      {"quoted name with comma", u"\"Smith, Alice\" <a@x>, b@y", "Smith, Alice<a@x>, <b@y>"},
      {"quoted pair in name", u"\"A \\\"B\\\" C\" <a@x>", "A \"B\" C<a@x>"},
      {"comment as name", u"alice@example.org (Alice Smith)", "Alice Smith<alice@example.org>"},
      {"comment ignored with phrase", u"Alice (work) <a@x>", "Alice<a@x>"},
      {"encoded name with comma inside", u"=?utf-8?Q?M=C3=BCller,=20J?= <j@x>, b@y", "Müller, J<j@x>, <b@y>"},
      {"two encoded words", u"=?utf-8?Q?J=C3=BC?= =?utf-8?Q?rgen?= <j@x>", "Jürgen<j@x>"},
      {"group", u"Team: a@x, B <b@y>;, c@z", "<a@x>Team, B<b@y>Team, <c@z>"},
      {"empty group", u"undisclosed-recipients:;", ""},
      {"route dropped", u"<@relay1,@relay2:a@x>", "<a@x>"},
      {"blanks and comments in address", u"a . b (c) @ example . org", "c<a.b@example.org>"},
      {"missing closing bracket", u"A <a@x, b@y", "A<a@x>, <b@y>"},
      {"empty elements", u",, a@x ,, ", "<a@x>"},
      {"quoted local part", u"\"john doe\"@x", "<\"john doe\"@x>"},
      {"obsolete dotted phrase", u"John Q. Public <jqp@x>", "John Q. Public<jqp@x>"},
      {"local user without domain", u"root", "<root>"},
      {"name without address", u"John Smith", "John Smith<>"},
      {"domain literal", u"a@[127.0.0.1]", "<a@[127.0.0.1]>"},
      {"unterminated quote", u"\"abc <a@x>", "abc <a@x><>"},
      {"text after bracket ignored", u"A <a@x> junk, b@y", "A<a@x>, <b@y>"},
  };
  for (const Row& r : rows) EXPECT_EQ(Describe(ParseAddressList(r.in)), r.out) << r.name;
}

TEST(AddressListTest, FormatReadsBack) {
  for (const MailAddress& a : {MailAddress{u"Smith, Alice", u"a@x", u""}, MailAddress{u"Alice", u"a@x", u""},
                               MailAddress{u"", u"b@x", u""}, MailAddress{u"Say \"hi\"", u"c@x", u""}}) {
    EXPECT_EQ(Describe(ParseAddressList(FormatAddress(a))), Describe({a})) << WideToUtf8(FormatAddress(a));
  }
  EXPECT_EQ(FormatAddress({u"Alice", u"a@x", u""}), u"Alice <a@x>");
  EXPECT_EQ(FormatAddress({u"Smith, Alice", u"a@x", u""}), u"\"Smith, Alice\" <a@x>");
}

}  // namespace
}  // namespace trv
