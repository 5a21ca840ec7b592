// The SASL mechanisms' lines against their RFC examples and computed values;
// the exchanges with real servers are in the servers tests.
#include "net/sasl.h"

#include <gtest/gtest.h>

#include "mime/base64.h"

namespace trv {
namespace {

std::string Decoded(const std::string& b64) {
  std::string out;
  Base64Decode(b64, out);
  return out;
}

TEST(SaslTest, PlainSaysEverythingInTheFirstLine) {
  SaslClient sasl;
  ASSERT_EQ(sasl.Start(kSaslPlain, "u", "p"), rc::kOk);
  EXPECT_TRUE(sasl.IsComplete());
  std::string line, answer;
  ASSERT_EQ(sasl.FirstLine(&line), rc::kOk);
  EXPECT_EQ(line, "PLAIN AHUAcA==");  // zero, u, zero, p
  EXPECT_EQ(sasl.Step("", &answer), rc::kSaslUnexpectedChallenge);

  const std::string user(60, 'u'), password(60, 'p');
  ASSERT_EQ(sasl.Start(kSaslPlain, user, password), rc::kOk);
  ASSERT_EQ(sasl.FirstLine(&line), rc::kOk);
  EXPECT_EQ(line.find_first_of("\r\n"), std::string::npos) << "long credentials stay on one line";
  EXPECT_EQ(Decoded(line.substr(6)), std::string(1, '\0') + user + '\0' + password);
}

TEST(SaslTest, LoginAnswersUserThenPasswordWhateverThePrompts) {
  SaslClient sasl;
  ASSERT_EQ(sasl.Start(kSaslLogin, "alice", "secret"), rc::kOk);
  std::string line, answer;
  ASSERT_EQ(sasl.FirstLine(&line), rc::kOk);
  EXPECT_EQ(line, "LOGIN");
  ASSERT_EQ(sasl.Step("UGFzc3dvcmQ6", &answer), rc::kOk);  // "Password:" first: still the user
  EXPECT_EQ(Decoded(answer), "alice");
  EXPECT_FALSE(sasl.IsComplete());
  ASSERT_EQ(sasl.Step("", &answer), rc::kOk);
  EXPECT_EQ(Decoded(answer), "secret");
  EXPECT_TRUE(sasl.IsComplete());
  EXPECT_EQ(sasl.Step("VXNlcm5hbWU6", &answer), rc::kSaslUnexpectedChallenge);
}

TEST(SaslTest, CramMd5) {
  // RFC 2195 section 2.
  SaslClient sasl;
  ASSERT_EQ(sasl.Start(kSaslCramMd5, "tim", "tanstaaftanstaaf"), rc::kOk);
  std::string line, answer;
  ASSERT_EQ(sasl.FirstLine(&line), rc::kOk);
  EXPECT_EQ(line, "CRAM-MD5");
  ASSERT_EQ(sasl.Step(Base64Encode("<1896.697170952@postoffice.reston.mci.net>", 0), &answer), rc::kOk);
  EXPECT_EQ(answer, "dGltIGI5MTNhNjAyYzdlZGE3YTQ5NWI0ZTZlNzMzNGQzODkw");
  EXPECT_TRUE(sasl.IsComplete());

  ASSERT_EQ(sasl.Start(kSaslCramMd5, "tim", "x"), rc::kOk);
  EXPECT_EQ(sasl.Step("!!not base64!!", &answer), rc::kSaslUnexpectedChallenge);
  EXPECT_EQ(sasl.Step("", &answer), rc::kSaslUnexpectedChallenge);
}

TEST(SaslTest, MechanismsThatAreNotAvailable) {
  SaslClient sasl;
  std::string line;
  EXPECT_EQ(sasl.FirstLine(&line), rc::kSaslUnavailable) << "nothing started";
  for (uint32_t m : {kSaslDigestMd5, kSaslNtlm, kSaslMsn, 0u, 64u, kSaslPlain | kSaslLogin}) {
    EXPECT_EQ(sasl.Start(m, "u", "p"), rc::kSaslUnavailable) << m;
  }
  EXPECT_EQ(SaslClient::MechanismName(3, &line), rc::kSaslUnavailable);
  EXPECT_EQ(line, "");
}

TEST(SaslTest, ParseMechanismList) {
  const std::pair<const char*, uint32_t> rows[] = {
      {"PLAIN LOGIN DIGEST-MD5 NTLM", kSaslPlain | kSaslLogin},
      {"  cram-MD5  ", kSaslCramMd5},
      {"GSSAPI XOAUTH2 CRAM-MD5 plain", kSaslCramMd5 | kSaslPlain},
      {"PLAINLOGIN", 0},
      {"", 0},
  };
  for (const auto& [text, bits] : rows) EXPECT_EQ(SaslClient::ParseMechanismList(text), bits) << text;
}

}  // namespace
}  // namespace trv
