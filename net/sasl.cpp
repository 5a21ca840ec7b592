#include "net/sasl.h"

#include <openssl/evp.h>

#include "base/wide_string.h"
#include "mime/base64.h"
#include "net/secret.h"
#include "base/hex_digits.h"

namespace trv {

namespace {

struct Mechanism {
  uint32_t bit;
  const char* name;
  const char* word;  // recognized in a server's list; null: never taken from one
};

constexpr Mechanism kMechanisms[] = {
    {kSaslPlain, "PLAIN", "plain"},
    {kSaslLogin, "LOGIN", "login"},
    {kSaslCramMd5, "CRAM-MD5", "cram-md5"},
    {kSaslDigestMd5, "DIGEST-MD5", nullptr},
    {kSaslNtlm, "NTLM", nullptr},
    {kSaslMsn, "MSN", nullptr},
};

// Base64 on one line: a break inside an AUTH line would end the command.
std::string Encode(std::string_view bytes) { return Base64Encode(bytes, 0); }

}  // namespace

SaslClient::SaslClient() = default;
SaslClient::~SaslClient() { WipeSecret(&password_); }

Result SaslClient::MechanismName(uint32_t bit, std::string* name) {
  for (const Mechanism& m : kMechanisms) {
    if (m.bit == bit) {
      *name = m.name;
      return rc::kOk;
    }
  }
  name->clear();
  return rc::kSaslUnavailable;
}

uint32_t SaslClient::ParseMechanismList(std::string_view text) {
  uint32_t bits = 0;
  size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && text[i] == ' ') ++i;
    size_t j = i;
    while (j < text.size() && text[j] != ' ') ++j;
    const std::string word = ToLowerAscii(text.substr(i, j - i));
    for (const Mechanism& m : kMechanisms) {
      if (m.word && word == m.word) bits |= m.bit;
    }
    i = j;
  }
  return bits;
}

Result SaslClient::Start(uint32_t mechanism, std::string_view user, std::string_view password) {
  if (mechanism != kSaslPlain && mechanism != kSaslLogin && mechanism != kSaslCramMd5) {
    return rc::kSaslUnavailable;
  }
  mechanism_ = mechanism;
  user_ = user;
  WipeSecret(&password_);
  password_ = password;
  step_ = 0;
  // PLAIN says everything in its first line.
  complete_ = mechanism == kSaslPlain;
  return rc::kOk;
}

Result SaslClient::FirstLine(std::string* text) const {
  if (Result r = MechanismName(mechanism_, text); r.failed()) return r;
  if (mechanism_ == kSaslPlain) {
    // RFC 4616: an empty authorization identity, the user, the password.
    std::string message;
    message.push_back('\0');
    message.append(user_);
    message.push_back('\0');
    message.append(password_);
    text->append(" ").append(Encode(message));
    WipeSecret(&message);
  }
  return rc::kOk;
}

Result SaslClient::Step(std::string_view challenge, std::string* answer) {
  answer->clear();
  if (complete_ || mechanism_ == 0) return rc::kSaslUnexpectedChallenge;
  if (mechanism_ == kSaslLogin) {
    // The prompts' texts vary between servers and are not read.
    *answer = Encode(step_ == 0 ? user_ : password_);
    if (++step_ == 2) complete_ = true;
    return rc::kOk;
  }
  // CRAM-MD5, RFC 2195: the user, a blank and HMAC-MD5 of the challenge
  // keyed with the password, in lower-case hex.
  std::string decoded;
  if (!Base64Decode(challenge, decoded) || decoded.empty()) return rc::kSaslUnexpectedChallenge;
  unsigned char digest[EVP_MAX_MD_SIZE];
  size_t length = 0;
  if (!EVP_Q_mac(nullptr, "HMAC", nullptr, "MD5", nullptr, password_.data(), password_.size(),
                 reinterpret_cast<const unsigned char*>(decoded.data()), decoded.size(), digest, sizeof digest,
                 &length)) {
    return rc::kSaslUnavailable;
  }
  *answer = Encode(user_ + " " + LowerHex(std::string_view(reinterpret_cast<const char*>(digest), length)));
  complete_ = true;
  return rc::kOk;
}

std::string MaskedAuthLine(std::string_view first) {
  const size_t blank = first.find(' ');
  if (blank == std::string_view::npos) return "AUTH " + std::string(first);
  return "AUTH " + std::string(first.substr(0, blank)) + " ********";
}

}  // namespace trv
