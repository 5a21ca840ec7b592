// The command line end to end against the harness's servers: an account made
// by `account add`, a message composed to the harness user, `sync` sending it
// through Postfix and, once delivered, downloading it by POP3 into the inbox;
// the log shows the logins masked.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "tests/app/cli_runner.h"
#include "tests/support/mail_servers.h"

namespace trv::test {
namespace {

class CliSyncServersTest : public CliTestBase {};

TEST_F(CliSyncServersTest, ComposeSyncDeliversAndDownloads) {
  TRV_REQUIRE_SERVER(MailServers::Instance().Postfix());
  const ServerPorts& p = MailServers::Instance().ports();
  const MailUser& alice = MailServers::Alice();
  Ok({"account", "add", "--class", "POP3", "--name", "Alice", "--email", "alice@localhost", "--host", "127.0.0.1",
      "--port", std::to_string(p.pop3), "--user", alice.name, "--password-stdin", "--smtp-port",
      std::to_string(p.smtp), "--smtp-auth", "same"},
     alice.password + "\n");
  Ok({"compose", "--account", "Alice", "--to", "alice@localhost", "--bcc", "bob@localhost", "--subject",
      "Round trip"},
     "Line one.\n.leading dot\n");

  const CliRun sent = Ok({"sync", "--send-only"});
  EXPECT_EQ(sent.out, "Alice: sent 1, downloaded 0\n");
  const std::string delivered = MailServers::Instance().WaitForMessage(alice.name, "Subject: Round trip");
  EXPECT_TRUE(Has(delivered, "\n.leading dot\n") && !Has(delivered, "BCC:")) << delivered;
  EXPECT_NE(MailServers::Instance().WaitForMessage(MailServers::Bob().name, "Subject: Round trip"), "") << "Bcc";

  const CliRun received = Ok({"sync", "Alice"});
  EXPECT_TRUE(Has(received.out, "downloaded 1")) << received.out;
  const JsonList inbox = List("Alice/Inbox");
  ASSERT_EQ(inbox.size(), 1u);
  EXPECT_EQ(inbox[0]["subject"].text, "Round trip");
  EXPECT_EQ(List("Alice/Outbox").size(), 0u);
  EXPECT_EQ(List("Alice/Sent").size(), 1u);

  const std::string log = Ok({"log"}).out;
  EXPECT_FALSE(Has(log, alice.password)) << log;
  EXPECT_TRUE(Has(log, "S AUTH LOGIN") && Has(log, "S ********")) << log;

  // A refused login without a terminal to ask on: exit 1 naming the account.
  Ok({"account", "set", "Alice", "--password-stdin"}, "wrong-password\n");
  const CliRun refused = Run({"sync", "--receive-only"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_TRUE(Has(refused.err, "\"Alice\"") && Has(refused.err, "trvmail-cli log")) << refused.err;
  EXPECT_FALSE(Has(Ok({"log"}).out, "wrong-password"));

  // On a terminal the run asks instead: the password is not echoed, and is
  // kept (enciphered) when the answer says so, so the next run needs no one.
  int tty = -1;
  const pid_t asked = Start({"sync", "--receive-only"}, &tty, true);
  ASSERT_GT(asked, 0);
  std::string screen;
  const auto answer = [&](const std::string& prompt, const std::string& reply) {
    for (int waited = 0; !Has(screen, prompt) && waited < 300; ++waited) {
      pollfd fd{tty, POLLIN, 0};
      char buffer[512];
      const ssize_t n = ::poll(&fd, 1, 100) == 1 ? ::read(tty, buffer, sizeof buffer) : 0;
      if (n < 0) break;
      screen.append(buffer, static_cast<size_t>(n));
    }
    EXPECT_TRUE(Has(screen, prompt)) << screen;
    EXPECT_EQ(::write(tty, reply.data(), reply.size()), static_cast<ssize_t>(reply.size()));
  };
  answer("user name [alice]: ", "\n");
  answer("password: ", alice.password + "\n");
  answer("[y/N]: ", "y\n");
  char rest[512];
  for (ssize_t n = 0; (n = ::read(tty, rest, sizeof rest)) > 0;) screen.append(rest, static_cast<size_t>(n));
  ::close(tty);
  EXPECT_EQ(Wait(asked).status, 0) << screen;
  EXPECT_TRUE(Has(screen, "\"Alice\" (POP3 127.0.0.1:" + std::to_string(p.pop3) + ") needs")) << screen;
  EXPECT_FALSE(Has(screen, alice.password)) << screen;
  Ok({"sync", "--receive-only"});
}

// A self-signed POP3S server: refused with the accept-cert hint until trusted.
TEST_F(CliSyncServersTest, RefusedCertificateUntilAccepted) {
  TRV_REQUIRE_SERVER(MailServers::Instance().Dovecot());
  const std::string where = "127.0.0.3:" + std::to_string(MailServers::Instance().ports().pop3s);
  const MailUser& alice = MailServers::Alice();
  Ok({"account", "add", "--class", "POP3", "--name", "Alice", "--email", "alice@localhost", "--host", "127.0.0.3",
      "--port", std::to_string(MailServers::Instance().ports().pop3s), "--ssl", "implicit", "--user", alice.name,
      "--password-stdin"},
     alice.password + "\n");
  const CliRun refused = Run({"sync", "--receive-only"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_TRUE(Has(refused.err, "self-signed") && Has(refused.err, "trvmail-cli accept-cert " + where)) << refused.err;
  EXPECT_TRUE(Has(Ok({"log"}).out, "Certificate: The certificate of " + where));
  Ok({"accept-cert", where, "--yes"});
  Ok({"sync", "--receive-only"});
}

}  // namespace
}  // namespace trv::test
