// The SASL mechanisms' lines against their RFC examples and computed values;
// the exchanges with real servers are in the servers tests.
#include "net/sasl.h"

#include <gtest/gtest.h>

#include "mime/base64.h"

namespace trv {
namespace {

std::string B64(std::string_view text) { return Base64Encode(text, 0); }

TEST(SaslTest, ExchangesToTheirEnd) {
  struct Row {
    uint32_t mechanism;
    std::string user, password, first;
    std::vector<std::pair<std::string, std::string>> steps;  // challenge, answer
  };
  const std::string user(60, 'u'), password(60, 'p');
  const Row rows[] = {
      {kSaslPlain, "u", "p", "PLAIN AHUAcA==", {}},  // zero, u, zero, p
      // Long credentials stay on one line.
      {kSaslPlain, user, password, "PLAIN " + B64(std::string(1, '\0') + user + '\0' + password), {}},
      // The user first, then the password, whatever the prompts say.
      {kSaslLogin, "alice", "secret", "LOGIN", {{"UGFzc3dvcmQ6", B64("alice")}, {"", B64("secret")}}},
      // RFC 2195 section 2.
      {kSaslCramMd5, "tim", "tanstaaftanstaaf", "CRAM-MD5",
       {{B64("<1896.697170952@postoffice.reston.mci.net>"), "dGltIGI5MTNhNjAyYzdlZGE3YTQ5NWI0ZTZlNzMzNGQzODkw"}}},
  };
  for (const Row& row : rows) {
    SaslClient sasl;
    ASSERT_EQ(sasl.Start(row.mechanism, row.user, row.password), rc::kOk);
    std::string line, answer;
    ASSERT_EQ(sasl.FirstLine(&line), rc::kOk);
    EXPECT_EQ(line, row.first);
    for (const auto& [challenge, want] : row.steps) {
      EXPECT_FALSE(sasl.IsComplete()) << row.first;
      ASSERT_EQ(sasl.Step(challenge, &answer), rc::kOk) << row.first;
      EXPECT_EQ(answer, want) << row.first;
    }
    EXPECT_TRUE(sasl.IsComplete()) << row.first;
    EXPECT_EQ(sasl.Step("VXNlcm5hbWU6", &answer), rc::kSaslUnexpectedChallenge) << row.first << ": one too many";
  }
  SaslClient sasl;
  std::string answer;
  ASSERT_EQ(sasl.Start(kSaslCramMd5, "tim", "x"), rc::kOk);
  EXPECT_EQ(sasl.Step("!!not base64!!", &answer), rc::kSaslUnexpectedChallenge);
  EXPECT_EQ(sasl.Step("", &answer), rc::kSaslUnexpectedChallenge);
}

TEST(SaslTest, MechanismsThatAreNotAvailable) {
  SaslClient sasl;
  std::string line;
  EXPECT_EQ(sasl.FirstLine(&line), rc::kSaslUnavailable) << "nothing started";
  for (uint32_t m : {kSaslDigestMd5, 0u, kSaslPlain | kSaslLogin}) {
    EXPECT_EQ(sasl.Start(m, "u", "p"), rc::kSaslUnavailable) << m;
  }
  EXPECT_EQ(SaslClient::MechanismName(3, &line), rc::kSaslUnavailable);
  EXPECT_EQ(line, "");
}

}  // namespace
}  // namespace trv
