// Fetching every body of an INBOX from the harness's Dovecot over IMAP4, one
// "FETCH n BODY.PEEK[]" per message, in four ways in the same run (and, as a
// reference, one "FETCH 1:* BODY.PEEK[]" by each of the two):
//   - a bare socket loop, one command at a time: plain recv, just enough
//     parsing to find each literal and skip its bytes;
//   - the same bare loop with many commands outstanding;
//   - CImap4Client one command at a time (Fetch), every body streamed by the
//     literal hook into a counting sink;
//   - CImap4Client pipelined (BeginFetch/Finish, a window of commands
//     outstanding), the same sink.
// Each pass must count exactly the bytes of the RFC822.SIZE sum, or the
// benchmark fails.
//
//   imap4_bench [messages, default 10000] [runs, default 3] [window, default 64]
//
// The mailbox is generated and delivered first: 70% short text messages,
// 20% with a base64 attachment of 20 to 100 KB, 10% text and HTML, lines
// ending in CR LF. Runs are interleaved; figures are medians.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "bench/mail_generator.h"
#include "net/imap4_client.h"
#include "tests/support/mail_servers.h"

namespace {

using trv::CImap4Client;
using trv::Result;
using trv::test::MailServers;
using Clock = std::chrono::steady_clock;
using trv::bench::Median;
using trv::bench::Random;

[[noreturn]] void Fail(const char* what, Result r, const std::string& detail) {
  std::fprintf(stderr, "imap4_bench: %s: %s %s\n", what, trv::ResultHex(r).c_str(), detail.c_str());
  std::exit(1);
}

// The counting sink: takes every literal, counts its bytes, keeps none.
struct CountingSink final : trv::Imap4LiteralHook, trv::Imap4FetchListener {
  uint64_t bytes = 0, literals = 0, fetches = 0, size_sum = 0;
  bool TakeLiteral(const trv::Imap4LiteralContext&) override { return ++literals, true; }
  Result OnLiteralBytes(std::string_view piece) override { return bytes += piece.size(), trv::rc::kOk; }
  void OnFetch(std::string_view, const trv::Imap4FetchData& data) override {
    ++fetches;
    size_sum += data.size.value_or(0);
  }
};

void Open(CImap4Client& c, uint16_t port) {
  const trv::test::MailUser& alice = MailServers::Alice();
  if (Result r = c.Connect("127.0.0.1", port); r.failed()) Fail("connect", r, c.lastReply());
  if (Result r = c.Login(alice.name, alice.password); r.failed()) Fail("login", r, c.lastReply());
  if (Result r = c.Examine(u"INBOX"); r.failed()) Fail("EXAMINE", r, c.lastReply());
}

// Every body through CImap4Client, `window` commands outstanding (1: Fetch,
// one command at a time; 0: one Fetch of 1:*). Returns the bytes the sink
// counted.
uint64_t ClientPass(uint16_t port, uint32_t count, size_t window) {
  CImap4Client c;
  CountingSink sink;
  c.SetLiteralHook(&sink);
  c.SetFetchListener(&sink);
  Open(c, port);
  if (window == 0) {
    if (Result r = c.Fetch(1, CImap4Client::kAll, "BODY.PEEK[]", false); r.failed()) Fail("FETCH", r, c.lastReply());
  } else if (window == 1) {
    for (uint32_t i = 1; i <= count; ++i) {
      if (Result r = c.Fetch(i, i, "BODY.PEEK[]", false); r.failed()) Fail("FETCH", r, c.lastReply());
    }
  } else {
    std::deque<std::string> tags;
    uint32_t next = 1;
    while (next <= count || !tags.empty()) {
      while (next <= count && tags.size() < window) {
        std::string tag;
        if (Result r = c.BeginFetch(next, next, "BODY.PEEK[]", false, &tag); r.failed()) Fail("send", r, "");
        tags.push_back(tag);
        ++next;
      }
      if (Result r = c.Finish(tags.front()); r.failed()) Fail("FETCH (pipelined)", r, c.lastReply());
      tags.pop_front();
    }
  }
  if (sink.literals != count) Fail("literal count", trv::rc::kFail, std::to_string(sink.literals));
  c.Logout().Ignore();
  return sink.bytes;
}

// The bare loop's connection: a receive buffer and just enough parsing.
struct Bare {
  int fd = -1;
  std::vector<char> buf = std::vector<char>(64 * 1024);
  size_t begin = 0, end = 0;

