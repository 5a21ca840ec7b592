// The scripted network as the protocol clients' transcript tests use it.
#include "net/scripted_transport.h"

#include <gtest/gtest.h>

#include "net/mail_socket.h"
#include "tests/net/net_test_util.h"

namespace trv {
namespace {

TEST(ScriptedNetworkTest, TranscriptWithStartTls) {
  ScriptedNetwork net(
      Script().ServerLine("220 ready").ClientLine("STARTTLS").ServerLine("220 go").StartTls().ClientLine("EHLO c")
          .ServerLine("250 ok"));
  CMailSocket s;
  s.SetNetwork(&net);
  ASSERT_EQ(s.Connect("smtp.test", 25), rc::kOk);
  EXPECT_EQ(net.ConnectedTo(), "192.0.2.1:25");
  EXPECT_EQ(test::Line(s), "220 ready");
  ASSERT_EQ(s.SendLine("STARTTLS"), rc::kOk);
  EXPECT_EQ(test::Line(s), "220 go");
  ASSERT_EQ(s.SetPlainMode(false), rc::kOk);
  ASSERT_EQ(s.SendLine("EHLO c"), rc::kOk);
  EXPECT_EQ(test::Line(s), "250 ok");
  EXPECT_TRUE(net.Finished());
  EXPECT_EQ(net.Mismatch(), "");
  EXPECT_EQ(net.Written(), "STARTTLS\r\n[STARTTLS]EHLO c\r\n");
}

TEST(ScriptedNetworkTest, DifferencesEndTheConnection) {
  ScriptedNetwork net(Script().ServerLine("+OK").ClientLine("USER alice").ServerLine("+OK"));
  CMailSocket s;
  s.SetNetwork(&net);
  ASSERT_EQ(s.Connect("pop.test", 110), rc::kOk);
  EXPECT_EQ(test::Line(s), "+OK");
  EXPECT_EQ(s.SendLine("USER bob"), rc::kSockClosed);
  EXPECT_EQ(net.Mismatch(), "step 2: the client sent \"USER bob\\r\\n\", the script expects \"USER alice\\r\\n\"");
  EXPECT_FALSE(net.Finished());

  ScriptedNetwork waits(Script().ClientLine("NOOP"));
  CMailSocket t;
  t.SetNetwork(&waits);
  ASSERT_EQ(t.Connect("pop.test", 110), rc::kOk);
  EXPECT_EQ(test::Line(t), test::Error(rc::kSockTimedOut));
  EXPECT_NE(waits.Mismatch().find("the client waits for data"), std::string::npos);
}

TEST(ScriptedNetworkTest, ScriptedFailures) {
  ScriptedNetwork refused(Script{});
  refused.FailConnect(rc::kSockRefused);
  ScriptedNetwork unknown(Script{});
  unknown.SetUnresolvable("pop.test");
  for (auto [net, want] : {std::pair{&refused, rc::kSockRefused}, std::pair{&unknown, rc::kSockHostNotFound}}) {
    CMailSocket s;
    s.SetNetwork(net);
    EXPECT_EQ(s.Connect("pop.test", 110), want);
  }
  ScriptedNetwork failing(Script().Server("+O").Fail(rc::kSockNetworkDown));
  CMailSocket s;
  s.SetNetwork(&failing);
  ASSERT_EQ(s.Connect("pop.test", 110), rc::kOk);
  EXPECT_EQ(test::Line(s), test::Error(rc::kSockNetworkDown));
}

}  // namespace
}  // namespace trv
