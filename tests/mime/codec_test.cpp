// Transfer encodings and character sets: the line reader at every buffer
// size, the base64 and quoted-printable filters fed in two pieces cut at
// every point, damaged input; the converter between character sets and
// UTF-16, in whole buffers and in streams cut at every buffer size. (The
// choice of an encoding is the composition tests'.)
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "mime/base64.h"
#include "mime/charset/converter.h"
#include "mime/codec_streams.h"
#include "mime/line_reader.h"
#include "mime/mime_result.h"

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


// Every line of `text` read through a reader with the given buffer and line
// limit, each followed by "|".
std::string AllLines(const std::string& text, size_t buffer, size_t max_line = kMaxLineLength) {
  CXmViewStream in(text);
  CXmLineReader reader(in, buffer, max_line);
  std::string joined;
  for (std::string line; reader.ReadLine(&line).ok() && !line.empty();) joined += line + "|";
  EXPECT_TRUE(reader.AtEnd());
  EXPECT_EQ(reader.consumed(), text.size());
  return joined;
}

TEST(LineReaderTest, SameLinesForEveryBufferSizeAndLongLinesInPieces) {
  const std::string text = "first\r\nsecond line\r\n\r\nbare lf\nlast without end";
  for (size_t buffer = 16; buffer <= text.size() + 2; ++buffer) {
    EXPECT_EQ(AllLines(text, buffer), "first\r\n|second line\r\n|\r\n|bare lf\n|last without end|") << buffer;
  }
  EXPECT_EQ(AllLines(std::string(25, 'a') + "\r\nb\r\n", 16, 10), "aaaaaaaaaa|aaaaaaaaaa|aaaaa\r\n|b\r\n|");
  // Raw reads go on where the lines stopped.
  CXmViewStream in("head\r\nbody bytes");
  CXmLineReader reader(in, 16);
  std::string line, rest;
  ASSERT_TRUE(reader.ReadLine(&line).ok());
  char buf[3];
  for (size_t got = 1; got > 0; rest.append(buf, got)) ASSERT_TRUE(reader.Read(buf, sizeof buf, &got).ok());
  EXPECT_EQ(line + rest, "head\r\nbody bytes");
}

