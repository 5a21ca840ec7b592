// Header blocks: splitting a field into value, parameters and comment;
// parsing, unfolding and limits; reading a block from a stream at every
// buffer size; writing with folding, encoded words and RFC 2231 parameters;
// decoding encoded words, RFC 2231 parameters and address lists.
#include <gtest/gtest.h>

#include <string>

#include "mime/address_list.h"
#include "mime/encoded_word.h"
#include "mime/header.h"
#include "mime/header_split.h"
#include "mime/header_writer.h"
#include "mime/stream.h"
#include "mime/mime_result.h"
#include "mime/rfc2231.h"

namespace trv {
namespace {

CXmHeader Parsed(const std::string& block, const char* charset = "us-ascii", Result* status = nullptr) {
  CXmHeader h;
  const Result r = h.Parse(block, charset);
  if (status) *status = r;
  return h;
}

// `h` written with `charset` as the sending set (none: the default options).
std::string Written(const CXmHeader& h, const char* charset = nullptr, Result* status = nullptr,
                    bool allow_8bit = false) {
  HeaderWriteOptions o;
  if (charset) o.sending_charset = charset;
  o.allow_8bit = allow_8bit;
  std::string out;
  const Result r = h.Write(&out, o);
  if (status) *status = r;
  return out;
}

// The length of the longest line of `text`.
size_t LongestLine(const std::string& text) {
  size_t longest = 0;
  for (size_t start = 0, end; start < text.size(); start = end + 2) {
    end = std::min(text.find("\r\n", start), text.size());
    longest = std::max(longest, end - start);
  }
  return longest;
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

TEST(SplitFieldTest, ValueParametersCommentsQuotesAndBlanks) {
  struct Row { const char* name; WString in, value, comment; const char* params; };
  const Row rows[] = {
      {"quoted parameter", u"X: multipart/mixed; boundary=\"a b;c\"", u"multipart/mixed", u"", "boundary=a b;c"},
      {"later = is data", u"X: v; b=----=_Part=1", u"v", u"", "b=----=_Part=1"},
      {"comment kept apart", u"X: 1.0 (produced by x)", u"1.0", u"produced by x", ""},
      {"blank runs collapse", u"X: a  \t b", u"a b", u"", ""},
      {"blanks around @ and . vanish", u"X: a . b @ c . d", u"a.b@c.d", u"", ""},
      {"quoted escapes and blanks", u"X: \"  a\\\"b\\\\c \"", u"  a\"b\\c ", u"", ""},
      {"empty parameter names dropped", u"X: v; ; =x; a=1", u"v", u"", "a=1"},
  };
  for (const Row& r : rows) {
    CXmHeaderField f;
    EXPECT_TRUE(SplitField(r.in, &f).ok()) << r.name;
    EXPECT_EQ(std::tie(f.name(), f.value(), f.comment()), std::make_tuple(u"X", r.value, r.comment)) << r.name;
    EXPECT_EQ(Describe(f.params()), r.params) << r.name;
  }
  CXmHeaderField f;
  EXPECT_EQ(SplitField(u"no colon here", &f), rc::kMimeSyntax);
  EXPECT_EQ(f.name(), u"no colon here");
  WString many = u"X: v";
  for (size_t i = 0; i < kMaxParameterCount + 5; ++i) many += u"; p=1";
  EXPECT_EQ(SplitField(many, &f), rc::kMimeSyntax);
  EXPECT_EQ(f.params().size(), kMaxParameterCount);
}

TEST(HeaderParseTest, UnfoldingAndBlockEnds) {
  const std::pair<std::string, WString> rows[] = {
      {"Subject: a\r\n b\r\n\r\n", u"ab"},  // a fold drops CR LF and one blank
      {"Subject: a\r\n   b\r\n\r\n", u"a b"},
      {"X-A: a\\\r\nX-B: b\r\n\r\n", u"a\\\r\nX-B: b"},  // CR LF after a backslash is data
      {"Subject: hello", u"hello"},                       // no line end at all
  };
  for (const auto& [block, value] : rows) {
    CXmHeader h = Parsed(block);
    ASSERT_GE(h.size(), 1u) << block;
    EXPECT_EQ(h.fields()[0].value(), value) << block;
  }
  CXmHeader h;
  size_t end = 0;
  ASSERT_TRUE(h.Parse("A: 1\r\nB:2", "us-ascii", &end).ok());
  EXPECT_EQ(h.size(), 1u) << "fewer than 5 bytes left are ignored";
  EXPECT_EQ(end, 9u);
  ASSERT_TRUE(h.Parse("\r\nbody", "us-ascii", &end).ok());
  EXPECT_EQ(h.size(), 0u);
  EXPECT_EQ(end, 2u);
}

TEST(HeaderParseTest, BadFieldsAndCharsets) {
  Result status;
  CXmHeader h = Parsed("A: 1\r\nnocolon\r\nbad name: x\r\n: empty\r\nwith space\r\nB: 2\r\n\r\n", "us-ascii", &status);
  EXPECT_EQ(status, rc::kMimeSyntax);
  ASSERT_EQ(h.size(), 3u) << "a line without \":\" and without blank stays as a name";
  EXPECT_EQ(h.fields()[1].name(), u"nocolon");
  EXPECT_EQ(h.fields()[2].name(), u"B");

  struct Row { const char* name; std::string subject; const char* charset; Result status; WString value; };
  const Row rows[] = {
      {"latin-1", "Gr\xFC\xDF" "e", "iso-8859-1", rc::kOk, u"Gr\u00fc\u00dfe"},
      {"invalid utf-8: the field is kept", "a\xFF" "b", "utf-8", rc::kMimeCharset, u"a\uFFFDb"},
      {"unknown set", "caf\xC3\xA9", "x-unknown", rc::kMimeCharset, u"caf\u00e9"},
  };
  for (const Row& r : rows) {
    h = Parsed("Subject: " + r.subject + "\r\n\r\n", r.charset, &status);
    EXPECT_EQ(status, r.status) << r.name;
    EXPECT_EQ(h.GetSubject(), r.value) << r.name;
  }
}

TEST(HeaderParseTest, Boundary) {
  const std::pair<std::string, WString> boundaries[] = {
      {"multipart/mixed; boundary=\"abc\"", u"abc"},
      {"multipart/mixed; boundary=\"\\\"abc\\\"\"", u"abc"},  // quotes left after splitting
      {"multipart/mixed; boundary=\\\"abc\\\"", u"\\\"abc\\\""},  // escaped quotes are no quoted string
      {"text/plain; boundary=abc", u""},
  };
  for (const auto& [type, boundary] : boundaries) {
    EXPECT_EQ(Parsed("Content-Type: " + type + "\r\n\r\n").Boundary(), boundary) << type;
  }
}

TEST(HeaderParseTest, DisplayTextAndAddresses) {
  CXmHeader h = Parsed(
      "Subject: =?utf-8?Q?Gr=C3=BC=C3=9Fe?= aus\r\n =?iso-8859-1?Q?K=F6ln?= und\r\n\tBonn\r\n"
      "From: \"=?iso-8859-1?Q?J=F6rg?=\" <j@x>\r\nTo: a@x,\r\n B<b@y>\r\nTo: c@z\r\n\r\n");
  EXPECT_EQ(h.DisplayText(field::kSubject), u"Gr\u00fc\u00dfe aus K\u00f6ln und\tBonn")
      << "display unfolding keeps the blank at a fold";
  EXPECT_EQ(h.GetSubject(), u"=?utf-8?Q?Gr=C3=BC=C3=9Fe?= aus=?iso-8859-1?Q?K=F6ln?= undBonn")
      << "the value follows the stated unfolding";
  const std::vector<MailAddress> from = h.Addresses(field::kFrom);
  ASSERT_EQ(from.size(), 1u);
  EXPECT_EQ(from[0].name, u"J\u00f6rg") << "an encoded word in quotes (common, not allowed)";
  const std::vector<MailAddress> to = h.Addresses(field::kTo);
  ASSERT_EQ(to.size(), 3u) << "every To field";
  EXPECT_EQ(to[1].name, u"B") << "a name glued to its bracket";
  EXPECT_EQ(to[2].address, u"c@z");
}

TEST(HeaderParseTest, HostileInputLimits) {
  // A 10 MB field line is kept, cut to the field limit.
  std::string block = "Subject: " + std::string(10 * 1024 * 1024, 'x') + "\r\nB: 2\r\n\r\n";
  Result status;
  CXmHeader h = Parsed(block, "us-ascii", &status);
  EXPECT_EQ(status, rc::kMimeSyntax);
  ASSERT_EQ(h.size(), 2u);
  EXPECT_EQ(h.GetSubject().size(), kMaxFieldSize - 9);
  EXPECT_EQ(h.fields()[0].raw().size(), block.size() - 10) << "the raw text stays whole";

  std::string many;
  for (size_t i = 0; i < kMaxFieldCount + 10; ++i) many += "X: 1\r\n";
  h = Parsed(many + "\r\n", "us-ascii", &status);
  EXPECT_EQ(status, rc::kMimeSyntax);
  EXPECT_EQ(h.size(), kMaxFieldCount);

  h = Parsed(std::string("Subject: a\0b\x01\r\n\r\n", 16), "us-ascii", &status);
  EXPECT_TRUE(status.ok());
  EXPECT_EQ(h.GetSubject(), WString(u"a\0b\x01", 4)) << "NUL and control bytes are data";
}

// The same block for every buffer size, and the stream stops where the body
// starts.
TEST(HeaderReadTest, EveryBufferSizeAndEdgeCases) {
  const size_t kMax = kMaxHeaderBlockSize;
  struct Row { const char* name; std::string in, block; size_t max; Result status; std::string next; };
  const Row rows[] = {
      {"folded fields", "From: a@x\r\nSubject: folded\r\n line\r\nContent-Type: text/plain;\r\n charset=utf-8\r\n\r\nbody\r\n",
       "From: a@x\r\nSubject: folded\r\n line\r\nContent-Type: text/plain;\r\n charset=utf-8\r\n\r\n", kMax, rc::kOk,
       "body\r\n"},
      {"ends at the end of the stream", "A: 1\r\nB: 2", "A: 1\r\nB: 2", kMax, rc::kOk, ""},
      {"empty header", "\r\nbody", "\r\n", kMax, rc::kOk, "body"},
      {"empty stream", "", "", kMax, rc::kOk, ""},
      {"over the size limit: the rest is still consumed", "A: 123456789\r\nB: 2\r\n\r\nbody", "A: 123456", 9,
       rc::kMimeSyntax, "body"},
  };
  for (const Row& r : rows) {
    for (size_t buffer = 16; buffer <= std::max<size_t>(16, r.in.size() + 1); ++buffer) {
      CXmViewStream in(r.in);
      CXmLineReader reader(in, buffer);
      std::string block, line;
      EXPECT_EQ(ReadHeaderBlock(reader, &block, r.max), r.status) << r.name << ", buffer " << buffer;
      EXPECT_EQ(block, r.block) << r.name << ", buffer " << buffer;
      ASSERT_TRUE(reader.ReadLine(&line).ok());
      EXPECT_EQ(line, r.next) << r.name << ", buffer " << buffer;
    }
  }
}

TEST(HeaderWriteTest, ParameterQuotingAndFolding) {
  const std::pair<WString, WString> rows[] = {
      {u"utf-8", u"utf-8"}, {u"a\"b", u"\"a\\\"b\""}, {u"x=y", u"\"x=y\""}, {u"\u00e9", u"\"\u00e9\""}, {u"", u""},
  };
  for (const auto& [in, out] : rows) EXPECT_EQ(QuoteParameterValue(in), out) << WideToUtf8(in);

  // Folded after the last semicolon that fits, else at blanks; a run without
  // blanks stays whole.
  CXmHeader h;
  CXmHeaderField& f = h.SetValue(field::kContentType, u"multipart/mixed");
  f.SetParam(field::kParamBoundary, u"----=_NextPart_000_0001_01D00000.12345678");
  f.SetParam(field::kParamCharset, u"utf-8");
  const std::string out = Written(h);
  EXPECT_EQ(out, "Content-Type: multipart/mixed;\r\n boundary=\"----=_NextPart_000_0001_01D00000.12345678\"; charset=utf-8\r\n");
  EXPECT_EQ(Parsed(out + "\r\n").Boundary(), u"----=_NextPart_000_0001_01D00000.12345678");
  WString subject;
  for (int i = 0; i < 40; ++i) subject += u"word" + W(std::to_string(i)) + u" ";
  h.SetSubject(subject + u"end");
  const std::string folded = Written(h);
  EXPECT_LT(LongestLine(folded), 76u) << folded;
  EXPECT_EQ(Parsed(folded + "\r\n").DisplayText(field::kSubject), subject + u"end");
  h = CXmHeader();
  h.SetSubject(WString(200, u'x'));
  EXPECT_EQ(Written(h), "Subject: " + std::string(200, 'x') + "\r\n");
}

TEST(HeaderWriteTest, EncodedWords) {
  const std::tuple<WString, const char*, bool, std::string> rows[] = {
      {u"Gr\u00fc\u00dfe aus K\u00f6ln", "utf-8", false, "=?utf-8?Q?Gr=C3=BC=C3=9Fe?= aus =?utf-8?Q?K=C3=B6ln?="},
      // Neighbouring words that need encoding share one encoded word.
      {u"Gr\u00fc\u00dfe K\u00f6ln!", "utf-8", false, "=?utf-8?Q?Gr=C3=BC=C3=9Fe=20K=C3=B6ln!?="},
      {u"Re: caf\u00e9 ok", "ISO-8859-1", false, "Re: =?iso-8859-1?Q?caf=E9?= ok"},
      {u"Re: caf\u00e9 ok", "ISO-8859-1", true, "Re: caf\xE9 ok"},
  };
  CXmHeader h;
  for (const auto& [subject, charset, allow_8bit, out] : rows) {
    h.SetSubject(subject);
    EXPECT_EQ(Written(h, charset, nullptr, allow_8bit), "Subject: " + out + "\r\n");
  }
  // Long text: words of whole characters, each line short, read back whole
  // by either unfolding.
  WString subject;
  for (int i = 0; i < 60; ++i) subject += u"\u20ac\U0001F600 ";
  h.SetSubject(subject + u"\u00e9");
  const std::string out = Written(h, "utf-8");
  EXPECT_LT(LongestLine(out), 75u);
  EXPECT_GT(std::count(out.begin(), out.end(), '\n'), 5);
  for (size_t start = 0, end; start < out.size(); start = end + 2) {
    end = out.find("\r\n", start);
    EXPECT_LT(out.find("=?utf-8?Q?", start), end);
    EXPECT_EQ(out.compare(end - 2, 2, "?="), 0) << out.substr(start, end - start);
  }
  CXmHeader back = Parsed(out + "\r\n");
  EXPECT_EQ(back.DisplayText(field::kSubject), subject + u"\u00e9");
  WString own;
  EXPECT_TRUE(DecodeEncodedWords(back.GetSubject(), &own));
  EXPECT_EQ(own, subject + u"\u00e9");
}

TEST(HeaderWriteTest, LineEndsInValuesCannotAddFields) {
  CXmHeader h;
  h.SetSubject(u"hi\r\nBcc: victim@example.org");
  h.SetValue(field::kContentType, u"text/plain").SetParam(u"name", u"a\r\nX-Evil: 1");
  const std::string out = Written(h);
  CXmHeader back = Parsed(out + "\r\n");
  ASSERT_EQ(back.size(), 2u) << out;
  EXPECT_EQ(back.Find(u"Bcc"), nullptr);
  EXPECT_EQ(back.DisplayText(field::kSubject), u"hi  Bcc: victim@example.org");
}

// Parsed fields are written as they stood; set ones are written anew, a
// non-ASCII parameter in RFC 2231 form, and a character that the sending set
// cannot hold as "?" with a status that says so.
TEST(HeaderWriteTest, ParsedFieldsAsTheyStoodAndNewOnesAnew) {
  const std::string block = "From: \"Smith, Alice\" (work) <alice@example.org>\r\nSubject: a\r\n  folded line\r\n";
  CXmHeader h = Parsed(block + "\r\n");
  EXPECT_EQ(Written(h), block);
  h.SetSubject(u"price \u20ac 5");
  Result status;
  EXPECT_EQ(Written(h, "iso-8859-1", &status),
            "From: \"Smith, Alice\" (work) <alice@example.org>\r\nSubject: price =?iso-8859-1?Q?=3F?= 5\r\n");
  EXPECT_EQ(status, rc::kMimeCharset);
  h = CXmHeader();
  h.SetValue(field::kContentDisposition, u"attachment").SetParam(field::kParamFilename, u"\u20ac Rechnung.pdf");
  const std::string out = Written(h, "utf-8");
  EXPECT_EQ(out, "Content-Disposition: attachment; filename*=utf-8''%E2%82%AC%20Rechnung.pdf\r\n");
  EXPECT_EQ(Parsed(out + "\r\n").GetParam(field::kContentDisposition, field::kParamFilename), u"\u20ac Rechnung.pdf");
}

TEST(EncodedWordTest, Decoding) {
  struct Row { const char* name; WString in; WString out; bool ok; };
  const Row rows[] = {
      {"Q word", u"=?iso-8859-1?Q?Gr=FC=DFe?=", u"Gr\u00fc\u00dfe", true},
      {"B word", u"=?UTF-8?B?4oKs?=", u"\u20ac", true},
      {"B without padding", u"=?utf-8?b?4oKs4oKs4g?=", u"\u20ac\u20ac\uFFFD", false},
      {"blank before text kept", u"=?utf-8?Q?a?= b", u"a b", true},
      {"character split between words", u"=?utf-8?B?4oI=?= =?utf-8?B?rA==?=", u"\u20ac", true},
      {"split bytes in different charsets stay apart", u"=?iso-8859-1?Q?=E9?= =?utf-8?Q?=C3=A9?=", u"\u00e9\u00e9",
       true},
      {"unknown charset falls back", u"=?x-foo?Q?caf=C3=A9?=", u"caf\u00e9", false},
      {"not encoded words: unknown encoding, blank inside, empty charset, lone =?, non-ASCII, missing end",
       u"=?utf-8?X?abc?= =?utf-8?Q?a b?= =?" u"?Q?a?= a =? b =?utf-8?Q?\u00e9?= =?utf-8?Q?abc",
       u"=?utf-8?X?abc?= =?utf-8?Q?a b?= =?" u"?Q?a?= a =? b =?utf-8?Q?\u00e9?= =?utf-8?Q?abc", true},
      {"malformed then good", u"=?bad =?utf-8?Q?ok?=", u"=?bad ok", true},
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
      {"no quotes: all is value", {{u"f*", u"a%41b", {}}}, "f=aAb"},
      {"bad percent kept", {{u"f*", u"utf-8''100%", {}}}, "f=100%"},
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
      {"name and angle", u"Alice Smith <alice@example.org>", "Alice Smith<alice@example.org>"},
      {"quoted name with comma", u"\"Smith, Alice\" <a@x>, b@y", "Smith, Alice<a@x>, <b@y>"},
      {"encoded name with comma inside", u"=?utf-8?Q?M=C3=BCller,=20J?= <j@x>, b@y", "Müller, J<j@x>, <b@y>"},
      {"group", u"Team: a@x, B <b@y>;, c@z", "<a@x>Team, B<b@y>Team, <c@z>"},
      {"route dropped", u"<@relay1,@relay2:a@x>", "<a@x>"},
      {"blanks and comments in address", u"a . b (c) @ example . org", "c<a.b@example.org>"},
      {"missing closing bracket", u"A <a@x, b@y", "A<a@x>, <b@y>"},
      {"name without address", u"John Smith", "John Smith<>"},
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
