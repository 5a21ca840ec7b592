// accept-cert HOST:PORT [--starttls smtp|pop3|imap|none] [--yes]: connects,
// shows the server's certificate and what the check found in it, and on the
// user's yes trusts its public key for HOST:PORT in the data directory's
// certificate trust store (services/certificate_trust.h).
//
// TLS from the first byte, except on the usual upgrade ports: 25 and 587
// upgrade with SMTP STARTTLS (the SMTP client: greeting, EHLO, STARTTLS),
// 110 with POP3 STLS (the POP3 client), 143 with IMAP STARTTLS (a minimal
// exchange on a plain connection: the greeting, "a STARTTLS", its tagged OK).
// --starttls chooses otherwise ("none": TLS from the first byte). Nothing
// is sent after the handshake; no password is involved.
//
// The question "Trust this certificate for HOST:PORT? [y/N]" is read from
// standard input when it is a terminal; --yes answers it. Without either
// the certificate is shown and the run ends with exit 2. A certificate the
// check does not flag, or whose key is already trusted, needs no answer.
#include <unistd.h>

#include <cctype>
#include <charconv>
#include <iostream>

#include "app/cli/commands.h"
#include "net/pop3_client.h"
#include "net/smtp_client.h"
#include "services/certificate_trust.h"

namespace trv::cli {

namespace {

constexpr uint16_t kHandshakeTimeout = 30;  // seconds

enum class Upgrade { kNone, kSmtp, kPop3, kImap };

// "host:port" or "[v6 address]:port".
bool ParseHostPort(const std::string& text, std::string* host, uint16_t* port) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  std::string_view h(text.data(), colon);
  if (h.front() == '[' && h.back() == ']') h = h.substr(1, h.size() - 2);
  const std::string_view p(text.data() + colon + 1, text.size() - colon - 1);
  unsigned value = 0;
  const auto [end, ec] = std::from_chars(p.data(), p.data() + p.size(), value);
  if (h.empty() || p.empty() || ec != std::errc() || end != p.data() + p.size() || value == 0 || value > 65535) {
    return false;
  }
  *host = std::string(h);
  *port = static_cast<uint16_t>(value);
  return true;
}

bool ParseUpgrade(const std::string& name, Upgrade* upgrade) {
  static constexpr std::pair<const char*, Upgrade> kNames[] = {
      {"none", Upgrade::kNone}, {"smtp", Upgrade::kSmtp}, {"pop3", Upgrade::kPop3}, {"imap", Upgrade::kImap}};
  for (const auto& [n, u] : kNames) {
    if (name == n) return *upgrade = u, true;
  }
  return false;
}

Upgrade UpgradeForPort(uint16_t port) {
  switch (port) {
    case 25:
    case 587:
      return Upgrade::kSmtp;
    case 110:
      return Upgrade::kPop3;
    case 143:
      return Upgrade::kImap;
    default:
      return Upgrade::kNone;
  }
}

// Accepts every certificate so that the handshake completes, and keeps the
// flags it was asked about (none asked: the certificate passed the check).
struct RecordingDecider final : CertificateDecider {
  uint32_t flags = 0;
  bool AcceptCertificate(CMailSocket&, uint32_t f, const TlsCertificate&) override {
    flags = f;
    return true;
  }
};

Result ImapStartTls(CMailSocket& s, const std::string& host, uint16_t port) {
  if (Result r = s.Connect(host, port); r.failed()) return r;
  std::string line;
  if (Result r = s.ReadLine(&line); r.failed()) return r;
  if (line.rfind("* OK", 0) != 0) return rc::kFail;
  if (Result r = s.SendLine("a STARTTLS"); r.failed()) return r;
  do {
    if (Result r = s.ReadLine(&line); r.failed()) return r;
  } while (line.rfind("a ", 0) != 0);
  if (line.rfind("a OK", 0) != 0) return rc::kFail;
  return s.SetPlainMode(false);
}

// Connects as `upgrade` says and runs the handshake; the socket that did it.
Result FetchCertificate(const std::string& host, uint16_t port, Upgrade upgrade, RecordingDecider& decider,
                        std::unique_ptr<CMailSocket>* out) {
  Result r;
  switch (upgrade) {
    case Upgrade::kSmtp: {
      auto c = std::make_unique<CSmtpClient>();
      c->SetCertificateDecider(&decider);
      c->SetTimeout(kHandshakeTimeout);
      r = c->Connect(host, port);
      if (r.ok()) r = c->Greet();
      if (r.ok()) r = c->StartTls();
      *out = std::move(c);
      break;
    }
    case Upgrade::kPop3: {
      auto c = std::make_unique<CPop3Client>();
      c->SetCertificateDecider(&decider);
      c->SetTimeout(kHandshakeTimeout);
      r = c->Connect(host, port);
      if (r.ok()) r = c->StartTls();
      *out = std::move(c);
      break;
    }
    case Upgrade::kImap:
    case Upgrade::kNone: {
      auto s = std::make_unique<CMailSocket>();
      s->SetCertificateDecider(&decider);
      s->SetTimeout(kHandshakeTimeout);
      if (upgrade == Upgrade::kImap) {
        r = s->SetPlainMode(true);
        if (r.ok()) r = ImapStartTls(*s, host, port);
      } else {
        r = s->SetPlainMode(false);
        if (r.ok()) r = s->Connect(host, port);
      }
      *out = std::move(s);
      break;
    }
  }
  return r;
}

void Show(CliContext& ctx, const std::string& where, uint32_t flags, const CertificateFacts& c) {
  std::fprintf(ctx.out,
               "Certificate of %s\n"
               "  subject:            %s\n"
               "  issuer:             %s\n"
               "  valid from:         %s\n"
               "  valid until:        %s\n"
               "  SHA-256:            %s\n"
               "  SHA-1:              %s\n"
               "  public key SHA-256: %s\n"
               "  check:              %s\n",
               where.c_str(), c.subject.c_str(), c.issuer.c_str(), c.not_before.c_str(), c.not_after.c_str(),
               c.sha256.c_str(), c.sha1.c_str(), c.key_sha256.c_str(),
               flags == 0 ? "passed" : CertificateFlagsText(flags).c_str());
}

// The user's answer: true for "y" or "yes" in either case.
bool AskYes(CliContext& ctx, const std::string& where) {
  std::fprintf(ctx.out, "Trust this certificate for %s? [y/N] ", where.c_str());
  std::fflush(ctx.out);
  std::string answer;
  if (!std::getline(std::cin, answer)) return false;
  for (char& ch : answer) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  return answer == "y" || answer == "yes";
}

}  // namespace

