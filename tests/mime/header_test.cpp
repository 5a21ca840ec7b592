// Header blocks: splitting a field into value, parameters and comment;
// parsing, unfolding and limits; reading a block from a stream at every
// buffer size; writing with folding, encoded words and RFC 2231 parameters.
#include <gtest/gtest.h>

#include <string>

#include "mime/encoded_word.h"
#include "mime/header.h"
#include "mime/header_split.h"
#include "mime/header_writer.h"
#include "mime/stream.h"
#include "mime/mime_result.h"

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

TEST(SplitFieldTest, ValueParametersCommentsQuotesAndBlanks) {
  struct Row { const char* name; WString in, value, comment; std::vector<std::pair<WString, WString>> params; };
  const Row rows[] = {
      {"quoted parameter", u"X: multipart/mixed; boundary=\"a b;c\"", u"multipart/mixed", u"", {{u"boundary", u"a b;c"}}},
      {"blanks around = and ;", u"X: v ;  name =  value  ; other", u"v", u"", {{u"name", u"value"}, {u"other", u""}}},
      {"later = is data", u"X: v; b=----=_Part=1", u"v", u"", {{u"b", u"----=_Part=1"}}},
      {"comment kept apart", u"X: 1.0 (produced by x)", u"1.0", u"produced by x", {}},
      {"nested comment", u"X: a (b (c) d) e", u"a e", u"b c d", {}},
      {"unclosed comment", u"X: a (b", u"a", u"b", {}},
      {"two comments", u"X: (a) v (b)", u"v", u"a b", {}},
      {"blank runs collapse", u"X: a  \t b", u"a b", u"", {}},
      {"blanks around @ and . vanish", u"X: a . b @ c . d", u"a.b@c.d", u"", {}},
      {"escaped quote is data", u"X: a\\\"b", u"a\\\"b", u"", {}},
      {"quoted escapes and blanks", u"X: \"  a\\\"b\\\\c \"", u"  a\"b\\c ", u"", {}},
      {"unclosed quote", u"X: \"abc", u"abc", u"", {}},
      {"empty parameter names dropped", u"X: v; ; =x; a=1", u"v", u"", {{u"a", u"1"}}},
      {"empty value", u"X:", u"", u"", {}},
  };
  for (const Row& r : rows) {
    CXmHeaderField f;
    EXPECT_TRUE(SplitField(r.in, &f).ok()) << r.name;
    EXPECT_EQ(f.name(), u"X") << r.name;
    EXPECT_EQ(f.value(), r.value) << r.name;
    EXPECT_EQ(f.comment(), r.comment) << r.name;
    ASSERT_EQ(f.params().size(), r.params.size()) << r.name;
    for (size_t i = 0; i < r.params.size(); ++i) {
      EXPECT_EQ(f.params()[i].name, r.params[i].first) << r.name;
      EXPECT_EQ(f.params()[i].value, r.params[i].second) << r.name;
    }
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
      {"Subject: a\r\n\tb\r\n\r\n", u"ab"},
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
  const std::string msg = "A: 1\r\nB: 2\r\n\r\nbody\r\n";
  ASSERT_TRUE(h.Parse(msg, "us-ascii", &end).ok());
  EXPECT_EQ(h.size(), 2u);
  EXPECT_EQ(end, msg.find("body"));
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
      {"raw utf-8 under the default set", "caf\xC3\xA9", "us-ascii", rc::kOk, u"caf\u00e9"},
      {"invalid utf-8: the field is kept", "a\xFF" "b", "utf-8", rc::kMimeCharset, u"a\uFFFDb"},
      {"unknown set", "caf\xC3\xA9", "x-unknown", rc::kMimeCharset, u"caf\u00e9"},
  };
  for (const Row& r : rows) {
    h = Parsed("Subject: " + r.subject + "\r\n\r\n", r.charset, &status);
    EXPECT_EQ(status, r.status) << r.name;
    EXPECT_EQ(h.GetSubject(), r.value) << r.name;
  }
}

