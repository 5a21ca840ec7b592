// Retrieving a whole maildrop from the harness's Dovecot over POP3 through
// CPop3Client (RETR, every line handed to a counting hook), beside a bare
// socket loop that sends the same RETR commands and reads each answer up to
// its "." line with plain recv, in the same run.
//
//   pop3_bench [messages, default 10000] [runs, default 3]
//
// The maildrop is generated and delivered first: 70% short text messages,
// 20% with a base64 attachment of 20 to 100 KB, 10% text and HTML. Runs are
// interleaved; figures are medians.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/mail_generator.h"
#include "net/pop3_client.h"
#include "tests/support/mail_servers.h"

namespace {

using trv::CPop3Client;
using trv::Result;
using trv::test::MailServers;
using Clock = std::chrono::steady_clock;

using trv::bench::Message;
using trv::bench::Random;

struct Counter final : trv::Pop3LineHandler {
  size_t lines = 0, bytes = 0;
  Result OnMessageLine(std::string_view line) override {
    ++lines;
    bytes += line.size() + 2;
    return trv::rc::kOk;
  }
};

[[noreturn]] void Fail(const char* what, Result r, const std::string& detail) {
  std::fprintf(stderr, "pop3_bench: %s: %s %s\n", what, trv::ResultHex(r).c_str(), detail.c_str());
  std::exit(1);
}

// Every message through CPop3Client; returns the bytes handed to the hook.
size_t ClientPass(uint16_t port, uint32_t count) {
  const trv::test::MailUser& alice = MailServers::Alice();
  CPop3Client c;
  Counter counter;
  c.SetLineHandler(&counter);
  c.SetCredentials(alice.name, alice.password);
  if (Result r = c.Connect("127.0.0.1", port); r.failed()) Fail("connect", r, c.last_reply());
  if (Result r = c.LoginUserPass(); r.failed()) Fail("login", r, c.last_reply());
  for (uint32_t i = 1; i <= count; ++i) {
    if (Result r = c.Retrieve(i); r.failed()) Fail("RETR", r, c.last_reply());
  }
  c.Quit().Ignore();
  return counter.bytes;
}

// The bare loop: one RETR at a time, recv until the answer ends with
// CR LF "." CR LF (which cannot occur earlier: a lone dot is doubled).
size_t BarePass(uint16_t port, uint32_t count) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) Fail("bare connect", trv::rc::kFail, "");
  std::vector<char> buf(64 * 1024);
  // Reads until the received bytes end with `end`; returns their count.
  auto read_until = [&](std::string_view end) {
    std::string tail;
    size_t total = 0;
    for (;;) {
      const ssize_t n = ::recv(fd, buf.data(), buf.size(), 0);
      if (n <= 0) Fail("bare recv", trv::rc::kFail, "");
      total += static_cast<size_t>(n);
      tail.append(buf.data() + std::max<ssize_t>(0, n - 8), buf.data() + n);
      if (tail.size() > 8) tail.erase(0, tail.size() - 8);
      if (tail.size() >= end.size() && tail.compare(tail.size() - end.size(), end.size(), end) == 0) return total;
    }
  };
  auto send = [&](const std::string& line) {
    if (::send(fd, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size())) {
      Fail("bare send", trv::rc::kFail, "");
    }
  };
  const trv::test::MailUser& alice = MailServers::Alice();
  read_until("\r\n");
  send("USER " + alice.name + "\r\n");
  read_until("\r\n");
  send("PASS " + alice.password + "\r\n");
  read_until("\r\n");
  size_t bytes = 0;
  for (uint32_t i = 1; i <= count; ++i) {
    send("RETR " + std::to_string(i) + "\r\n");
    bytes += read_until("\r\n.\r\n");
  }
  send("QUIT\r\n");
  read_until("\r\n");
  ::close(fd);
  return bytes;
}

}  // namespace

int main(int argc, char** argv) {
  const int messages = argc > 1 ? std::atoi(argv[1]) : 10000;
  const int runs = argc > 2 ? std::atoi(argv[2]) : 3;
  MailServers& servers = MailServers::Instance();
  if (trv::test::ServerStatus s = servers.Dovecot(); !s.ok) {
    std::fprintf(stderr, "pop3_bench: %s\n", s.message.c_str());
    return 1;
  }
  const uint16_t port = servers.ports().pop3;
  Random rnd;
  for (int i = 0; i < messages; ++i) {
    if (servers.Deliver(MailServers::Alice().name, Message(rnd, i)).empty()) {
      std::fprintf(stderr, "pop3_bench: delivery failed\n");
      return 1;
    }
  }
  // The maildrop as the server sees it (this first session also builds
  // Dovecot's index, outside the measured runs).
  uint32_t count = 0;
  uint64_t size = 0;
  {
    CPop3Client c;
    c.SetCredentials(MailServers::Alice().name, MailServers::Alice().password);
    if (Result r = c.Connect("127.0.0.1", port); r.failed()) Fail("connect", r, c.last_reply());
    if (Result r = c.LoginUserPass(); r.failed()) Fail("login", r, c.last_reply());
    if (Result r = c.Stat(&count, &size); r.failed()) Fail("STAT", r, c.last_reply());
    c.Quit().Ignore();
  }
  std::vector<double> client, bare;
  size_t client_bytes = 0, bare_bytes = 0;
  for (int run = 0; run < runs; ++run) {
    auto start = Clock::now();
    bare_bytes = BarePass(port, count);
    bare.push_back(std::chrono::duration<double>(Clock::now() - start).count());
    start = Clock::now();
    client_bytes = ClientPass(port, count);
    client.push_back(std::chrono::duration<double>(Clock::now() - start).count());
  }
  std::printf("pop3_bench: %u messages, %.1f MB (LIST sizes) from Dovecot on loopback, median of %d runs\n", count,
              size / 1e6, runs);
  const double c = trv::bench::Median(client), b = trv::bench::Median(bare);
  std::printf("  %-40s %7.2f s %8.0f msg/s %7.1f MB/s  (%zu bytes read)\n", "bare recv loop, RETR one at a time", b,
              count / b, size / b / 1e6, bare_bytes);
  std::printf("  %-40s %7.2f s %8.0f msg/s %7.1f MB/s  (%zu bytes of lines)\n", "CPop3Client::Retrieve, counting hook",
              c, count / c, size / c / 1e6, client_bytes);
  std::printf("  CPop3Client takes %.2f x the bare loop's time\n", c / b);
  return 0;
}