bool ValidateAcceptCert(const ParsedArgs& args, std::string* error) {
  std::string host;
  uint16_t port = 0;
  Upgrade upgrade = Upgrade::kNone;
  if (!ParseHostPort(args.positional[0], &host, &port)) {
    *error = "\"" + args.positional[0] + "\" is not HOST:PORT";
    return false;
  }
  if (args.has("--starttls") && !ParseUpgrade(args.value("--starttls"), &upgrade)) {
    *error = "--starttls takes smtp, pop3, imap or none";
    return false;
  }
  return true;
}

int RunAcceptCert(CliContext& ctx, const ParsedArgs& args) {
  std::string host;
  uint16_t port = 0;
  ParseHostPort(args.positional[0], &host, &port);
  Upgrade upgrade = UpgradeForPort(port);
  if (args.has("--starttls")) ParseUpgrade(args.value("--starttls"), &upgrade);
  const std::string& where = args.positional[0];

  RecordingDecider decider;
  std::unique_ptr<CMailSocket> socket;
  const Result r = FetchCertificate(host, port, upgrade, decider, &socket);
  std::unique_ptr<TlsCertificate> cert = socket->TlsPeerCertificate();
  const std::string detail = socket->tls_error_detail();
  socket->Close().Ignore();  // nothing more to say to the server
  if (r.failed() || !cert) {
    return Fail(ctx, "cannot get the certificate of " + where + (detail.empty() ? "" : " (" + detail + ")"),
                r.failed() ? r : rc::kFail);
  }
  const CertificateFacts facts = CertificateFacts::Of(*cert);
  Show(ctx, where, decider.flags, facts);

  MailEngine& engine = *ctx.engine;
  CertificateTrust trust(engine.FileOps(), engine.data_directory() / CertificateTrust::kFileName,
                         engine.activity_log());
  std::vector<std::string> problems;
  if (Result lr = trust.Load(&problems); lr.failed()) {
    return Fail(ctx, "cannot read " + (engine.data_directory() / CertificateTrust::kFileName).string(), lr);
  }
  for (const std::string& p : problems) Warn(ctx, std::string(CertificateTrust::kFileName) + " " + p + "; skipped");

  if (decider.flags == 0) {
    std::fprintf(ctx.out, "The certificate passes every check; it needs no trust.\n");
    return kExitOk;
  }
  const std::optional<TrustedCertificate> old = trust.Find(host, port);
  if (old && old->key_sha256 == facts.key_sha256) {
    std::fprintf(ctx.out, "Its public key is already trusted for %s.\n", where.c_str());
    return kExitOk;
  }
  if (old) {
    std::fprintf(ctx.out, "WARNING: this REPLACES the trusted public key %s of %s.\n", old->key_sha256.c_str(),
                 where.c_str());
  }
  if (!args.has("--yes")) {
    if (::isatty(STDIN_FILENO) != 1) {
      std::fprintf(ctx.err, "%s: no terminal to ask whether to trust it; run again with --yes to trust it\n",
                   kProgramName);
      return kExitUsage;
    }
    if (!AskYes(ctx, where)) {
      std::fprintf(ctx.out, "Not trusted.\n");
      return kExitFailed;
    }
  }
  if (Result tr = trust.Trust(host, port, facts); tr.failed()) {
    return Fail(ctx, "cannot save the trust for " + where, tr);
  }
  std::fprintf(ctx.out, "Trusted for %s: public key SHA-256 %s\n", where.c_str(), facts.key_sha256.c_str());
  return kExitOk;
}

}  // namespace trv::cli
