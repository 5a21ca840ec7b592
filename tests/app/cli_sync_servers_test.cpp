// The command line end to end against the harness's servers: an account made
// by `account add`, a message composed to the harness user, `sync` sending it
// through Postfix and, once delivered, downloading it by POP3 into the inbox;
// the log shows the logins masked.
#include <gtest/gtest.h>

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
