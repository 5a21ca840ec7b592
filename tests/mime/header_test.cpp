#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "mime/encoded_word.h"
#include "mime/header.h"
#include "mime/header_split.h"
#include "mime/header_writer.h"
#include "mime/stream.h"

namespace trv {
namespace {

CXmHeader Parsed(const std::string& block, const char* charset = "us-ascii", Result* status = nullptr) {
  CXmHeader h;
  const Result r = h.Parse(block, charset);
  if (status) *status = r;
  return h;
}

std::string Written(const CXmHeader& h, const HeaderWriteOptions& o = {}, Result* status = nullptr) {
  std::string out;
  const Result r = h.Write(&out, o);
  if (status) *status = r;
  return out;
}

// --- Splitting

TEST(SplitFieldTest, ValueParametersCommentsQuotesAndBlanks) {
  struct Row {
    const char* name;
    WString in;
    WString field;
    WString value;
    WString comment;
    std::vector<std::pair<WString, WString>> params;
  };
  const Row rows[] = {
      {"content type", u"Content-Type: text/plain; charset=utf-8", u"Content-Type", u"text/plain", u"",
       {{u"charset", u"utf-8"}}},
      {"quoted parameter", u"Content-Type: multipart/mixed; boundary=\"a b;c\"", u"Content-Type",
       u"multipart/mixed", u"", {{u"boundary", u"a b;c"}}},
      {"blanks around = and ;", u"X: v ;  name =  value  ; other", u"X", u"v", u"",
       {{u"name", u"value"}, {u"other", u""}}},
      {"later = is data", u"X: v; b=----=_Part=1", u"X", u"v", u"", {{u"b", u"----=_Part=1"}}},
      {"comment kept apart", u"MIME-Version: 1.0 (produced by x)", u"MIME-Version", u"1.0", u"produced by x", {}},
      {"nested comment", u"X: a (b (c) d) e", u"X", u"a e", u"b c d", {}},
      {"unclosed comment", u"X: a (b", u"X", u"a", u"b", {}},
      {"blank runs collapse", u"Subject: a  \t b", u"Subject", u"a b", u"", {}},
      {"blanks around @ and . vanish", u"From: a . b @ c . d", u"From", u"a.b@c.d", u"", {}},
      {"escaped quote is data", u"X: a\\\"b", u"X", u"a\\\"b", u"", {}},
      {"quoted escapes", u"X: \"a\\\"b\\\\c\"", u"X", u"a\"b\\c", u"", {}},
      {"quoted blanks kept", u"X: \"  a  \"", u"X", u"  a  ", u"", {}},
      {"unclosed quote", u"X: \"abc", u"X", u"abc", u"", {}},
      {"empty parameter names dropped", u"X: v; ; =x; a=1", u"X", u"v", u"", {{u"a", u"1"}}},
      {"colon in value", u"Subject: Re: x", u"Subject", u"Re: x", u"", {}},
      {"empty value", u"X:", u"X", u"", u"", {}},
      {"two comments", u"X: (a) v (b)", u"X", u"v", u"a b", {}},
  };
  for (const Row& r : rows) {
    CXmHeaderField f;
    EXPECT_TRUE(SplitField(r.in, &f).ok()) << r.name;
    EXPECT_EQ(f.name(), r.field) << r.name;
    EXPECT_EQ(f.value(), r.value) << r.name;
    EXPECT_EQ(f.comment(), r.comment) << r.name;
    ASSERT_EQ(f.params().size(), r.params.size()) << r.name;
    for (size_t i = 0; i < r.params.size(); ++i) {
      EXPECT_EQ(f.params()[i].name, r.params[i].first) << r.name;
      EXPECT_EQ(f.params()[i].value, r.params[i].second) << r.name;
    }
  }
}

TEST(SplitFieldTest, ErrorPaths) {
  CXmHeaderField f;
  EXPECT_EQ(SplitField(u"no colon here", &f), rc::kMimeSyntax);
  EXPECT_EQ(f.name(), u"no colon here");
  WString many = u"X: v";
  for (size_t i = 0; i < kMaxParameterCount + 5; ++i) many += u"; p=1";
  EXPECT_EQ(SplitField(many, &f), rc::kMimeSyntax);
  EXPECT_EQ(f.params().size(), kMaxParameterCount);
}

// --- Parsing

TEST(HeaderParseTest, UnfoldingRule) {
  struct Row { const char* name; std::string block; WString value; };
  const Row rows[] = {
      {"fold drops CR LF and one blank", "Subject: a\r\n b\r\n\r\n", u"ab"},
      {"further blanks survive", "Subject: a\r\n   b\r\n\r\n", u"a b"},
      {"tab fold", "Subject: a\r\n\tb\r\n\r\n", u"ab"},
      {"CR LF after backslash is data", "X-A: a\\\r\nX-B: b\r\n\r\n", u"a\\\r\nX-B: b"},
      {"block without empty line", "Subject: hello\r\n", u"hello"},
      {"block without final line end", "Subject: hello", u"hello"},
  };
  for (const Row& r : rows) {
    CXmHeader h = Parsed(r.block);
    ASSERT_GE(h.size(), 1u) << r.name;
    EXPECT_EQ(h.fields()[0].value(), r.value) << r.name;
  }
}

TEST(HeaderParseTest, BlockEndAndShortRests) {
  CXmHeader h;
  size_t end = 0;
  const std::string msg = "A: 1\r\nB: 2\r\n\r\nbody\r\n";
  ASSERT_TRUE(h.Parse(msg, "us-ascii", &end).ok());
  EXPECT_EQ(h.size(), 2u);
  EXPECT_EQ(end, msg.find("body"));
  // Fewer than 5 bytes left: parsing stops and ignores them.
  ASSERT_TRUE(h.Parse("A: 1\r\nB:2", "us-ascii", &end).ok());
  EXPECT_EQ(h.size(), 1u);
  EXPECT_EQ(end, 9u);
  // An empty header block.
  ASSERT_TRUE(h.Parse("\r\nbody", "us-ascii", &end).ok());
  EXPECT_EQ(h.size(), 0u);
  EXPECT_EQ(end, 2u);
}

TEST(HeaderParseTest, BadFieldsAreDroppedAndTheFirstErrorKept) {
  Result status;
  CXmHeader h = Parsed("A: 1\r\nnocolon\r\nbad name: x\r\n: empty\r\nwith space\r\nB: 2\r\n\r\n", "us-ascii", &status);
  EXPECT_EQ(status, rc::kMimeSyntax);
  ASSERT_EQ(h.size(), 3u) << "a line without \":\" and without blank stays as a name";
  EXPECT_EQ(h.fields()[0].name(), u"A");
  EXPECT_EQ(h.fields()[1].name(), u"nocolon");
  EXPECT_EQ(h.fields()[2].name(), u"B");
}

TEST(HeaderParseTest, CharsetsAndConversionFailures) {
  Result status;
  CXmHeader h = Parsed("Subject: Gr\xFC\xDF" "e\r\n\r\n", "iso-8859-1", &status);
  EXPECT_TRUE(status.ok());
  EXPECT_EQ(h.GetSubject(), u"Gr\u00fc\u00dfe");
  h = Parsed("Subject: caf\xC3\xA9\r\n\r\n", "us-ascii", &status);
  EXPECT_TRUE(status.ok()) << "raw utf-8 under the default set is read without error";
  EXPECT_EQ(h.GetSubject(), u"caf\u00e9");
  h = Parsed("Subject: a\xFF" "b\r\n\r\n", "utf-8", &status);
  EXPECT_EQ(status, rc::kMimeCharset);
  EXPECT_EQ(h.GetSubject(), u"a\uFFFDb") << "the field is kept";
  h = Parsed("Subject: caf\xC3\xA9\r\n\r\n", "x-unknown", &status);
  EXPECT_EQ(status, rc::kMimeCharset);
  EXPECT_EQ(h.GetSubject(), u"caf\u00e9");
}

TEST(HeaderParseTest, LookupGettersSettersAndBoundary) {
  CXmHeader h = Parsed(
      "content-type: Multipart/Mixed; boundary=\"abc\"\r\n"
      "Received: first\r\nReceived: second\r\n"
      "Content-Disposition: attachment; filename*=utf-8''%C3%A9.txt\r\n\r\n");
  EXPECT_EQ(h.GetContentType(), u"Multipart/Mixed") << "names compare without case";
  EXPECT_EQ(h.Boundary(), u"abc");
  EXPECT_EQ(h.GetReceived(), u"first");
  EXPECT_EQ(h.FindLast(field::kReceived)->value(), u"second");
  EXPECT_EQ(h.FindAll(u"RECEIVED").size(), 2u);
  EXPECT_EQ(h.GetParam(field::kContentDisposition, field::kParamFilename), u"\u00e9.txt");
  EXPECT_EQ(h.GetSubject(), u"");

  h.SetSubject(u"new");
  h.SetReturnPath(u"<a@x>");
  EXPECT_EQ(h.GetSubject(), u"new");
  EXPECT_EQ(h.fields().back().name(), u"Return-path");
  h.SetContentType(u"text/plain");
  EXPECT_EQ(h.GetParam(field::kContentType, field::kParamBoundary), u"abc") << "parameters stay";
  EXPECT_EQ(h.Boundary(), u"") << "not multipart: no boundary even with the parameter";
  EXPECT_EQ(h.Remove(field::kReceived), 2u);
  EXPECT_EQ(h.Find(field::kReceived), nullptr);
}

TEST(HeaderParseTest, BoundaryForms) {
  struct Row { const char* name; std::string block; WString boundary; };
  const Row rows[] = {
      {"quoted", "Content-Type: multipart/mixed; boundary=\"abc\"\r\n\r\n", u"abc"},
      {"unquoted", "Content-Type: multipart/mixed; boundary=abc\r\n\r\n", u"abc"},
      {"quotes left after splitting", "Content-Type: multipart/mixed; boundary=\"\\\"abc\\\"\"\r\n\r\n", u"abc"},
      {"escaped quotes are no quoted string", "Content-Type: multipart/mixed; boundary=\\\"abc\\\"\r\n\r\n",
       u"\\\"abc\\\""},
      {"not multipart", "Content-Type: text/plain; boundary=abc\r\n\r\n", u""},
      {"no content type", "Subject: x\r\n\r\n", u""},
      {"multipart without boundary", "Content-Type: multipart/mixed\r\n\r\n", u""},
      {"case kept", "Content-Type: multipart/mixed; boundary=AbC\r\n\r\n", u"AbC"},
  };
  for (const Row& r : rows) EXPECT_EQ(Parsed(r.block).Boundary(), r.boundary) << r.name;
}

TEST(HeaderParseTest, DisplayViews) {
  CXmHeader h = Parsed(
      "Subject: =?utf-8?Q?Gr=C3=BC=C3=9Fe?= aus\r\n =?iso-8859-1?Q?K=F6ln?= und\r\n Bonn\r\n"
      "From: \"Smith, Alice\" <alice@example.org>\r\n"
      "To: a@x,\r\n B <b@y>\r\n"
      "To: c@z\r\n\r\n");
  EXPECT_EQ(h.DisplayText(field::kSubject), u"Gr\u00fc\u00dfe aus K\u00f6ln und Bonn")
      << "display unfolding keeps the blank at a fold";
  EXPECT_EQ(h.GetSubject(), u"=?utf-8?Q?Gr=C3=BC=C3=9Fe?= aus=?iso-8859-1?Q?K=F6ln?= undBonn")
      << "the value follows the stated unfolding";
  const std::vector<MailAddress> from = h.Addresses(field::kFrom);
  ASSERT_EQ(from.size(), 1u);
  EXPECT_EQ(from[0].name, u"Smith, Alice");
  EXPECT_EQ(from[0].address, u"alice@example.org");
  const std::vector<MailAddress> to = h.Addresses(field::kTo);
  ASSERT_EQ(to.size(), 3u);
  EXPECT_EQ(to[1].name, u"B");
  EXPECT_EQ(to[2].address, u"c@z");
}

TEST(HeaderParseTest, TrickyRealWorldLines) {
  // Lines of the kinds found in real mailboxes.
  CXmHeader h = Parsed(
      "Return-Path: <>\r\n"
      "Received: from mx.example.org (mx.example.org [192.0.2.1])\r\n"
      "\tby mail.example.net (Postfix) with ESMTPS id 4F3A2\r\n"
      "\tfor <bob@example.net>; Tue, 4 Jan 2005 09:05:07 +0100 (CET)\r\n"
      "Content-Type: multipart/alternative;\r\n"
      "\tboundary=\"----=_Part_123_456.789\"\r\n"
      "Content-Disposition: attachment;\r\n"
      " filename*0*=utf-8''%E2%82%AC%20Rechnung;\r\n"
      " filename*1=\" 2024.pdf\"\r\n"
      "Subject: =?UTF-8?B?W1NQQU1dIA==?==?UTF-8?B?4oKs?=\r\n"
      "Message-ID: <CAF+abc=123@mail.example.com>\r\n"
      "X-Empty:\r\n"
      "DKIM-Signature: v=1; a=rsa-sha256; d=example.org; s=s1;\r\n"
      "\tb=AbC/dEf+gh==\r\n\r\n");
  ASSERT_EQ(h.size(), 8u);
  EXPECT_EQ(h.GetReturnPath(), u"<>");
  EXPECT_EQ(h.Boundary(), u"----=_Part_123_456.789");
  EXPECT_EQ(h.GetParam(field::kContentDisposition, field::kParamFilename), u"\u20ac Rechnung 2024.pdf");
  EXPECT_EQ(h.DisplayText(field::kSubject), u"[SPAM] \u20ac");
  EXPECT_EQ(h.GetMessageId(), u"<CAF+abc=123@mail.example.com>");
  EXPECT_EQ(h.GetValue(u"x-empty"), u"");
  EXPECT_EQ(h.GetParam(u"DKIM-Signature", u"b"), u"AbC/dEf+gh==");
}

TEST(HeaderParseTest, MoreTrickyLinesAsAListShowsThem) {
  struct Row { const char* name; std::string line; WString subject; WString from_name; WString from_address; };
  const Row rows[] = {
      {"word split inside a character across a fold",
       "Subject: =?UTF-8?B?w6k=?=\r\n =?UTF-8?B?w6k=?=\r\nFrom: a@x\r\n", u"\u00e9\u00e9", u"", u"a@x"},
      {"name glued to bracket", "Subject: x\r\nFrom: Alice<a@x>\r\n", u"x", u"Alice", u"a@x"},
      {"encoded name in quotes (common, not allowed)",
       "Subject: x\r\nFrom: \"=?iso-8859-1?Q?J=F6rg?=\" <j@x>\r\n", u"x", u"J\u00f6rg", u"j@x"},
      {"raw latin-1 name", "Subject: caf\xE9\r\nFrom: J\xF6rg <j@x>\r\n", u"caf\u00e9", u"J\u00f6rg", u"j@x"},
      {"lower-case encoding and charset", "Subject: =?utf-8?q?=e2=82=ac?=\r\nFrom: a@x\r\n", u"\u20ac", u"", u"a@x"},
      {"tab folding kept as blank", "Subject: a\r\n\tb\r\nFrom: a@x\r\n", u"a\tb", u"", u"a@x"},
  };
  for (const Row& r : rows) {
    CXmHeader h = Parsed(r.line + "\r\n");
    EXPECT_EQ(h.DisplayText(field::kSubject), r.subject) << r.name;
    const std::vector<MailAddress> from = h.Addresses(field::kFrom);
    ASSERT_EQ(from.size(), 1u) << r.name;
    EXPECT_EQ(from[0].name, r.from_name) << r.name;
    EXPECT_EQ(from[0].address, r.from_address) << r.name;
  }
  CXmHeader h = Parsed("Content-Type: text/plain (comment); charset=\"us-ascii\" (Plain text)\r\n\r\n");
  EXPECT_EQ(h.GetContentType(), u"text/plain");
  EXPECT_EQ(h.GetParam(field::kContentType, field::kParamCharset), u"us-ascii");
  EXPECT_EQ(h.Find(field::kContentType)->comment(), u"comment Plain text");
}

TEST(HeaderParseTest, HostileInputLimits) {
  // A 10 MB field line: kept (cut to the field limit), in linear time.
  std::string block = "Subject: " + std::string(10 * 1024 * 1024, 'x') + "\r\nB: 2\r\n\r\n";
  const auto start = std::chrono::steady_clock::now();
  Result status;
  CXmHeader h = Parsed(block, "us-ascii", &status);
  const auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(status, rc::kMimeSyntax);
  ASSERT_EQ(h.size(), 2u);
  EXPECT_EQ(h.GetSubject().size(), kMaxFieldSize - 9);
  EXPECT_EQ(h.fields()[0].raw().size(), block.size() - 10) << "the raw text stays whole";
  EXPECT_LT(seconds, 30.0) << "a guard against quadratic behaviour, not a benchmark";

  // Too many fields.
  std::string many;
  for (size_t i = 0; i < kMaxFieldCount + 10; ++i) many += "X: 1\r\n";
  h = Parsed(many + "\r\n", "us-ascii", &status);
  EXPECT_EQ(status, rc::kMimeSyntax);
  EXPECT_EQ(h.size(), kMaxFieldCount);

  // NUL bytes and control characters are data.
  h = Parsed(std::string("Subject: a\0b\x01\r\n\r\n", 16), "us-ascii", &status);
  EXPECT_TRUE(status.ok());
  EXPECT_EQ(h.GetSubject(), WString(u"a\0b\x01", 4));
}

// --- Reading from a stream

TEST(HeaderReadTest, SameResultAtEveryBufferSizeAndTheStreamStopsAtTheBody) {
  const std::string msg =
      "From: a@x\r\nSubject: folded\r\n line\r\nContent-Type: text/plain;\r\n charset=utf-8\r\n\r\nbody line\r\n";
  for (size_t buffer = 16; buffer <= msg.size() + 1; ++buffer) {
    CXmViewStream in(msg);
    CXmLineReader reader(in, buffer);
    std::string block;
    ASSERT_TRUE(ReadHeaderBlock(reader, &block).ok());
    EXPECT_EQ(block, msg.substr(0, msg.find("body"))) << buffer;
    std::string rest;
    ASSERT_TRUE(reader.ReadLine(&rest).ok());
    EXPECT_EQ(rest, "body line\r\n") << buffer;
  }
}

TEST(HeaderReadTest, EdgeCases) {
  struct Row { const char* name; std::string in; std::string block; size_t max; bool ok; };
  const Row rows[] = {
      {"ends at the end of the stream", "A: 1\r\nB: 2", "A: 1\r\nB: 2", kMaxHeaderBlockSize, true},
      {"empty header", "\r\nbody", "\r\n", kMaxHeaderBlockSize, true},
      {"empty stream", "", "", kMaxHeaderBlockSize, true},
      {"over the size limit", "A: 123456789\r\nB: 2\r\n\r\nbody", "A: 123456", 9, false},
  };
  for (const Row& r : rows) {
    CXmViewStream in(r.in);
    CXmLineReader reader(in);
    std::string block;
    EXPECT_EQ(ReadHeaderBlock(reader, &block, r.max).ok(), r.ok) << r.name;
    EXPECT_EQ(block, r.block) << r.name;
  }
  // After the limit the rest of the block is still consumed.
  CXmViewStream in("A: 123456789\r\nB: 2\r\n\r\nbody");
  CXmLineReader reader(in);
  std::string block;
  EXPECT_EQ(ReadHeaderBlock(reader, &block, 9), rc::kMimeSyntax);
  std::string line;
  ASSERT_TRUE(reader.ReadLine(&line).ok());
  EXPECT_EQ(line, "body");

  CXmViewStream in2("Subject: x\r\n\r\n");
  CXmLineReader reader2(in2);
  CXmHeader h;
  ASSERT_TRUE(h.Read(reader2, "us-ascii").ok());
  EXPECT_EQ(h.GetSubject(), u"x");
}

// --- Writing

TEST(ParameterQuotingTest, Rules) {
  struct Row { const char* name; WString in; WString out; };
  const Row rows[] = {
      {"plain", u"utf-8", u"utf-8"},
      {"blank", u"a b", u"\"a b\""},
      {"embedded quote", u"a\"b", u"\"a\\\"b\""},
      {"leading quote kept", u"\"ab", u"\"\"ab\""},
      {"already escaped", u"a\\\"b", u"\"a\\\"b\""},
      {"each special", u"x=y", u"\"x=y\""},
      {"slash", u"a/b", u"\"a/b\""},
      {"control character", u"a\tb", u"\"a\tb\""},
      {"DEL", u"a\x7F", u"\"a\x7F\""},
      {"non-ascii", u"\u00e9", u"\"\u00e9\""},
      {"backslash alone is not special", u"a\\b", u"a\\b"},
      {"empty", u"", u""},
  };
  for (const Row& r : rows) EXPECT_EQ(QuoteParameterValue(r.in), r.out) << r.name;
}

// Every physical line of a written block.
std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find("\r\n", start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 2;
  }
  return lines;
}

TEST(HeaderWriteTest, FoldsAfterTheLastSemicolon) {
  CXmHeader h;
  CXmHeaderField& f = h.SetValue(field::kContentType, u"multipart/mixed");
  f.SetParam(field::kParamBoundary, u"----=_NextPart_000_0001_01D00000.12345678");
  f.SetParam(field::kParamCharset, u"utf-8");
  const std::string out = Written(h);
  // The line reaches the limit inside the boundary, so it breaks after the
  // ";" before it.
  EXPECT_EQ(out,
            "Content-Type: multipart/mixed;\r\n"
            " boundary=\"----=_NextPart_000_0001_01D00000.12345678\"; charset=utf-8\r\n");
  // Our own reader unfolds it back to the same parameters.
  CXmHeader back = Parsed(out + "\r\n");
  EXPECT_EQ(back.Boundary(), u"----=_NextPart_000_0001_01D00000.12345678");
  EXPECT_EQ(back.GetParam(field::kContentType, field::kParamCharset), u"utf-8");
}

TEST(HeaderWriteTest, LongTextFoldsAtBlanksAndLinesStayShort) {
  CXmHeader h;
  WString subject;
  for (int i = 0; i < 40; ++i) subject += u"word" + W(std::to_string(i)) + u" ";
  subject += u"end";
  h.SetSubject(subject);
  const std::string out = Written(h);
  for (const std::string& line : Lines(out)) EXPECT_LT(line.size(), 76u) << line;
  CXmHeader back = Parsed(out + "\r\n");
  EXPECT_EQ(back.DisplayText(field::kSubject), subject);
  // A run without blanks or ";" cannot be folded and stays whole.
  h.SetSubject(WString(200, u'x'));
  EXPECT_EQ(Written(h), "Subject: " + std::string(200, 'x') + "\r\n");
}

TEST(HeaderWriteTest, EncodedWords) {
  CXmHeader h;
  h.SetSubject(u"Gr\u00fc\u00dfe aus K\u00f6ln");
  HeaderWriteOptions o;
  o.sending_charset = "utf-8";
  Result status;
  EXPECT_EQ(Written(h, o, &status), "Subject: =?utf-8?Q?Gr=C3=BC=C3=9Fe?= aus =?utf-8?Q?K=C3=B6ln?=\r\n");
  EXPECT_TRUE(status.ok());
  h.SetSubject(u"Gr\u00fc\u00dfe K\u00f6ln!");
  EXPECT_EQ(Written(h, o), "Subject: =?utf-8?Q?Gr=C3=BC=C3=9Fe=20K=C3=B6ln!?=\r\n")
      << "neighbouring words that need encoding share one encoded word";

  o.sending_charset = "ISO-8859-1";
  h.SetSubject(u"Re: caf\u00e9 ok");
  EXPECT_EQ(Written(h, o), "Subject: Re: =?iso-8859-1?Q?caf=E9?= ok\r\n");

  o.allow_8bit = true;
  EXPECT_EQ(Written(h, o), "Subject: Re: caf\xE9 ok\r\n");
}

TEST(HeaderWriteTest, LongEncodedTextIsSplitIntoWordsOfWholeCharacters) {
  WString subject;
  for (int i = 0; i < 60; ++i) subject += u"\u20ac\U0001F600 ";
  subject += u"\u00e9";
  CXmHeader h;
  h.SetSubject(subject);
  HeaderWriteOptions o;
  o.sending_charset = "utf-8";
  const std::string out = Written(h, o);
  const std::vector<std::string> lines = Lines(out);
  ASSERT_GT(lines.size(), 5u);
  for (const std::string& line : lines) {
    EXPECT_LT(line.size(), 75u) << line;
    EXPECT_NE(line.find("=?utf-8?Q?"), std::string::npos) << line;
    EXPECT_EQ(line.substr(line.size() - 2), "?=") << line;
  }
  CXmHeader back = Parsed(out + "\r\n");
  EXPECT_EQ(back.DisplayText(field::kSubject), subject) << "RFC unfolding";
  WString own;
  EXPECT_TRUE(DecodeEncodedWords(back.GetSubject(), &own));
  EXPECT_EQ(own, subject) << "the stated unfolding joins the words, which still decode whole";
}

TEST(HeaderWriteTest, ConversionFailureGivesStatusAndStillWrites) {
  CXmHeader h;
  h.SetSubject(u"price \u20ac 5");
  h.SetFrom(u"a@x");
  HeaderWriteOptions o;
  o.sending_charset = "iso-8859-1";
  Result status;
  EXPECT_EQ(Written(h, o, &status), "Subject: price =?iso-8859-1?Q?=3F?= 5\r\nFrom: a@x\r\n");
  EXPECT_EQ(status, rc::kMimeCharset);
  CXmMemoryStream out;
  EXPECT_EQ(h.Write(out, o), rc::kMimeCharset);
  EXPECT_FALSE(out.data().empty());
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
  CXmHeaderField& f = h.SetValue(field::kContentDisposition, u"attachment");
  f.SetParam(field::kParamFilename, u"\u20ac Rechnung.pdf");
  HeaderWriteOptions o;
  o.sending_charset = "utf-8";
  const std::string out = Written(h, o);
  EXPECT_EQ(out, "Content-Disposition: attachment; filename*=utf-8''%E2%82%AC%20Rechnung.pdf\r\n");
  EXPECT_EQ(Parsed(out + "\r\n").GetParam(field::kContentDisposition, field::kParamFilename),
            u"\u20ac Rechnung.pdf");
}

TEST(HeaderWriteTest, ParsedFieldsAreWrittenAsTheyStood) {
  const std::string block =
      "From: \"Smith, Alice\" (work) <alice@example.org>\r\n"
      "Subject: a\r\n  folded line\r\n";
  CXmHeader h = Parsed(block + "\r\n");
  EXPECT_EQ(Written(h), block);
  h.SetSubject(u"changed");
  EXPECT_EQ(Written(h), "From: \"Smith, Alice\" (work) <alice@example.org>\r\nSubject: changed\r\n");
}

TEST(HeaderWriteTest, RoundTripThroughWriterAndReader) {
  const WString subjects[] = {
      u"plain ascii",
      u"\u65e5\u672c\u8a9e\u306e\u4ef6\u540d",
      u"mixed \u00e9t\u00e9 and more words to make it long enough to fold at least once or twice",
      u"question? under_score = equals",
  };
  HeaderWriteOptions o;
  o.sending_charset = "utf-8";
  for (const WString& s : subjects) {
    CXmHeader h;
    h.SetSubject(s);
    const std::string out = Written(h, o);
    EXPECT_EQ(Parsed(out + "\r\n").DisplayText(field::kSubject), s) << out;
  }
}

}  // namespace
}  // namespace trv
