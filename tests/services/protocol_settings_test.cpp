#include "services/protocol_settings.h"

#include <gtest/gtest.h>

#include "services/run_log.h"

namespace trv {
namespace {

TEST(ProtocolSettingsTest, LogLinesName) {
  ProtocolSettings s;
  EXPECT_EQ(SocksLogLine(s), "Socks: No");
  EXPECT_EQ(SslLogLine(s), "SSL: No");
  s.socks_version = 2;
  s.socks_address = "10.0.0.1";
  s.socks_auth = true;
  s.use_ssl = true;
  s.ssl_explicit = false;
  EXPECT_EQ(SocksLogLine(s), "Socks: 4A Address: 10.0.0.1 Port: 1028 Auth: Yes");
  EXPECT_EQ(SslLogLine(s), "SSL: Yes, Implicit");
  EXPECT_EQ(RunErrorLine(Result(0x80C40001), "Work", "mail.example.org", 993, "a1 NO [AUTHENTICATIONFAILED]"),
            "Error: " + ResultText(Result(0x80C40001)) +
                " (0x80C40001) Account: Work Host: mail.example.org Port: 993 Last reply: a1 NO [AUTHENTICATIONFAILED]");
}

}  // namespace
}  // namespace trv
