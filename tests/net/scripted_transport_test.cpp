// The scripted network as the protocol clients' transcript tests use it: the
// STARTTLS mark and the first difference.
#include "net/scripted_transport.h"

#include <gtest/gtest.h>

#include "net/mail_socket.h"
#include "tests/net/net_test_util.h"

namespace trv {
namespace {

using test::Line;

TEST(ScriptedNetworkTest, TranscriptWithStartTlsAndTheFirstDifference) {
  ScriptedNetwork net(Script().ServerLine("220 ready").ClientLine("STARTTLS").StartTls().ClientLine("EHLO c")
                          .ServerLine("250 ok").ClientLine("MAIL FROM:<a>"));
  CMailSocket s;
  s.SetNetwork(&net);
  ASSERT_EQ(s.Connect("smtp.test", 25), rc::kOk);
  EXPECT_EQ(net.ConnectedTo(), "192.0.2.1:25");
  EXPECT_EQ(Line(s), "220 ready");
  ASSERT_EQ(s.SendLine("STARTTLS"), rc::kOk);
  ASSERT_EQ(s.SetPlainMode(false), rc::kOk);
  ASSERT_EQ(s.SendLine("EHLO c"), rc::kOk);
  EXPECT_EQ(Line(s), "250 ok");
  EXPECT_EQ(s.SendLine("MAIL FROM:<b>"), rc::kSockClosed);
  EXPECT_EQ(net.Mismatch(), "step 6: the client sent \"MAIL FROM:<b>\\r\\n\", the script expects \"MAIL FROM:<a>\\r\\n\"");
  EXPECT_FALSE(net.Finished());
  EXPECT_EQ(net.Written(), "STARTTLS\r\n[STARTTLS]EHLO c\r\nMAIL FROM:<b>\r\n");
}

}  // namespace
}  // namespace trv
