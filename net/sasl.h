// The SASL object: turns a mechanism, a user name and a password into the
// lines of an AUTH exchange. The SMTP and POP3 clients own one each and
// drive it: "AUTH " + FirstLine(), then one Step() per server challenge
// until IsComplete(). The protocol framing ("334 ", "+ ", the "*" cancel
// line) belongs to the clients.
#pragma once

#include <cstdint>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>

#include "base/result.h"

namespace trv {

// Mechanism bits.
inline constexpr uint32_t kSaslPlain = 1;
inline constexpr uint32_t kSaslLogin = 2;
inline constexpr uint32_t kSaslCramMd5 = 4;
inline constexpr uint32_t kSaslDigestMd5 = 8;
inline constexpr uint32_t kSaslNtlm = 16;
inline constexpr uint32_t kSaslMsn = 32;

namespace rc {
inline constexpr Result kSaslUnexpectedChallenge{0x80E10001};  // or one that does not decode
inline constexpr Result kSaslUnavailable{0x80E10004};
}  // namespace rc

inline constexpr ResultTextEntry kSaslTexts[] = {
    {0x80E10001, "The authentication exchange received an unexpected challenge."},
    {0x80E10004, "The authentication mechanism is not available."},
};
inline constexpr ResultTextTable kSaslTextTable{kSaslTexts, std::size(kSaslTexts)};
inline const bool kSaslTextsRegistered = RegisterResultTexts(kSaslTextTable);

class SaslClient {
 public:
  SaslClient();
  ~SaslClient();  // wipes the password
  SaslClient(const SaslClient&) = delete;
  SaslClient& operator=(const SaslClient&) = delete;

  // Selects the mechanism (one bit). PLAIN, LOGIN and CRAM-MD5 are
  // available; the others give rc::kSaslUnavailable.
  Result Start(uint32_t mechanism, std::string_view user, std::string_view password);
  // The mechanism name, and for PLAIN a blank and the initial response.
  Result FirstLine(std::string* text) const;
  // challenge: the base64 text after the client's prefix; *answer: base64.
  Result Step(std::string_view challenge, std::string* answer);
  // True when no more answers are due; the client then reads the final reply.
  bool IsComplete() const { return complete_; }

  // "PLAIN", "LOGIN", "CRAM-MD5", "DIGEST-MD5", "NTLM", "MSN"; an unknown bit
  // gives rc::kSaslUnavailable and "".
  static Result MechanismName(uint32_t bit, std::string* name);
  // The bits of the words "plain", "login" and "cram-md5" (any case) in a
  // blank-separated server list; other words add nothing.
  static uint32_t ParseMechanismList(std::string_view text);

 private:
  uint32_t mechanism_ = 0;
  std::string user_;
  std::string password_;
  int step_ = 0;
  bool complete_ = false;
};

// How an AUTH line is shown in the log: "AUTH PLAIN ********" when the first
// line carries an initial response, else "AUTH " + first as it is.
std::string MaskedAuthLine(std::string_view first);

}  // namespace trv
