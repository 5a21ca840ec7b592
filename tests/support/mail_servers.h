// The test harness for real servers on 127.0.0.1, used by every network test and benchmark. One
// MailServers per test process starts each server the first time a test asks for it, inside a temporary
// directory (mode 711), on free high ports, and stops them all by process id when the process ends
// (SIGTERM, then SIGKILL). Servers are children of the test process and die with it.
//
//   Dovecot     IMAP with STARTTLS, IMAPS, POP3 with STLS, POP3S; passwd-file users with {PLAIN}
//               passwords (PLAIN, LOGIN, CRAM-MD5, APOP); maildirs owned by the mail user. A client
//               bound to 127.0.0.2 is not secure to it: it offers such a client only CRAM-MD5 (the
//               way to test that no password goes out in the clear). Its IMAPS and POP3S ports
//               serve the negative certificates by local address: 127.0.0.2 expired, 127.0.0.3
//               self-signed, 127.0.0.4 another name.
//   Postfix     SMTP with STARTTLS and AUTH (checked by Dovecot), SMTPS; delivers to local users
//               through Dovecot's LMTP into the same maildirs; never relays.
//   Dante       SOCKS 4 and SOCKS 5, without authentication or with user name and password of a
//               system user (created with useradd).
//   microsocks  SOCKS 5 without, and on a second port with, user/password.
//   ssh -D      SOCKS 4 and 4A through an sshd on loopback.
//
// Certificates come from tests/support/certificates.h; trust the test CA (TlsEngine::AddTrustedCertificates)
// to see the valid one without flags. The harness needs root (Dovecot's mail user, Dante's system user,
// sshd): CI runs as root. A server whose program is not installed, or a run without root, makes the test
// skip with the reason, unless the environment variable CI is "true": then it fails. A server that is
// installed but does not start always fails the test, with the end of its log.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/certificates.h"
#include "tests/support/temp_dir.h"

namespace trv::test {

struct ServerStatus {
  bool ok = true;
  bool missing = false;  // not installed, or no root: a reason to skip outside CI
  std::string message;
};

struct MailUser {
  std::string name, password;
};

struct ServerPorts {
  uint16_t imap = 0, imaps = 0, pop3 = 0, pop3s = 0;
  uint16_t smtp = 0, smtps = 0;
  uint16_t dante = 0;
  uint16_t microsocks = 0, microsocks_auth = 0;
  uint16_t ssh_socks = 0, sshd = 0;
};

// Whether this run is CI's (CI=true), where nothing may be skipped.
bool InCi();

class MailServers {
 public:
  static MailServers& Instance();
  ~MailServers();

  ServerStatus Dovecot() { return Started(dovecot_, &MailServers::StartDovecot); }
  ServerStatus Postfix() { return Started(postfix_, &MailServers::StartPostfix); }  // starts Dovecot too
  ServerStatus Dante() { return Started(dante_, &MailServers::StartDante); }
  ServerStatus Microsocks() { return Started(microsocks_, &MailServers::StartMicrosocks); }
  ServerStatus SshSocks() { return Started(ssh_, &MailServers::StartSsh); }

  const ServerPorts& ports() const { return ports_; }

  // Mail users of Dovecot and Postfix (Bob's password has a blank); the
  // system user for Dante's user/password method; the microsocks user.
  static const MailUser& Alice() { return kAlice; }
  static const MailUser& Bob() { return kBob; }
  static const MailUser& DanteUser() { return kDanteUser; }
  static const MailUser& MicrosocksUser() { return kMicrosocksUser; }

  // Drops a message file straight into the user's Maildir/new, where
  // Dovecot finds it on the next IMAP or POP3 session. Fast mailbox filling
  // for tests and benchmarks. Returns the file's path, "" on failure.
  std::filesystem::path Deliver(const std::string& user, const std::string& message);
  // The user's Maildir (cur, new, tmp), made on first use; Dovecot keeps a
  // folder "A/B" in it as ".A.B", its name in modified UTF-7.
  std::filesystem::path Maildir(const std::string& user);
  // The message files in Maildir/new and cur.
  std::vector<std::filesystem::path> Messages(const std::string& user);
  // The text of a message of the user's that holds `part`, waiting for its
  // delivery; "" after 30 s.
  std::string WaitForMessage(const std::string& user, const std::string& part);

 private:
  static inline const MailUser kAlice{"alice", "alice-secret"};
  static inline const MailUser kBob{"bob", "bob pass"};
  static inline const MailUser kDanteUser{"trvsocks", "trv-Socks-9"};
  static inline const MailUser kMicrosocksUser{"msuser", "ms-pass"};

  MailServers();
  // Root and the certificates once; then whether every program is there.
  ServerStatus Ready(const std::vector<const char*>& programs);
  // The status of the first start, which runs on the first call only.
  ServerStatus Started(std::unique_ptr<ServerStatus>& status, ServerStatus (MailServers::*start)());
  ServerStatus StartDovecot(), StartPostfix(), StartDante(), StartMicrosocks(), StartSsh();
  // Starts argv, logging to <name>.log, and waits until it accepts connections on every port of
  // 127.0.0.1; stops it when it does not.
  ServerStatus Launch(const std::string& name, const std::vector<std::string>& argv, const std::vector<uint16_t>& ports);
  std::string LogTail(const std::string& name) const;

  TempDir dir_;
  const TestCertificates* certs_ = nullptr;
  ServerPorts ports_;
  std::vector<pid_t> pids_;
  std::unique_ptr<ServerStatus> prepared_, dovecot_, postfix_, dante_, microsocks_, ssh_;
};

}  // namespace trv::test

// Ends the test with a skip or a failure when the server is not there:
//   TRV_REQUIRE_SERVER(MailServers::Instance().Dovecot());
#define TRV_REQUIRE_SERVER(status_expr)                                                  \
  do {                                                                                   \
    const ::trv::test::ServerStatus trv_status_ = (status_expr);                         \
    if (!trv_status_.ok) {                                                               \
      if (trv_status_.missing && !::trv::test::InCi()) GTEST_SKIP() << trv_status_.message; \
      FAIL() << trv_status_.message;                                                     \
    }                                                                                    \
  } while (0)
