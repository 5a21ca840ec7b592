#include "net/smtp_client.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include "base/wide_string.h"
#include "net/secret.h"

namespace trv {

CSmtpClient::CSmtpClient() : sasl_(std::make_unique<SaslClient>()) {
  (void)kSmtpTextsRegistered;
  SetMaxLineLength(kMaxReplyLine);
}

CSmtpClient::~CSmtpClient() { WipeSecret(&password_); }

std::string CSmtpClient::Bracketed(std::string_view address) {
  if (!address.empty() && address.front() == '<') return std::string(address);
  return "<" + std::string(address) + ">";
}

Result CSmtpClient::ReadReply() {
  reply_.Clear();
  std::string line;
  for (;;) {
    if (Result r = ReadLine(&line); r.failed()) return r;
    if (reply_.Add(line)) break;
  }
  // A reply that never ends: the connection is no longer in step.
  if (reply_.overlong()) return rc::kSockTooLong;
  return rc::kOk;
}

Result CSmtpClient::Check(std::initializer_list<std::string_view> codes) {
  const Result r = reply_.Expect(codes);
  if (r.ok()) {
    last_reply_.clear();
  } else {
    last_reply_ = reply_.first();
  }
  return r;
}

Result CSmtpClient::Command(std::string_view line, std::initializer_list<std::string_view> codes,
                            std::string_view shown) {
  if (Result r = shown.empty() ? SendLine(line) : SendSecretLine(line, shown); r.failed()) return r;
  if (Result r = ReadReply(); r.failed()) return r;
  return Check(codes);
}

Result CSmtpClient::Connect(std::string_view host, uint16_t port) {
  if (connected()) return rc::kOk;
  if (Result r = CMailSocket::Connect(host, port); r.failed()) return r;
  Result r = ReadReply();
  if (r.ok()) r = Check({"220"});
  if (r.failed()) Close().Ignore();  // always 0
  return r;
}

void CSmtpClient::SetHeloDomain(std::string_view local_name) {
  helo_domain_.clear();
  for (char c : local_name) {
    if (std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.') helo_domain_ += c;
  }
  if (helo_domain_.find('.') == std::string::npos) {
    std::string address;
    GetLocalAddress(&address).Ignore();  // "(unknown)" when there is none
    helo_domain_ = "[" + address + "]";
  }
}

Result CSmtpClient::Greet() {
  if (helo_domain_.empty()) {
    std::string name;
    GetLocalHostName(&name).Ignore();  // an empty name gives the bracketed address
    SetHeloDomain(name);
  }
  const Result r = Ehlo();
  if (!IsSmtpReplyError(r) && r != rc::kSmtpBadReply) return r;
  return Helo();
}

Result CSmtpClient::Ehlo() {
  if (Result r = Command("EHLO " + helo_domain_, {"250"}); r.failed()) return r;
  extensions_ = 0;
  sasl_mechanisms_ = 0;
  max_size_ = 0;
  for (const std::string& line : reply_.lines()) ParseEhloLine(line, &extensions_, &sasl_mechanisms_, &max_size_);
  return rc::kOk;
}

Result CSmtpClient::Helo() { return Command("HELO " + helo_domain_, {"250"}); }
Result CSmtpClient::Noop() { return Command("NOOP", {"250"}); }
Result CSmtpClient::Reset() { return Command("RSET", {"250"}); }

Result CSmtpClient::StartTls() {
  if (Result r = Command("STARTTLS", {"220"}); r.failed()) return r;
  return SetPlainMode(false);
}

Result CSmtpClient::Quit() {
  const Result r = Command("QUIT", {"221"});
  Close().Ignore();  // always 0
  return r;
}

Result CSmtpClient::Verify(std::string_view name, std::string* result) {
  result->clear();
  if (Result r = Command("VRFY " + std::string(name), {"250", "251", "252"}); r.failed()) return r;
  const std::string_view line = reply_.first();
  if (reply_.Is("251")) {
    const size_t open = line.find('<');
    const size_t close = line.rfind('>');
    if (open != std::string_view::npos && close != std::string_view::npos && close > open) {
      *result = TrimView(line.substr(open + 1, close - open - 1));
    }
  } else if (reply_.Is("250")) {
    *result = line.substr(std::min<size_t>(4, line.size()), 1000);
  }
  return rc::kOk;
}

Result CSmtpClient::MailFrom(std::string_view address, uint64_t size) {
  std::string line = "MAIL FROM:" + Bracketed(address);
  if (size != 0 && (extensions_ & kSmtpSize)) line += " SIZE=" + std::to_string(size);
  return Command(line, {"250"});
}

Result CSmtpClient::MailFromDsn(std::string_view address, std::string_view envelope_id,
                                bool return_headers_only, uint64_t size) {
  std::string line = "MAIL FROM:" + Bracketed(address);
  if (size != 0 && (extensions_ & kSmtpSize)) line += " SIZE=" + std::to_string(size);
  if (extensions_ & kSmtpDsn) {
    line += return_headers_only ? " RET=HDRS" : " RET=FULL";
    if (!envelope_id.empty()) line += " ENVID=" + std::string(envelope_id);
  }
  return Command(line, {"250"});
}

Result CSmtpClient::RcptTo(std::string_view address) {
  return Command("RCPT TO:" + Bracketed(address), {"250", "251", "252"});
}

Result CSmtpClient::RcptToDsn(std::string_view address, std::string_view original_recipient,
                              std::string_view address_type, bool notify, uint32_t notify_flags) {
  std::string line = "RCPT TO:" + Bracketed(address);
  if (extensions_ & kSmtpDsn) {
    std::string words;
    if (notify && notify_flags != 0) {
      const std::pair<uint32_t, const char*> names[] = {
          {kNotifySuccess, "SUCCESS"}, {kNotifyFailure, "FAILURE"}, {kNotifyDelay, "DELAY"}};
      for (const auto& [flag, word] : names) {
        if (!(notify_flags & flag)) continue;
        if (!words.empty()) words += ',';
        words += word;
      }
    }
    line += " NOTIFY=" + (words.empty() ? std::string("NEVER") : words);
    if (!original_recipient.empty()) {
      line += " ORCPT=" + std::string(address_type.empty() ? "rfc822" : address_type) + ";" +
              std::string(original_recipient);
    }
  }
  return Command(line, {"250"});  // 251 and 252 refused on purpose, see above
}

// ---------------------------------------------------------------------------
// DATA

Result CSmtpClient::Data(CXmStream& message, uint64_t length) {
  if (length == 0) {
    if (Result r = message.Rewind(); r.failed()) return r;
  }
  const uint64_t held = message.Size() > message.Position() ? message.Size() - message.Position() : 0;
  const uint64_t to_send = std::max(held, length);
  if (max_size_ != 0 && to_send >= 1 && to_send > max_size_ && confirmer_ != nullptr &&
      !confirmer_->SendOversized(*this, to_send, max_size_)) {
    return rc::kSmtpTooLarge;
  }
  if (Result r = Command("DATA", {"354"}); r.failed()) return r;
  if (Result r = SendData(message); r.failed()) return r;
  if (Result r = ReadReply(); r.failed()) return r;
  return Check({"250"});
}

Result CSmtpClient::SendData(CXmStream& message) {
  SmtpDotStuffer stuffer;
  std::string piece(kDataPiece, '\0');
  std::string out;
  uint64_t reported = 0;
  auto tell = [&](uint64_t sent) {
    reported = sent;
    progress_listeners_.ForEach([&](SmtpProgressListener& l) { l.OnDataProgress(*this, sent); });
  };
  for (;;) {
    size_t got = 0;
    if (Result r = message.Read(piece.data(), piece.size(), &got); r.failed()) return r;
    if (got == 0) break;
    out.clear();
    stuffer.Add(std::string_view(piece.data(), got), &out);
    if (!out.empty()) {
      if (Result r = SendAll(out.data(), out.size()); r.failed()) return r;
    }
    tell(stuffer.consumed());
  }
  const uint64_t source = stuffer.consumed() + stuffer.held();
  // The terminator's CR LF goes through the transformation too, so a message
  // whose last line is a lone "." without CR LF does not end the data early.
  out.clear();
  stuffer.Add("\r\n", &out);
  stuffer.Flush(&out);
  out += ".\r\n";
  if (Result r = SendAll(out.data(), out.size()); r.failed()) return r;
  if (reported != source) tell(source);  // the bytes held back for the terminator
  ReportLine(kLineSent, kLogCommands, ".");
  return rc::kOk;
}

// ---------------------------------------------------------------------------
// AUTH

Result CSmtpClient::Authenticate(std::string_view user, std::string_view password) {
  user_ = user;
  WipeSecret(&password_);
  password_ = password;
  static constexpr uint32_t kPlainOrder[] = {kSaslLogin, kSaslPlain};
  static constexpr uint32_t kSecureOrder[] = {kSaslCramMd5, kSaslDigestMd5, kSaslNtlm, kSaslMsn};
  Result last = rc::kSmtpNoMechanism;
  auto try_each = [&](const auto& order) {
    for (uint32_t mechanism : order) {
      if (!(sasl_mechanisms_ & mechanism)) continue;
      last = AuthenticateWith(mechanism);
      if (last.ok()) return;
    }
  };
  if (use_sasl_) {
    try_each(kSecureOrder);
  } else {
    try_each(kPlainOrder);
  }
  return last;
}

Result CSmtpClient::AuthenticateWith(uint32_t mechanism) {
  if (sasl_->Start(mechanism, user_, password_).failed()) return rc::kSmtpNoMechanism;
  std::string first;
  if (sasl_->FirstLine(&first).failed()) return rc::kSmtpNoMechanism;
  const Result sent = SendSecretLine("AUTH " + first, MaskedAuthLine(first));
  WipeSecret(&first);
  if (sent.failed()) return sent;
  while (!sasl_->IsComplete()) {
    if (Result r = ReadReply(); r.failed()) return r;
    if (Result r = Check({"334", "235"}); r.failed()) return r;
    const std::string_view challenge = reply_.first().substr(std::min<size_t>(4, reply_.first().size()));
    std::string answer;
    if (Result step = sasl_->Step(challenge, &answer); step.failed()) {
      if (Result r = SendLine("*"); r.failed()) return r;
      std::string ignored;
      ReadLine(&ignored).Ignore();  // the refusal of the cancel; the mechanism's error says more
      return step;
    }
    if (Result r = SendSecretLine(answer, "********"); r.failed()) return r;
  }
  if (Result r = ReadReply(); r.failed()) return r;
  return Check({"235"});
}

}  // namespace trv
