#include <gtest/gtest.h>

#include <random>
#include <string>

#include "mime/base64.h"
#include "mime/codec_streams.h"
#include "mime/quoted_printable.h"
#include "mime/transfer_encoding.h"

namespace trv {
namespace {

// Feeds `in` to a filter made by `make` in pieces cut at `cut` and returns the
// output after Finish().
template <typename Filter>
std::string RunFilter(std::string_view in, size_t cut = std::string::npos, bool* clean = nullptr) {
  CXmMemoryStream out;
  Filter f(out);
  if (cut > in.size()) cut = in.size();
  EXPECT_TRUE(f.Write(in.substr(0, cut)).ok());
  EXPECT_TRUE(f.Write(in.substr(cut)).ok());
  EXPECT_TRUE(f.Finish().ok());
  if (clean) *clean = f.clean();
  return out.data();
}

std::string RandomBytes(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(rng());
  return s;
}

TEST(QuotedPrintableTest, ByteRule) {
  struct Row { const char* name; std::string in; std::string out; };
  const Row rows[] = {
      {"equals sign", "a=b", "a=3Db"},
      {"tab", "\t", "=09"},
      {"space stays", "a b", "a b"},
      {"byte E9", "\xE9", "=E9"},
      {"tilde stays", "~", "~"},
      {"DEL", "\x7F", "=7F"},
      {"line end gets no special treatment", "a\r\nb", "a=0D=0Ab"},
      {"NUL", std::string(1, '\0'), "=00"},
      {"exclamation mark", "!", "!"},
  };
  for (const Row& r : rows) {
    std::string out;
    QpEncodeBytes(r.in, &out);
    EXPECT_EQ(out, r.out) << r.name;
  }
  CXmMemoryStream s;
  EXPECT_TRUE(QpEncodeRun("abc", 0, s).ok());
  EXPECT_TRUE(QpEncodeRun("abc", -5, s).ok());
  EXPECT_TRUE(QpEncodeRun("a=", 2, s).ok());
  EXPECT_EQ(s.data(), "a=3D");
}

TEST(HeaderWordTest, ByteRule) {
  struct Row { const char* name; std::string in; std::string out; };
  const Row rows[] = {
      {"question mark", "?", "=3F"},
      {"underscore", "_", "=5F"},
      {"space", " ", "=20"},
      {"angle brackets stay", "<>", "<>"},
      {"equals sign", "=", "=3D"},
      {"letters", "Abc~", "Abc~"},
      {"high byte", "\xC3\xA9", "=C3=A9"},
      {"control byte", "\x01", "=01"},
      {"DEL", "\x7F", "=7F"},
  };
  for (const Row& r : rows) {
    std::string out;
    size_t index = 0;
    EncodeHeaderWord(r.in, &index, 1000, &out);
    EXPECT_EQ(out, r.out) << r.name;
    EXPECT_EQ(index, r.in.size()) << r.name;
  }
}

TEST(HeaderWordTest, BudgetStopsAfterTheCrossingByte) {
  // The count starts at 3; each of "abcdef" counts 1. With budget 5 the third
  // byte makes the count 6 > 5 and has been written when the loop stops.
  std::string out;
  size_t index = 0;
  EncodeHeaderWord("abcdef", &index, 5, &out);
  EXPECT_EQ(out, "abc");
  EXPECT_EQ(index, 3u);
  // The next call continues at the index.
  EncodeHeaderWord("abcdef", &index, 5, &out);
  EXPECT_EQ(out, "abcdef");
  // An escape crossing the budget is written whole.
  out.clear();
  index = 0;
  EncodeHeaderWord("a?b", &index, 5, &out);
  EXPECT_EQ(out, "a=3F");
  // At or past the end nothing happens.
  out.clear();
  index = 9;
  EncodeHeaderWord("abc", &index, 100, &out);
  EXPECT_EQ(out, "");
  EXPECT_EQ(index, 9u);
}

TEST(Base64StreamTest, EncoderMatchesWholeBufferAtEveryCut) {
  const std::string data = RandomBytes(200, 1);
  const std::string whole = Base64Encode(data, 76);
  for (size_t cut = 0; cut <= data.size(); ++cut) {
    ASSERT_EQ(RunFilter<CXmBase64Encoder>(data, cut), whole) << "cut at " << cut;
  }
  for (const std::string& line : {whole.substr(0, 76), whole.substr(78, 76)}) {
    EXPECT_EQ(line.find('\r'), std::string::npos);
  }
  EXPECT_EQ(whole.substr(76, 2), "\r\n");
}

TEST(Base64StreamTest, RoundTripOfEveryLengthAndCut) {
  for (size_t n = 0; n < 40; ++n) {
    const std::string data = RandomBytes(n, static_cast<uint32_t>(n));
    const std::string enc = RunFilter<CXmBase64Encoder>(data);
    for (size_t cut = 0; cut <= enc.size(); ++cut) {
      bool clean = false;
      ASSERT_EQ(RunFilter<CXmBase64Decoder>(enc, cut, &clean), data) << "length " << n << " cut " << cut;
      ASSERT_TRUE(clean);
    }
  }
}

TEST(Base64StreamTest, BadInputKeepsWhatCanBeDecoded) {
  struct Row { const char* name; std::string in; std::string out; bool clean; };
  const Row rows[] = {
      {"missing padding", "YWJjZA", "abcd", true},
      {"garbage between groups", "YW*Jj!ZA==", "abcd", false},
      {"line ends and blanks", "YWJj\r\n ZA==\r\n", "abcd", true},
      {"lone symbol at the end", "YWJjZ", "abc", false},
      {"concatenated padded parts", "YQ==Yg==", "ab", true},
      {"only padding", "====", "", true},
      {"empty", "", "", true},
      {"8-bit bytes", "YW\xFF\xFEJj", "abc", false},
  };
  for (const Row& r : rows) {
    bool clean = true;
    EXPECT_EQ(RunFilter<CXmBase64Decoder>(r.in, std::string::npos, &clean), r.out) << r.name;
    EXPECT_EQ(clean, r.clean) << r.name;
  }
}

TEST(QpStreamTest, LinesStayWithinTheWidthAndEscapesAreNotSplit) {
  const std::string data = RandomBytes(3000, 7) + std::string(200, 'x') + std::string(100, ' ');
  const std::string enc = RunFilter<CXmQpEncoder>(data);
  size_t start = 0;
  while (start < enc.size()) {
    size_t end = enc.find("\r\n", start);
    if (end == std::string::npos) end = enc.size();
    const std::string line = enc.substr(start, end - start);
    ASSERT_LE(line.size(), 76u) << line;
    if (end < enc.size()) {
      ASSERT_EQ(line.back(), '=') << "only soft breaks: " << line;
    }
    // An "=" is always followed by two hexadecimal digits or ends the line.
    for (size_t i = 0; i < line.size(); ++i) {
      if (line[i] == '=' && i + 1 < line.size()) {
        ASSERT_LE(i + 3, line.size()) << line;
        ASSERT_TRUE(isxdigit(static_cast<unsigned char>(line[i + 1])) && isxdigit(static_cast<unsigned char>(line[i + 2])));
        i += 2;
      }
    }
    start = end + 2;
  }
  EXPECT_EQ(enc.substr(enc.size() - 3), "=20") << "a space that ends the data is escaped";
}

TEST(QpStreamTest, RoundTripAtEveryCut) {
  const std::string data = "Gr\xFC\xDF" "e = 100%\r\nzweite Zeile \t\r\n" + RandomBytes(150, 3) + " ";
  const std::string enc = RunFilter<CXmQpEncoder>(data);
  for (size_t cut = 0; cut <= data.size(); ++cut) {
    ASSERT_EQ(RunFilter<CXmQpEncoder>(data, cut), enc) << "encoder cut " << cut;
  }
  for (size_t cut = 0; cut <= enc.size(); ++cut) {
    bool clean = false;
    ASSERT_EQ(RunFilter<CXmQpDecoder>(enc, cut, &clean), data) << "decoder cut " << cut;
    ASSERT_TRUE(clean);
  }
}

TEST(QpStreamTest, DecoderToleratesMalformedInput) {
  struct Row { const char* name; std::string in; std::string out; bool clean; };
  const Row rows[] = {
      {"lone = at the end", "abc=", "abc=", false},
      {"= and one digit at the end", "abc=4", "abc=4", false},
      {"= before a non-hex", "a=XYb", "a=XYb", false},
      {"= then digit then non-hex", "a=4Zb", "a=4Zb", false},
      {"lower-case hex", "=e9=3d", "\xE9=", true},
      {"soft break", "ab=\r\ncd", "abcd", true},
      {"soft break with bare LF", "ab=\ncd", "abcd", true},
      {"soft break with blanks after =", "ab= \t\r\ncd", "abcd", true},
      {"= then blank then text", "a= b", "a= b", false},
      {"trailing blanks dropped", "ab  \r\ncd \t\r\n", "ab\r\ncd\r\n", true},
      {"inner blanks kept", "a  b", "a  b", true},
      {"blanks at the very end dropped", "ab  ", "ab", true},
      {"= CR without LF", "a=\rb", "ab", true},
  };
  for (const Row& r : rows) {
    for (size_t cut = 0; cut <= r.in.size(); ++cut) {
      bool clean = true;
      ASSERT_EQ(RunFilter<CXmQpDecoder>(r.in, cut, &clean), r.out) << r.name << " cut " << cut;
      ASSERT_EQ(clean, r.clean) << r.name;
    }
  }
}

TEST(LineEndFilterTest, MakesEveryLineEndCrLfAtEveryCut) {
  struct Row { const char* name; std::string in; std::string out; };
  const Row rows[] = {
      {"bare LF", "a\nb\n", "a\r\nb\r\n"},
      {"CR LF stays", "a\r\nb", "a\r\nb"},
      {"bare CR", "a\rb\r", "a\r\nb\r\n"},
      {"blank lines", "\n\n\r\n\r\r", "\r\n\r\n\r\n\r\n\r\n"},
  };
  for (const Row& r : rows) {
    for (size_t cut = 0; cut <= r.in.size(); ++cut) {
      EXPECT_EQ(RunFilter<CXmLineEndFilter>(r.in, cut), r.out) << r.name << " cut " << cut;
    }
  }
}

TEST(FilterStreamTest, WritesAfterFinishFailAndReadingIsRefused) {
  CXmMemoryStream out;
  CXmBase64Encoder enc(out);
  EXPECT_TRUE(enc.Write("ab").ok());
  EXPECT_EQ(enc.Position(), 2u);
  EXPECT_TRUE(enc.Finish().ok());
  EXPECT_TRUE(enc.Finish().ok()) << "a second Finish writes nothing more";
  EXPECT_EQ(out.data(), "YWI=");
  EXPECT_EQ(enc.Write("c"), rc::kFail);
  char buf[4];
  size_t got = 9;
  EXPECT_EQ(enc.Read(buf, sizeof buf, &got), rc::kNotImplemented);
  EXPECT_EQ(got, 0u);
  EXPECT_EQ(enc.Seek(0, SeekOrigin::kBegin), rc::kNotImplemented);
}

TEST(TransferEncodingTest, NamesAndCodes) {
  struct Row { const char* name; TransferEncoding code; bool known; };
  const Row rows[] = {
      {"Binary", kEncodingBinary, true},   {"7bit", kEncoding7bit, true},
      {"8BIT", kEncoding8bit, true},       {" Base64 ", kEncodingBase64, true},
      {"Quoted-Printable", kEncodingQuotedPrintable, true},
      {"", kEncoding8bit, false},          {"x-uuencode", kEncoding8bit, false},
  };
  for (const Row& r : rows) {
    bool known = !r.known;
    EXPECT_EQ(TransferEncodingFromName(std::string_view(r.name), &known), r.code) << r.name;
    EXPECT_EQ(known, r.known) << r.name;
    EXPECT_EQ(TransferEncodingFromName(W(r.name)), r.code) << r.name;
  }
  EXPECT_EQ(TransferEncodingFromName(u"base64\u00e9"), kEncoding8bit);
  for (int code = 0; code <= 4; ++code) {
    const auto e = static_cast<TransferEncoding>(code);
    EXPECT_EQ(TransferEncodingFromName(std::string_view(TransferEncodingName(e))), e);
  }
  EXPECT_STREQ(TransferEncodingName(static_cast<TransferEncoding>(9)), "8bit");
  EXPECT_EQ(TransferEncodingNameW(kEncodingQuotedPrintable), u"quoted-printable");
}

TEST(TransferEncodingTest, AutomaticChoice) {
  struct Row { const char* name; std::string body; int64_t limit; TransferEncoding expected; };
  const std::string mostly_ascii = std::string(300, 'a') + "\xE9";
  const std::string binary = RandomBytes(600, 11);
  const Row rows[] = {
      {"ascii text is 7bit", "hello\r\nworld\r\n", 0, kEncoding7bit},
      {"empty body is 7bit", "", 0, kEncoding7bit},
      {"mostly ascii is quoted-printable", mostly_ascii, 0, kEncodingQuotedPrintable},
      {"binary is base64", binary, 0, kEncodingBase64},
      {"8-bit byte beyond the limit is not seen", mostly_ascii, 300, kEncoding7bit},
      {"8-bit byte within the limit", mostly_ascii, 301, kEncodingQuotedPrintable},
  };
  for (const Row& r : rows) {
    CXmMemoryStream body(r.body);
    TransferEncoding chosen = kEncodingBinary;
    ASSERT_TRUE(ChooseTransferEncoding(body, r.limit, &chosen).ok()) << r.name;
    EXPECT_EQ(chosen, r.expected) << r.name;
  }
}

TEST(TransferEncodingTest, TieGoesToBase64) {
  // Quoted-printable "=E9a" and base64 "6WE=" are both 4 characters long.
  CXmMemoryStream body(std::string("\xE9" "a"));
  TransferEncoding chosen = kEncodingBinary;
  ASSERT_TRUE(ChooseTransferEncoding(body, 0, &chosen).ok());
  EXPECT_EQ(chosen, kEncodingBase64);
}

TEST(TransferEncodingTest, WriteEncodedBodyUsesTheNamedOrChosenEncoding) {
  struct Row { const char* name; const char* encoding; std::string body; TransferEncoding used; std::string out; };
  const Row rows[] = {
      {"named base64", "BASE64", "ab", kEncodingBase64, "YWI="},
      {"named 8bit copies", "8bit", "a\xE9", kEncoding8bit, "a\xE9"},
      {"named 7bit copies", "7bit", "a\xE9", kEncoding7bit, "a\xE9"},
      {"unknown name chooses", "x-foo", "abc", kEncoding7bit, "abc"},
      {"no name chooses qp", "", std::string(30, 'a') + "\xE9", kEncodingQuotedPrintable,
       std::string(30, 'a') + "=E9"},
  };
  for (const Row& r : rows) {
    CXmMemoryStream body(r.body);
    ASSERT_TRUE(body.Seek(0, SeekOrigin::kEnd).ok());  // the writer reads from the start
    CXmMemoryStream out;
    TransferEncoding used = kEncodingBinary;
    ASSERT_TRUE(WriteEncodedBody(body, r.encoding, 0, out, &used).ok()) << r.name;
    EXPECT_EQ(used, r.used) << r.name;
    EXPECT_EQ(out.data(), r.out) << r.name;
  }
}

TEST(TransferEncodingTest, DecoderByCodeInvertsEncoderByCode) {
  const std::string data = RandomBytes(500, 5);
  for (int code = 0; code <= 4; ++code) {
    const auto e = static_cast<TransferEncoding>(code);
    CXmMemoryStream encoded;
    auto enc = MakeTransferEncoder(e, encoded);
    ASSERT_TRUE(enc->Write(data).ok());
    ASSERT_TRUE(enc->Finish().ok());
    CXmMemoryStream decoded;
    auto dec = MakeTransferDecoder(e, decoded);
    ASSERT_TRUE(dec->Write(encoded.data()).ok());
    ASSERT_TRUE(dec->Finish().ok());
    EXPECT_EQ(decoded.data(), data) << TransferEncodingName(e);
  }
}

}  // namespace
}  // namespace trv