TEST(Base64Test, KnownValuesLineBreaksAndFinish) {
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
  EXPECT_EQ(whole.find('\r'), 76u);
  EXPECT_EQ(whole.substr(76, 2), "\r\n");
  EXPECT_EQ(Base64Encode(RandomBytes(200, 1), 0).find('\r'), std::string::npos) << "width 0: one line";

  CXmMemoryStream out;
  CXmBase64Encoder enc(out);
  EXPECT_TRUE(enc.Write("ab").ok() && enc.Finish().ok() && enc.Finish().ok());
  EXPECT_EQ(out.data(), "YWI=") << "a second Finish writes nothing more";
  EXPECT_EQ(enc.Write("c"), rc::kFail);
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

// Encoding `data` gives the same text wherever the input is cut, and that
// text, cut anywhere, decodes cleanly to `data`.
template <typename Encoder, typename Decoder>
void RoundTripAtEveryCut(const std::string& data) {
  const std::string enc = RunFilter<Encoder>(data);
  SCOPED_TRACE(std::to_string(data.size()) + " bytes");
  for (size_t cut = 0; cut <= data.size(); ++cut) ASSERT_EQ(RunFilter<Encoder>(data, cut), enc) << "cut " << cut;
  for (size_t cut = 0; cut <= enc.size(); ++cut) {
    bool clean = false;
    ASSERT_EQ(RunFilter<Decoder>(enc, cut, &clean), data) << "decoding, cut " << cut;
    ASSERT_TRUE(clean);
  }
}

TEST(CodecStreamTest, RoundTripAtEveryCut) {
  RoundTripAtEveryCut<CXmQpEncoder, CXmQpDecoder>("Gr\xFC\xDF" "e = 100%\r\nzweite Zeile \t\r\n" +
                                                  RandomBytes(150, 3) + " ");
  RoundTripAtEveryCut<CXmBase64Encoder, CXmBase64Decoder>(RandomBytes(200, 1));
  for (uint32_t n = 0; n < 40; ++n) RoundTripAtEveryCut<CXmBase64Encoder, CXmBase64Decoder>(RandomBytes(n, n));
}

// Both decoders keep what can be decoded and say whether the input was clean.
TEST(DecoderTest, DamagedInputAtEveryCut) {
  struct Row { const char* name; bool qp; std::string in, out; bool clean; };
  const Row rows[] = {
      {"base64: missing padding", false, "YWJjZA", "abcd", true},
      {"base64: garbage between groups", false, "YW*Jj!ZA==", "abcd", false},
      {"base64: lone symbol at the end", false, "YWJjZ", "abc", false},
      {"base64: 8-bit bytes", false, "YW\xFF\xFEJj", "abc", false},
      {"qp: lone = at the end", true, "abc=", "abc=", false},
      {"qp: = before a non-hex", true, "a=XYb", "a=XYb", false},
      {"qp: soft break with blanks after =", true, "ab= \t\r\ncd", "abcd", true},
      {"qp: = then blank then text", true, "a= b", "a= b", false},
      {"qp: trailing blanks dropped", true, "ab  \r\ncd \t\r\n", "ab\r\ncd\r\n", true},
  };
  for (const Row& r : rows) {
    for (size_t cut = 0; cut <= r.in.size(); ++cut) {
      bool clean = !r.clean;
      ASSERT_EQ(r.qp ? RunFilter<CXmQpDecoder>(r.in, cut, &clean) : RunFilter<CXmBase64Decoder>(r.in, cut, &clean),
                r.out) << r.name << " cut " << cut;
      ASSERT_EQ(clean, r.clean) << r.name << " cut " << cut;
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

// Bytes in a character set to UTF-16 and back; a conversion that fails
// still gives the whole text, with U+FFFD or "?" where it failed.
TEST(ConverterTest, BothDirections) {
  struct Row { const char* name; const char* charset; bool to_bytes; std::string bytes; WString text; bool ok; };
  const Row rows[] = {
      {"utf-8 with a pair", "utf-8", false, "a\xE2\x82\xAC\xF0\x9F\x98\x80", u"a\u20ac\U0001F600", true},
      {"iso-2022-jp", "iso-2022-jp", false, "\x1b$BF|K\\\x1b(B", u"\u65e5\u672c", true},
      {"utf-16 little-endian", "utf-16", false, std::string("a\0\xAC\x20", 4), u"a\u20ac", true},
      {"imap utf-7", "imap4-utf-7", false, "Entw&APw-rfe &- x", u"Entw\u00fcrfe & x", true},
      {"invalid utf-8 becomes U+FFFD", "utf-8", false, "a\xFF" "b", u"a\uFFFDb", false},
      {"us-ascii reads stray bytes as latin-1", "us-ascii", false, "caf\xE9", u"caf\u00e9", true},
      {"unknown charset falls back and fails", "x-unknown", false, "caf\xC3\xA9 \xE9", u"caf\u00e9 \u00e9", false},
      {"malformed imap utf-7", "imap4-utf-7", false, "a&Jjo!", u"a\u263a\uFFFD!", false},
      {"unmappable becomes ?", "iso-8859-1", true, "a?b", u"a\u20acb", false},
      {"to imap utf-7", "imap4-utf-7", true, "Entw&APw-rfe &- &Jjo-", u"Entw\u00fcrfe & \u263a", true},
      {"unknown charset writes utf-8 and fails", "x-unknown", true, "\xC3\xA9", u"\u00e9", false},
  };
  for (const Row& r : rows) {
    CXmConverter c(r.to_bytes ? "utf-16" : r.charset, r.to_bytes ? r.charset : "utf-16");
    std::string bytes;
    WString text;
    EXPECT_EQ(r.to_bytes ? c.Convert(WStringView(r.text), &bytes) : c.Convert(std::string_view(r.bytes), &text), r.ok)
        << r.name;
    EXPECT_EQ(r.to_bytes ? bytes : WideToUtf8(text), r.to_bytes ? r.bytes : WideToUtf8(r.text)) << r.name;
    EXPECT_EQ(c.last_error(), r.ok ? rc::kOk : rc::kMimeCharset) << r.name;
  }
}

// Every form stops at the first failure when asked to, and keeps what it
// converted before it; a stream's own failure code is passed on.
TEST(ConverterTest, FailuresInEveryForm) {
  std::string out;
  EXPECT_FALSE(CXmConverter("utf-16", "iso-8859-1").Convert(WStringView(u"ab\u20accd"), &out, kConvertStrict));
  EXPECT_EQ(out, "ab");
  WString wide;
  EXPECT_FALSE(CXmConverter("utf-8", "utf-16").Convert(std::string_view("ab\xFF" "cd"), &wide, kConvertStrict));
  EXPECT_EQ(wide, u"ab");
  ASSERT_TRUE(CXmConverter("utf-8", "utf-16").Convert("\xE2\x82\xAC", 3, &out));
  EXPECT_EQ(out, std::string("\xAC\x20", 2)) << "utf-16 as bytes is little-endian without mark";
  EXPECT_FALSE(CXmConverter("utf-8", "iso-8859-1").Convert("\xE2\x82\xAC!", 4, &out));
  EXPECT_EQ(out, "?!");

  CXmViewStream in("ok \xE2\x82\xAC rest"), abc("abc"), read_only("");
  CXmMemoryStream stream_out;
  CXmConverter c("utf-8", "iso-8859-1"), copy("utf-8", "utf-8");
  EXPECT_FALSE(c.Convert(in, stream_out, 64, 1)) << "mode 1 stops at the first failure";
  EXPECT_EQ(c.last_error(), rc::kMimeCharset);
  EXPECT_EQ(stream_out.data(), "ok ");
  EXPECT_FALSE(copy.Convert(abc, read_only, 64, 0));
  EXPECT_EQ(copy.last_error(), rc::kNotImplemented) << "the stream's own code";
}

TEST(ConverterTest, ImapUtf7RoundTrip) {
  for (const WString& name : {WString(u"&&"), WString(u"\u65e5\u672c\u8a9e"), WString(u"a\U0001F600b"),
                              WString(u"~/-+,"), WString(u"\u00e9\u00e9\u00e9\u00e9\u00e9")}) {
    std::string bytes;
    ASSERT_TRUE(CXmConverter("utf-16", "imap4-utf-7").Convert(WStringView(name), &bytes));
    for (unsigned char b : bytes) ASSERT_TRUE(b >= 0x20 && b < 0x7F);
    WString back;
    ASSERT_TRUE(CXmConverter("imap4-utf-7", "utf-16").Convert(std::string_view(bytes), &back)) << bytes;
    EXPECT_EQ(back, name) << bytes;
  }
}

TEST(ConverterTest, StreamFormGivesTheSameResultForEveryBufferSize) {
  // Multi-byte sequences fall across buffer edges for every size.
  const std::string utf8 = "Gr\xC3\xBC\xC3\x9F" "e \xE2\x82\xAC \xF0\x9F\x98\x80 \xE6\x97\xA5\xE6\x9C\xAC end";
  const std::string jis = "a\x1b$BF|K\\\x1b(Bb";
  for (size_t size = 1; size <= 40; ++size) {
    CXmViewStream in(utf8);
    CXmMemoryStream out;
    EXPECT_FALSE(CXmConverter("utf-8", "iso-8859-15").Convert(in, out, size, 0)) << "the pair and CJK do not fit";
    EXPECT_EQ(out.data(), "Gr\xFC\xDF" "e \xA4 ? ?? end") << size;

    CXmViewStream in2(jis);
    CXmMemoryStream out2;
    ASSERT_TRUE(CXmConverter("iso-2022-jp", "utf-8").Convert(in2, out2, size, 0)) << size;
    EXPECT_EQ(out2.data(), "a\xE6\x97\xA5\xE6\x9C\xAC" "b") << size;
  }
}

}  // namespace
}  // namespace trv
