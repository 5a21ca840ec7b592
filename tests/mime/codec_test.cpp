// Transfer encodings: the byte rules, the base64 and quoted-printable stream
// filters fed in two pieces cut at every point, damaged input, and the
// automatic choice of an encoding.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "mime/base64.h"
#include "mime/codec_streams.h"
#include "mime/quoted_printable.h"
#include "mime/transfer_encoding.h"

namespace trv {
namespace {

// Feeds `in` to a Filter in two pieces cut at `cut` and returns the output
// after Finish().
template <typename Filter>
std::string RunFilter(std::string_view in, size_t cut = std::string::npos, bool* clean = nullptr) {
  CXmMemoryStream out;
  Filter f(out);
  cut = std::min(cut, in.size());
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

TEST(ByteRuleTest, QuotedPrintableAndHeaderWords) {
  struct Row { const char* name; bool word; std::string in; std::string out; };
  const Row rows[] = {
      {"equals sign", false, "a=b", "a=3Db"},
      {"tab", false, "\t", "=09"},
      {"space stays", false, "a b", "a b"},
      {"DEL", false, "\x7F", "=7F"},
      {"line end gets no special treatment", false, "a\r\nb", "a=0D=0Ab"},
      {"word: question mark", true, "?", "=3F"},
      {"word: underscore", true, "_", "=5F"},
      {"word: space", true, " ", "=20"},
      {"word: equals sign", true, "=", "=3D"},
  };
  for (const Row& r : rows) {
    std::string out;
    if (r.word) {
      size_t index = 0;
      EncodeHeaderWord(r.in, &index, 1000, &out);
      EXPECT_EQ(index, r.in.size()) << r.name;
    } else {
      QpEncodeBytes(r.in, &out);
    }
    EXPECT_EQ(out, r.out) << r.name;
  }
  CXmMemoryStream s;
  EXPECT_TRUE(QpEncodeRun("abc", -5, s).ok());
  EXPECT_TRUE(QpEncodeRun("a=", 2, s).ok());
  EXPECT_EQ(s.data(), "a=3D") << "a length of zero or less writes nothing";
}

TEST(ByteRuleTest, HeaderWordBudgetStopsAfterTheCrossingByte) {
  // The count starts at 3; with budget 5 the third byte makes it 6 and has
  // been written when the loop stops. The next call continues at the index.
  std::string out;
  size_t index = 0;
  EncodeHeaderWord("abcdef", &index, 5, &out);
  EXPECT_EQ(out, "abc");
  EXPECT_EQ(index, 3u);
  EncodeHeaderWord("abcdef", &index, 5, &out);
  EXPECT_EQ(out, "abcdef");
  out.clear();
  index = 0;
  EncodeHeaderWord("a?b", &index, 5, &out);
  EXPECT_EQ(out, "a=3F") << "an escape crossing the budget is written whole";
}

TEST(Base64Test, KnownValuesAndLineBreaks) {
  // RFC 4648 section 10.
  const std::pair<const char*, const char*> rows[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"foobar", "Zm9vYmFy"}};
  for (const auto& [plain, encoded] : rows) {
    EXPECT_EQ(Base64Encode(plain, 76), encoded) << plain;
    EXPECT_EQ(RunFilter<CXmBase64Encoder>(plain), encoded) << plain;
    std::string decoded;
    EXPECT_TRUE(Base64Decode(encoded, decoded));
    EXPECT_EQ(decoded, plain);
  }
  std::string decoded;
  EXPECT_TRUE(Base64Decode("YQ==Yg==", decoded));
  EXPECT_EQ(decoded, "a") << "the whole-buffer decoder stops at the first padding";
  EXPECT_FALSE(Base64Decode("YW*Jj", decoded));
  EXPECT_EQ(decoded, "abc");
  const std::string whole = Base64Encode(RandomBytes(200, 1), 76);
  EXPECT_EQ(whole.substr(76, 2), "\r\n");
  EXPECT_EQ(whole.substr(0, 76).find('\r'), std::string::npos);
  EXPECT_EQ(Base64Encode(RandomBytes(200, 1), 0).find('\r'), std::string::npos) << "width 0: one line";
}

TEST(Base64Test, StreamsAtEveryCut) {
  const std::string data = RandomBytes(200, 1);
  const std::string whole = RunFilter<CXmBase64Encoder>(data);
  for (size_t cut = 0; cut <= data.size(); ++cut) {
    ASSERT_EQ(RunFilter<CXmBase64Encoder>(data, cut), whole) << "cut at " << cut;
  }
  for (size_t n = 0; n < 40; ++n) {
    const std::string some = RandomBytes(n, static_cast<uint32_t>(n));
    const std::string enc = RunFilter<CXmBase64Encoder>(some);
    for (size_t cut = 0; cut <= enc.size(); ++cut) {
      bool clean = false;
      ASSERT_EQ(RunFilter<CXmBase64Decoder>(enc, cut, &clean), some) << "length " << n << " cut " << cut;
      ASSERT_TRUE(clean);
    }
  }
}

TEST(Base64Test, BadInputKeepsWhatCanBeDecoded) {
  struct Row { const char* name; std::string in; std::string out; bool clean; };
  const Row rows[] = {
      {"missing padding", "YWJjZA", "abcd", true},
      {"garbage between groups", "YW*Jj!ZA==", "abcd", false},
      {"line ends and blanks", "YWJj\r\n ZA==\r\n", "abcd", true},
      {"lone symbol at the end", "YWJjZ", "abc", false},
      {"concatenated padded parts", "YQ==Yg==", "ab", true},
      {"8-bit bytes", "YW\xFF\xFEJj", "abc", false},
  };
  for (const Row& r : rows) {
    bool clean = true;
    EXPECT_EQ(RunFilter<CXmBase64Decoder>(r.in, std::string::npos, &clean), r.out) << r.name;
    EXPECT_EQ(clean, r.clean) << r.name;
  }
}

TEST(QpStreamTest, LinesStayWithinTheWidthAndEscapesAreNotSplit) {
  const std::string enc = RunFilter<CXmQpEncoder>(RandomBytes(3000, 7) + std::string(200, 'x') + "   ");
  for (size_t start = 0; start < enc.size();) {
    size_t end = std::min(enc.find("\r\n", start), enc.size());
    const std::string line = enc.substr(start, end - start);
    ASSERT_LE(line.size(), 76u) << line;
    if (end < enc.size()) {
      ASSERT_EQ(line.back(), '=') << "only soft breaks: " << line;
    }
    // An "=" is always followed by two hexadecimal digits or ends the line.
    for (size_t i = 0; i < line.size(); ++i) {
      if (line[i] != '=' || i + 1 == line.size()) continue;
      ASSERT_LE(i + 3, line.size()) << line;
      ASSERT_TRUE(isxdigit(static_cast<unsigned char>(line[i + 1])) &&
                  isxdigit(static_cast<unsigned char>(line[i + 2])));
      i += 2;
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

TEST(QpStreamTest, DecoderToleratesMalformedInputAtEveryCut) {
  struct Row { const char* name; std::string in; std::string out; bool clean; };
  const Row rows[] = {
      {"lone = at the end", "abc=", "abc=", false},
      {"= and one digit at the end", "abc=4", "abc=4", false},
      {"= before a non-hex", "a=XYb", "a=XYb", false},
      {"lower-case hex", "=e9=3d", "\xE9=", true},
      {"soft break with bare LF", "ab=\ncd", "abcd", true},
      {"soft break with blanks after =", "ab= \t\r\ncd", "abcd", true},
      {"= then blank then text", "a= b", "a= b", false},
      {"trailing blanks dropped", "ab  \r\ncd \t\r\n", "ab\r\ncd\r\n", true},
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
  const std::pair<std::string, std::string> rows[] = {
      {"a\nb\n", "a\r\nb\r\n"}, {"a\r\nb", "a\r\nb"}, {"a\rb\r", "a\r\nb\r\n"}, {"\n\n\r\n\r\r", "\r\n\r\n\r\n\r\n\r\n"}};
  for (const auto& [in, out] : rows) {
    for (size_t cut = 0; cut <= in.size(); ++cut) EXPECT_EQ(RunFilter<CXmLineEndFilter>(in, cut), out) << cut;
  }
}

TEST(FilterStreamTest, FinishIsFinal) {
  CXmMemoryStream out;
  CXmBase64Encoder enc(out);
  EXPECT_TRUE(enc.Write("ab").ok());
  EXPECT_TRUE(enc.Finish().ok());
  EXPECT_TRUE(enc.Finish().ok()) << "a second Finish writes nothing more";
  EXPECT_EQ(out.data(), "YWI=");
  EXPECT_EQ(enc.Write("c"), rc::kFail);
}

TEST(TransferEncodingTest, NamesAndCodes) {
  for (int code = 0; code <= 4; ++code) {
    const auto e = static_cast<TransferEncoding>(code);
    EXPECT_EQ(TransferEncodingFromName(std::string_view(TransferEncodingName(e))), e);
  }
  struct Row { const char* name; TransferEncoding code; bool known; };
  const Row rows[] = {{" Base64 ", kEncodingBase64, true}, {"", kEncoding8bit, false}, {"x-uu", kEncoding8bit, false}};
  for (const Row& r : rows) {
    bool known = !r.known;
    EXPECT_EQ(TransferEncodingFromName(std::string_view(r.name), &known), r.code) << r.name;
    EXPECT_EQ(known, r.known) << r.name;
    EXPECT_EQ(TransferEncodingFromName(W(r.name)), r.code) << r.name;
  }
  EXPECT_EQ(TransferEncodingFromName(u"base64\u00e9"), kEncoding8bit);
}

TEST(TransferEncodingTest, AutomaticChoice) {
  struct Row { const char* name; std::string body; int64_t limit; TransferEncoding expected; };
  const std::string mostly_ascii = std::string(300, 'a') + "\xE9";
  const Row rows[] = {
      {"ascii text is 7bit", "hello\r\nworld\r\n", 0, kEncoding7bit},
      {"mostly ascii is quoted-printable", mostly_ascii, 0, kEncodingQuotedPrintable},
      {"binary is base64", RandomBytes(600, 11), 0, kEncodingBase64},
      {"a tie goes to base64 (=E9a and 6WE=)", "\xE9" "a", 0, kEncodingBase64},
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

TEST(TransferEncodingTest, WriteEncodedBodyUsesTheNamedOrChosenEncoding) {
  struct Row { const char* name; const char* encoding; std::string body; TransferEncoding used; std::string out; };
  const Row rows[] = {
      {"named base64", "BASE64", "ab", kEncodingBase64, "YWI="},
      {"named 8bit copies", "8bit", "a\xE9", kEncoding8bit, "a\xE9"},
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

}  // namespace
}  // namespace trv
