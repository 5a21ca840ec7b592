// The mailbox the POP3 and IMAP4 benchmarks serve: a small deterministic
// generator, so that every run (and every benchmark) sees the same messages.
// 70% short text messages, 20% with a base64 attachment of 20 to 100 KB, 10%
// text and HTML; lines end in LF, or in CR LF through WithCrLf. Median for
// the figures.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace trv::bench {

struct Random {
  uint64_t state = 0x9E3779B97F4A7C15ull;
  uint32_t Next(uint32_t bound) {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<uint32_t>((state >> 33) % bound);
  }
};

inline std::string Text(Random& rnd, size_t bytes) {
  static const char* const kWords[] = {"mail", "the", "offline", "client", "reads", "server", "message",
                                       "folder", "a", "and", "sync", "header", ".dot", "of", "to"};
  std::string out, line;
  while (out.size() < bytes) {
    line += kWords[rnd.Next(15)];
    if (line.size() > 66 || rnd.Next(40) == 0) {
      out += line + "\n";
      line.clear();
    } else {
      line += ' ';
    }
  }
  return out + line + "\n";
}

inline std::string Base64Lines(Random& rnd, size_t bytes) {
  static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve(bytes + bytes / 76 + 1);
  for (size_t i = 0; i < bytes; ++i) {
    out += kAlphabet[rnd.Next(64)];
    if (i % 76 == 75) out += '\n';
  }
  return out + "\n";
}

inline std::string Message(Random& rnd, int i) {
  std::string m = "From: Sender " + std::to_string(i % 97) + " <s" + std::to_string(i % 97) +
                  "@example.test>\nTo: alice@example.test\nSubject: Message " + std::to_string(i) +
                  "\nDate: Mon, 3 Jun 2024 10:" + std::to_string(10 + i % 50) + ":00 +0000\nMessage-ID: <" +
                  std::to_string(i) + "@bench.test>\nMIME-Version: 1.0\n";
  const uint32_t kind = rnd.Next(10);
  if (kind < 7) return m + "Content-Type: text/plain; charset=utf-8\n\n" + Text(rnd, 800 + rnd.Next(3200));
  const std::string b = "b" + std::to_string(i);
  m += "Content-Type: multipart/" + std::string(kind < 9 ? "mixed" : "alternative") + "; boundary=\"" + b + "\"\n\n";
  m += "--" + b + "\nContent-Type: text/plain\n\n" + Text(rnd, 1000 + rnd.Next(2000)) + "--" + b + "\n";
  if (kind < 9) {
    m += "Content-Type: application/octet-stream; name=\"a.bin\"\nContent-Transfer-Encoding: base64\n\n" +
         Base64Lines(rnd, 20000 + rnd.Next(80000));
  } else {
    m += "Content-Type: text/html\n\n<html><body><p>" + Text(rnd, 2000 + rnd.Next(6000)) + "</p></body></html>\n";
  }
  return m + "--" + b + "--\n";
}

inline std::string WithCrLf(const std::string& lf_text) {
  std::string out;
  out.reserve(lf_text.size() + lf_text.size() / 40);
  for (const char c : lf_text) {
    if (c == '\n') out += '\r';
    out += c;
  }
  return out;
}

inline double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace trv::bench