TEST(HeaderParseTest, LookupAndBoundary) {
  CXmHeader h = Parsed("content-type: Multipart/Mixed; boundary=\"abc\"\r\nReceived: 1\r\nreceived: 2\r\n\r\n");
  EXPECT_EQ(h.GetContentType(), u"Multipart/Mixed") << "names compare without case";
  EXPECT_EQ(h.FindLast(field::kReceived)->value(), u"2");
  h.SetContentType(u"text/plain");
  EXPECT_EQ(h.GetParam(field::kContentType, field::kParamBoundary), u"abc") << "parameters stay";
  EXPECT_EQ(h.Remove(field::kReceived), 2u);
  EXPECT_EQ(h.Find(field::kReceived), nullptr);

  const std::pair<std::string, WString> boundaries[] = {
      {"multipart/mixed; boundary=\"abc\"", u"abc"},
      {"multipart/mixed; boundary=AbC", u"AbC"},
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

TEST(HeaderReadTest, SameResultAtEveryBufferSizeAndTheStreamStopsAtTheBody) {
  const std::string msg = "From: a@x\r\nSubject: folded\r\n line\r\nContent-Type: text/plain;\r\n charset=utf-8\r\n\r\nbody\r\n";
  for (size_t buffer = 16; buffer <= msg.size() + 1; ++buffer) {
    CXmViewStream in(msg);
    CXmLineReader reader(in, buffer);
    std::string block;
    ASSERT_TRUE(ReadHeaderBlock(reader, &block).ok());
    EXPECT_EQ(block, msg.substr(0, msg.find("body"))) << buffer;
    std::string rest;
    ASSERT_TRUE(reader.ReadLine(&rest).ok());
    EXPECT_EQ(rest, "body\r\n") << buffer;
  }
}

TEST(HeaderReadTest, EdgeCases) {
  struct Row { const char* name; std::string in; std::string block; size_t max; Result status; std::string next; };
  const Row rows[] = {
      {"ends at the end of the stream", "A: 1\r\nB: 2", "A: 1\r\nB: 2", kMaxHeaderBlockSize, rc::kOk, ""},
      {"empty header", "\r\nbody", "\r\n", kMaxHeaderBlockSize, rc::kOk, "body"},
      {"empty stream", "", "", kMaxHeaderBlockSize, rc::kOk, ""},
      {"over the size limit: the rest is still consumed", "A: 123456789\r\nB: 2\r\n\r\nbody", "A: 123456", 9,
       rc::kMimeSyntax, "body"},
  };
  for (const Row& r : rows) {
    CXmViewStream in(r.in);
    CXmLineReader reader(in);
    std::string block;
    EXPECT_EQ(ReadHeaderBlock(reader, &block, r.max), r.status) << r.name;
    EXPECT_EQ(block, r.block) << r.name;
    std::string line;
    ASSERT_TRUE(reader.ReadLine(&line).ok());
    EXPECT_EQ(line, r.next) << r.name;
  }
}

TEST(HeaderWriteTest, ParameterQuotingAndFolding) {
  const std::pair<WString, WString> rows[] = {
      {u"utf-8", u"utf-8"}, {u"a b", u"\"a b\""},   {u"a\"b", u"\"a\\\"b\""}, {u"\"ab", u"\"\"ab\""},
      {u"x=y", u"\"x=y\""}, {u"\u00e9", u"\"\u00e9\""}, {u"a\\b", u"a\\b"},      {u"", u""},
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

TEST(HeaderWriteTest, ConversionFailureGivesStatusAndStillWrites) {
  CXmHeader h;
  h.SetSubject(u"price \u20ac 5");
  h.SetFrom(u"a@x");
  Result status;
  EXPECT_EQ(Written(h, "iso-8859-1", &status), "Subject: price =?iso-8859-1?Q?=3F?= 5\r\nFrom: a@x\r\n");
  EXPECT_EQ(status, rc::kMimeCharset);
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

TEST(HeaderWriteTest, NonAsciiParameterUsesRfc2231) {
  CXmHeader h;
  h.SetValue(field::kContentDisposition, u"attachment").SetParam(field::kParamFilename, u"\u20ac Rechnung.pdf");
  const std::string out = Written(h, "utf-8");
  EXPECT_EQ(out, "Content-Disposition: attachment; filename*=utf-8''%E2%82%AC%20Rechnung.pdf\r\n");
  EXPECT_EQ(Parsed(out + "\r\n").GetParam(field::kContentDisposition, field::kParamFilename),
            u"\u20ac Rechnung.pdf");
}

TEST(HeaderWriteTest, ParsedFieldsAreWrittenAsTheyStood) {
  const std::string block = "From: \"Smith, Alice\" (work) <alice@example.org>\r\nSubject: a\r\n  folded line\r\n";
  CXmHeader h = Parsed(block + "\r\n");
  EXPECT_EQ(Written(h), block);
  h.SetSubject(u"changed");
  EXPECT_EQ(Written(h), "From: \"Smith, Alice\" (work) <alice@example.org>\r\nSubject: changed\r\n");
}

}  // namespace
}  // namespace trv