  void Fill() {
    if (begin == end) begin = end = 0;
    if (end == buf.size()) {
      std::memmove(buf.data(), buf.data() + begin, end - begin);
      end -= begin;
      begin = 0;
      if (end == buf.size()) buf.resize(buf.size() * 2);
    }
    const ssize_t n = ::recv(fd, buf.data() + end, buf.size() - end, 0);
    if (n <= 0) Fail("bare recv", trv::rc::kFail, "");
    end += static_cast<size_t>(n);
  }
  // The next line without CR LF (valid until the next call).
  std::string_view Line() {
    for (size_t scanned = 0;;) {  // bytes after `begin` known to hold no LF
      const void* lf = std::memchr(buf.data() + begin + scanned, '\n', end - begin - scanned);
      if (lf) {
        const size_t at = static_cast<size_t>(static_cast<const char*>(lf) - buf.data());
        std::string_view line(buf.data() + begin, at - begin);
        begin = at + 1;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        return line;
      }
      scanned = end - begin;
      Fill();
    }
  }
  void Skip(uint64_t n) {
    while (n > 0) {
      if (begin == end) Fill();
      const size_t take = static_cast<size_t>(std::min<uint64_t>(n, end - begin));
      begin += take;
      n -= take;
    }
  }
  void Send(const std::string& line) {
    if (::send(fd, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size())) {
      Fail("bare send", trv::rc::kFail, "");
    }
  }
  // Reads one response up to its tagged line; returns the literal bytes
  // skipped. A line ending in "{n}" is followed by n bytes and more line.
  uint64_t Answer(const std::string& tag) {
    uint64_t skipped = 0;
    for (;;) {
      std::string_view line = Line();
      if (line.size() > 2 && line.back() == '}') {
        const size_t open = line.rfind('{');
        const uint64_t n = std::strtoull(std::string(line.substr(open + 1)).c_str(), nullptr, 10);
        Skip(n);
        skipped += n;
        continue;
      }
      if (line.compare(0, tag.size() + 1, tag + " ") == 0) {
        if (line.compare(tag.size() + 1, 2, "OK") != 0) Fail("bare answer", trv::rc::kFail, std::string(line));
        return skipped;
      }
    }
  }
};

// Every body by the bare loop, `window` commands outstanding (0: one FETCH
// of 1:*).
uint64_t BarePass(uint16_t port, uint32_t count, size_t window) {
  Bare b;
  b.fd = ::socket(AF_INET, SOCK_STREAM, 0);
  const int one = 1;  // as the client's transport does
  ::setsockopt(b.fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(b.fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) Fail("bare connect", trv::rc::kFail, "");
  const trv::test::MailUser& alice = MailServers::Alice();
  b.Line();  // the greeting
  b.Send("l LOGIN " + alice.name + " " + alice.password + "\r\nx EXAMINE INBOX\r\n");
  b.Answer("l");
  b.Answer("x");
  uint64_t bytes = 0;
  uint32_t sent = 0, answered = 0;
  if (window == 0) {
    b.Send("f1 FETCH 1:* BODY.PEEK[]\r\n");
    bytes = b.Answer("f1");
    answered = count;
  }
  while (answered < count) {
    std::string batch;
    for (; sent < count && sent - answered < window; ++sent) {
      batch += "f" + std::to_string(sent + 1) + " FETCH " + std::to_string(sent + 1) + " BODY.PEEK[]\r\n";
    }
    if (!batch.empty()) b.Send(batch);
    bytes += b.Answer("f" + std::to_string(++answered));
  }
  b.Send("z LOGOUT\r\n");
  b.Answer("z");
  ::close(b.fd);
  return bytes;
}

}  // namespace

int main(int argc, char** argv) {
  const int messages = argc > 1 ? std::atoi(argv[1]) : 10000;
  const int runs = argc > 2 ? std::atoi(argv[2]) : 3;
  const size_t window = argc > 3 ? static_cast<size_t>(std::atoi(argv[3])) : 64;
  MailServers& servers = MailServers::Instance();
  if (trv::test::ServerStatus s = servers.Dovecot(); !s.ok) {
    std::fprintf(stderr, "imap4_bench: %s\n", s.message.c_str());
    return 1;
  }
  const uint16_t port = servers.ports().imap;
  Random rnd;
  uint64_t delivered = 0;
  for (int i = 0; i < messages; ++i) {
    const std::string m = trv::bench::WithCrLf(trv::bench::Message(rnd, i));
    delivered += m.size();
    if (servers.Deliver(MailServers::Alice().name, m).empty()) {
      std::fprintf(stderr, "imap4_bench: delivery failed\n");
      return 1;
    }
  }
  // The mailbox as the server sees it: count and RFC822.SIZE sum (this first
  // session also builds Dovecot's index, outside the measured runs).
  uint32_t count = 0;
  uint64_t size = 0;
  {
    CImap4Client c;
    CountingSink sink;
    c.SetFetchListener(&sink);
    Open(c, port);
    count = c.mailbox().exists.value_or(0);
    if (Result r = c.Fetch(1, CImap4Client::kAll, "RFC822.SIZE", false); r.failed()) Fail("SIZE", r, c.lastReply());
    size = sink.size_sum;
    c.Logout().Ignore();
  }
  if (count != static_cast<uint32_t>(messages) || size != delivered) {
    std::fprintf(stderr, "imap4_bench: the server shows %u messages of %llu bytes, %d of %llu were delivered\n",
                 count, static_cast<unsigned long long>(size), messages, static_cast<unsigned long long>(delivered));
    return 1;
  }
  struct Pass {
    const char* name;
    std::function<uint64_t()> run;
    std::vector<double> seconds;
  };
  Pass passes[] = {
      {"bare recv loop, one at a time", [&] { return BarePass(port, count, 1); }, {}},
      {"bare recv loop, pipelined", [&] { return BarePass(port, count, window); }, {}},
      {"CImap4Client::Fetch, one at a time", [&] { return ClientPass(port, count, 1); }, {}},
      {"CImap4Client, pipelined", [&] { return ClientPass(port, count, window); }, {}},
      {"bare recv loop, FETCH 1:* at once", [&] { return BarePass(port, count, 0); }, {}},
      {"CImap4Client::Fetch of 1:*", [&] { return ClientPass(port, count, 0); }, {}},
  };
  for (int run = 0; run < runs; ++run) {
    for (Pass& p : passes) {
      const auto start = Clock::now();
      const uint64_t bytes = p.run();
      p.seconds.push_back(std::chrono::duration<double>(Clock::now() - start).count());
      if (bytes != size) Fail(p.name, trv::rc::kFail, "counted " + std::to_string(bytes) + " bytes");
    }
  }
  std::printf("imap4_bench: %u messages, %.1f MB (RFC822.SIZE sum), one FETCH n BODY.PEEK[] per message,\n"
              "  from Dovecot on loopback, %zu commands outstanding when pipelined, median of %d runs\n",
              count, size / 1e6, window, runs);
  double t[6];
  for (int i = 0; i < 6; ++i) {
    t[i] = Median(passes[i].seconds);
    std::printf("  %-38s %7.2f s %8.0f msg/s %7.1f MB/s\n", passes[i].name, t[i], count / t[i], size / t[i] / 1e6);
  }
  std::printf("  CImap4Client takes %.2f x the bare loop's time one at a time, %.2f x pipelined, %.2f x for 1:*\n",
              t[2] / t[0], t[3] / t[1], t[5] / t[4]);
  return 0;
}
