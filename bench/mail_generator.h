// The mailboxes the POP3 and IMAP4 benchmarks serve: a small deterministic
// generator, so that every run (and every benchmark) sees the same messages.
// 70% text messages, 20% with a base64 attachment, 10% text and HTML, in
// the sizes of a CorpusSizes; lines end in LF, or in CR LF through
// WithCrLf. Median for the figures.
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

// The sizes of a corpus: text of `text_min` + up to `text_span` bytes in
// plain messages; in multipart ones a text part of `part_min` + up to
// `part_span`, and an attachment of `attachment_min` + up to
// `attachment_span` base64 characters, or bytes before encoding when
// `attachment_decoded`.
struct CorpusSizes {
  uint32_t text_min, text_span, part_min, part_span, attachment_min, attachment_span;
  bool attachment_decoded;
  const char* domain;  // of the Message-IDs
};
// The retrieval benchmarks' mailbox (about 16 KB a message).
inline constexpr CorpusSizes kSmallCorpus{800, 3200, 1000, 2000, 20000, 80000, false, "bench.test"};
// The synchronization benchmark's (about 52 KB a message): text of 2 to 8
// KB, attachments of 50 to 300 KB.
inline constexpr CorpusSizes kSyncCorpus{2048, 6145, 1000, 3000, 51200, 256001, true, "imap-bench.test"};

inline std::string Message(Random& rnd, int i, const CorpusSizes& z = kSmallCorpus) {
  std::string m = "From: Sender " + std::to_string(i % 97) + " <s" + std::to_string(i % 97) +
                  "@example.test>\nTo: alice@example.test\nSubject: Message " + std::to_string(i) +
                  "\nDate: Mon, 3 Jun 2024 10:" + std::to_string(10 + i % 50) + ":00 +0000\nMessage-ID: <" +
                  std::to_string(i) + "@" + z.domain + ">\nMIME-Version: 1.0\n";
  const uint32_t kind = rnd.Next(10);
  if (kind < 7) return m + "Content-Type: text/plain; charset=utf-8\n\n" + Text(rnd, z.text_min + rnd.Next(z.text_span));
  const std::string b = "b" + std::to_string(i);
  m += "Content-Type: multipart/" + std::string(kind < 9 ? "mixed" : "alternative") + "; boundary=\"" + b + "\"\n\n";
  m += "--" + b + "\nContent-Type: text/plain\n\n" + Text(rnd, z.part_min + rnd.Next(z.part_span)) + "--" + b + "\n";
  if (kind < 9) {
    const size_t size = z.attachment_min + rnd.Next(z.attachment_span);
    m += "Content-Type: application/octet-stream; name=\"a.bin\"\nContent-Transfer-Encoding: base64\n\n" +
         Base64Lines(rnd, z.attachment_decoded ? (size + 2) / 3 * 4 : size);
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
