#include "net/pop3_client.h"

#include <openssl/evp.h>

#include <algorithm>

#include "base/hex_digits.h"
#include "net/secret.h"

namespace trv {
namespace {

// Codes after which Login tries the next method: the server refused, or the
// exchange failed on one side while the connection stayed in step.
bool NextMethodMayWork(Result r) { return r.family() == 0x80C2 || r.family() == 0x80E1; }

}  // namespace

CPop3Client::CPop3Client() { SetLogMask(kPop3InitialLogMask); }

CPop3Client::~CPop3Client() { WipeSecret(&password_); }

void CPop3Client::SetCredentials(std::string_view user, std::string_view password) {
  user_ = user;
  WipeSecret(&password_);
  password_ = password;
}

Result CPop3Client::ReadStatus(Result refused, std::string* text) {
  if (Result r = ReadLine(&status_line_); r.failed()) return r;
  switch (JudgeStatus(status_line_)) {
    case Pop3Status::kOk:
      last_reply_.clear();
      if (text) *text = StatusText(status_line_);
      return rc::kOk;
    case Pop3Status::kErr:
      last_reply_ = status_line_;
      return refused;
    case Pop3Status::kMalformed:
      break;
  }
  last_reply_ = status_line_;
  return rc::kPop3Malformed;
}

Result CPop3Client::Command(std::string_view line, Result refused, std::string* text) {
  if (Result r = SendLine(line); r.failed()) return r;
  return ReadStatus(refused, text);
}

// Ends at a line equal to "." (RFC 1939 section 3); the listing is read to
// its end even after take failed, so the next command finds the connection
// in step.
template <typename Take>
Result CPop3Client::ReadListing(uint32_t level, Take&& take) {
  LineLevel scope(*this, level);
  Result first;
  std::string line;
  for (;;) {
    if (Result r = ReadLine(&line); r.failed()) return r;
    if (line == ".") return first;
    if (first.ok()) first = take(line);
  }
}

Result CPop3Client::Connect(std::string_view host, uint16_t port) {
  if (connected()) return rc::kOk;
  capabilities_ = kPop3InitialCapabilities;
  sasl_mechanisms_ = 0;
  apop_timestamp_.clear();
  if (Result r = CMailSocket::Connect(host, port); r.failed()) return r;
  Result r = ReadStatus(rc::kPop3Greeting);
  if (r.ok()) {
    apop_timestamp_ = ApopTimestamp(status_line_);
    r = ReadCapabilities();
  }
  if (r.failed()) Close().Ignore();
  return r;
}

Result CPop3Client::ReadCapabilities() {
  Result r = Capa();
  if (r.ok() && (capabilities_ & kPop3CapSasl)) r = AuthList();
  if (r == rc::kPop3Unsupported) r = rc::kOk;  // an older server; keep what is known
  if (r.ok()) last_reply_.clear();
  return r;
}

Result CPop3Client::Capa() {
  if (Result r = Command("CAPA", rc::kPop3Unsupported); r.failed()) return r;
  capabilities_ = 0;
  return ReadListing(kPop3LogCapa, [this](std::string_view line) {
    ApplyCapaLine(line, &capabilities_, &sasl_mechanisms_);
    return rc::kOk;
  });
}

Result CPop3Client::AuthList() {
  if (Result r = Command("AUTH", rc::kPop3Unsupported); r.failed()) return r;
  return ReadListing(kPop3LogAuth, [this](std::string_view line) {
    sasl_mechanisms_ |= SaslClient::ParseMechanismList(line);
    return rc::kOk;
  });
}

Result CPop3Client::StartTls() {
  if (Result r = Command("STLS", rc::kPop3Unsupported); r.failed()) return r;
  if (Result r = SetPlainMode(false); r.failed()) return r;
  // What the server offered in the clear is forgotten (RFC 2595 section 4).
  capabilities_ = kPop3InitialCapabilities;
  sasl_mechanisms_ = 0;
  return ReadCapabilities();
}

// The fixed order: without secure login, AUTH LOGIN, AUTH PLAIN, USER/PASS;
// with it, AUTH CRAM-MD5 (and the mechanisms a server list never yields),
// then APOP. The USER capability gates every method, SASL included. The
// first success ends it; otherwise the last attempt's code counts.
Result CPop3Client::Login() {
  if (!(capabilities_ & kPop3CapUser)) return rc::kPop3Login;
  Result last = rc::kPop3Login;
  const auto done = [&last](Result r) {
    last = r;
    return r.ok() || !NextMethodMayWork(r);
  };
  if (!use_sasl_) {
    for (uint32_t m : {kSaslLogin, kSaslPlain}) {
      if ((sasl_mechanisms_ & m) && done(LoginSasl(m))) return last;
    }
    done(LoginUserPass());
    return last;
  }
  for (uint32_t m : {kSaslCramMd5, kSaslDigestMd5, kSaslNtlm, kSaslMsn}) {
    if ((sasl_mechanisms_ & m) && done(LoginSasl(m))) return last;
  }
  done(LoginApop());
  return last;
}

Result CPop3Client::LoginUserPass() {
  std::string line = "USER " + user_;
  Result r = SendSecretLine(line, "USER ********");
  if (r.ok()) r = ReadStatus(rc::kPop3Login);
  if (r.ok()) {
    line = "PASS " + password_;
    r = SendSecretLine(line, "PASS ********");
    if (r.ok()) r = ReadStatus(rc::kPop3Login);
  }
  WipeSecret(&line);
  return r;
}

Result CPop3Client::LoginApop() {
  if (apop_timestamp_.empty()) {
    last_reply_ = "Required APOP timestamp not found in greeting";
    ReportLine(kLineReceived, kLogCommands, last_reply_);
    return rc::kPop3Login;
  }
  std::string input = apop_timestamp_ + password_;
  unsigned char digest[EVP_MAX_MD_SIZE];
  size_t length = 0;
  const bool hashed = EVP_Q_digest(nullptr, "MD5", nullptr, input.data(), input.size(), digest, &length) == 1;
  WipeSecret(&input);
  if (!hashed) return rc::kFail;
  const std::string hex = LowerHex(std::string_view(reinterpret_cast<const char*>(digest), length));
  return Command("APOP " + user_ + " " + hex, rc::kPop3Login);
}

Result CPop3Client::LoginSasl(uint32_t mechanism) {
  if (sasl_.Start(mechanism, user_, password_).failed()) return rc::kPop3Login;
  std::string first;
  if (Result r = sasl_.FirstLine(&first); r.failed()) return r;
  Result r = SendSecretLine("AUTH " + first, MaskedAuthLine(first));
  WipeSecret(&first);
  if (r.failed()) return r;
  while (!sasl_.IsComplete()) {
    if (Result s = ReadLine(&status_line_); s.failed()) return s;
    const Pop3Status status = JudgeStatus(status_line_);
    if (status != Pop3Status::kOk) {
      last_reply_ = status_line_;
      return status == Pop3Status::kErr ? rc::kPop3Login : rc::kPop3Malformed;
    }
    // "+ " and the base64 challenge (RFC 5034 section 4).
    const std::string_view challenge = std::string_view(status_line_).substr(std::min<size_t>(2, status_line_.size()));
    std::string answer;
    if (Result step = sasl_.Step(challenge, &answer); step.failed()) {
      if (Result s = SendLine("*"); s.failed()) return s;
      if (Result s = ReadStatus(rc::kPop3Login); IsSocketError(s) || IsSecureTransportError(s)) return s;
      return step;
    }
    r = SendSecretLine(answer, "********");
    WipeSecret(&answer);
    if (r.failed()) return r;
  }
  return ReadStatus(rc::kPop3Login);
}

Result CPop3Client::Stat(uint32_t* count, uint64_t* size) {
  std::string text;
  if (Result r = Command("STAT", rc::kPop3Stat, &text); r.failed()) return r;
  if (ParseNumberAndSize(text, count, size)) return rc::kOk;
  last_reply_ = status_line_;
  return rc::kPop3Malformed;
}

Result CPop3Client::List(uint32_t number, uint64_t* size) {
  std::string text;
  if (Result r = Command("LIST " + std::to_string(number), rc::kPop3List, &text); r.failed()) return r;
  uint32_t answered = 0;
  const bool parsed = ParseNumberAndSize(text, &answered, size);
  if (parsed && answered == number) return rc::kOk;
  last_reply_ = status_line_;
  return parsed ? rc::kPop3List : rc::kPop3Malformed;
}

Result CPop3Client::ListAll() {
  if (Result r = Command("LIST", rc::kPop3List); r.failed()) return r;
  return ReadListing(kPop3LogList, [this](std::string_view line) {
    uint32_t number = 0;
    uint64_t size = 0;
    if (!ParseNumberAndSize(line, &number, &size)) {
      last_reply_ = line;
      return rc::kPop3Malformed;
    }
    return OnList(number, size);
  });
}

Result CPop3Client::Uidl(uint32_t number, std::string* uid) {
  std::string text;
  if (Result r = Command("UIDL " + std::to_string(number), rc::kPop3Uidl, &text); r.failed()) return r;
  uint32_t answered = 0;
  std::string_view value;
  const bool parsed = ParseNumberAndUid(text, &answered, &value);
  if (parsed && answered == number) {
    uid->assign(value);
    return rc::kOk;
  }
  last_reply_ = status_line_;
  return parsed ? rc::kPop3Uidl : rc::kPop3Malformed;
}

Result CPop3Client::UidlAll() {
  if (Result r = Command("UIDL", rc::kPop3UidlAll); r.failed()) return r;
  return ReadListing(kPop3LogUidl, [this](std::string_view line) {
    uint32_t number = 0;
    std::string_view uid;
    if (!ParseNumberAndUid(line, &number, &uid)) {
      last_reply_ = line;
      return rc::kPop3Malformed;
    }
    return OnUidl(number, uid);
  });
}

Result CPop3Client::Message(std::string_view command) {
  if (Result r = Command(command, rc::kPop3Retrieve); r.failed()) return r;
  // Servers double every leading dot, so every line that begins with two
  // dots loses one ("..x" is ".x"); a line with one leading dot stays.
  return ReadListing(kPop3LogMessage, [this](std::string_view line) {
    return OnMessageLine(line.starts_with("..") ? line.substr(1) : line);
  });
}

Result CPop3Client::Retrieve(uint32_t number) { return Message("RETR " + std::to_string(number)); }

Result CPop3Client::Top(uint32_t number, uint32_t lines) {
  return Message("TOP " + std::to_string(number) + " " + std::to_string(lines));
}

Result CPop3Client::Delete(uint32_t number) { return Command("DELE " + std::to_string(number), rc::kPop3Delete); }
Result CPop3Client::Noop() { return Command("NOOP", rc::kPop3Refused); }
Result CPop3Client::Reset() { return Command("RSET", rc::kPop3Refused); }

Result CPop3Client::Quit() {
  const Result r = Command("QUIT", rc::kPop3Refused);
  Close().Ignore();
  return r;
}

Result CPop3Client::OnUidl(uint32_t number, std::string_view uid) {
  return handler_ ? handler_->OnUidl(number, uid) : rc::kOk;
}
Result CPop3Client::OnMessageLine(std::string_view line) {
  return handler_ ? handler_->OnMessageLine(line) : rc::kOk;
}
Result CPop3Client::OnList(uint32_t number, uint64_t size) {
  return handler_ ? handler_->OnList(number, size) : rc::kOk;
}

}  // namespace trv
