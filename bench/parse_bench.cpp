// Whole-message parsing beside GMime 3 in the same run: a generated corpus of
// plain, alternative, attachment-carrying and nested messages is parsed by
// both, the subject and sender read, and every body decoded (text bodies to
// text in their character set, other bodies through the transfer decoding).
// Then the peak memory of parsing a message with a large attachment, listing
// its parts and decoding the attachment to a counting sink, in a child
// process each.
//   parse_bench [messages] [attachment megabytes]   (default 10000 and 50)
#include <fcntl.h>
#include <gmime/gmime.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "mime/base64.h"
#include "mime/codec_streams.h"
#include "mime/mime_message.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRounds = 3;

// --- The corpus

class Generator {
 public:
  explicit Generator(uint32_t seed) : rng_(seed) {}

  size_t Between(size_t lo, size_t hi) { return std::uniform_int_distribution<size_t>(lo, hi)(rng_); }

  // Text of about `bytes` bytes in lines below 76 characters, some words
  // with non-ASCII letters (UTF-8), CR LF line ends.
  std::string Text(size_t bytes) {
    static const char* kWords[] = {"the", "message", "of", "mail", "and", "to", "server", "folder", "café",
                                   "Grüße", "naïve", "report", "quarterly", "with", "a", "review", "über",
                                   "meeting", "tomorrow", "please", "find", "attached", "numbers", "http://example.org/x"};
    std::string out;
    size_t line = 0;
    while (out.size() < bytes) {
      const char* w = kWords[Between(0, std::size(kWords) - 1)];
      if (line + std::strlen(w) > 70) {
        out += "\r\n";
        line = 0;
      } else if (line) {
        out += ' ';
        ++line;
      }
      out += w;
      line += std::strlen(w);
    }
    return out + "\r\n";
  }

  std::string Bytes(size_t n) {
    std::string out(n, '\0');
    for (char& c : out) c = static_cast<char>(rng_());
    return out;
  }

 private:
  std::mt19937 rng_;
};

// Quoted-printable the way mailers write text: hard line breaks kept, soft
// breaks at 76 characters.
std::string Qp(const std::string& text) {
  std::string out;
  size_t column = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n') {
      out += "\r\n";
      column = 0;
      ++i;
      continue;
    }
    char token[4];
    if (c >= 33 && c <= 126 && c != '=') {
      token[0] = static_cast<char>(c);
      token[1] = 0;
    } else if (c == ' ') {
      std::strcpy(token, " ");
    } else {
      std::snprintf(token, sizeof token, "=%02X", c);
    }
    const size_t n = std::strlen(token);
    if (column + n > 75) {
      out += "=\r\n";
      column = 0;
    }
    out += token;
    column += n;
  }
  return out;
}

std::string Header(Generator& g, int i, const std::string& content_type) {
  std::string h = "Received: from relay" + std::to_string(i % 7) +
                  ".example.net (relay.example.net [192.0.2.7])\r\n\tby mx.example.org with ESMTPS id " +
                  std::to_string(100000 + i) + "; Tue, 4 Jan 2005 09:05:07 +0100\r\n";
  h += "Received: from client.example.net by relay.example.net; Tue, 4 Jan 2005 09:04:59 +0100\r\n";
  h += i % 3 ? "From: \"Sender " + std::to_string(i) + "\" <sender" + std::to_string(i) + "@example.net>\r\n"
             : "From: =?utf-8?Q?J=C3=B6rg_M=C3=BCller?= <joerg@example.net>\r\n";
  h += "To: Someone <someone@example.org>, other@example.org\r\n";
  h += i % 4 ? "Subject: Quarterly numbers, part " + std::to_string(i) + "\r\n"
             : "Subject: =?utf-8?B?R3LDvMOfZSBhdXMgTcO8bmNoZW4=?=\r\n";
  h += "Date: Tue, 4 Jan 2005 09:05:07 +0100\r\nMessage-ID: <" + std::to_string(i) + "." +
       std::to_string(g.Between(0, 1u << 30)) + "@example.net>\r\nMIME-Version: 1.0\r\n";
  return h + "Content-Type: " + content_type + "\r\n";
}

std::string TextPart(Generator& g, bool html, size_t bytes) {
  std::string text = g.Text(bytes);
  if (html) text = "<html><body><p>" + text + "</p></body></html>\r\n";
  return std::string("Content-Type: text/") + (html ? "html" : "plain") +
         "; charset=utf-8\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n" + Qp(text);
}

std::string BinaryPart(Generator& g, const char* type, const char* name, size_t bytes) {
  return std::string("Content-Type: ") + type + "; name=\"" + name +
         "\"\r\nContent-Disposition: attachment; filename=\"" + name +
         "\"\r\nContent-Transfer-Encoding: base64\r\n\r\n" + trv::Base64Encode(g.Bytes(bytes), 76) + "\r\n";
}

std::string Multipart(const std::string& boundary, const std::vector<std::string>& parts) {
  std::string out = "\r\nThis is a multi-part message in MIME format.\r\n";
  for (const std::string& p : parts) out += "--" + boundary + "\r\n" + p + "\r\n";
  return out + "--" + boundary + "--\r\n";
}

struct Corpus {
  std::vector<std::string> messages;
  size_t bytes = 0;
  int kinds[4] = {0, 0, 0, 0};  // plain, alternative, with attachments, nested
};

Corpus MakeCorpus(int count) {
  Generator g(20261121);
  Corpus c;
  for (int i = 0; i < count; ++i) {
    std::string m;
    const int kind = i % 10 < 4 ? 0 : i % 10 < 7 ? 1 : i % 10 < 9 ? 2 : 3;
    ++c.kinds[kind];
    if (kind == 0) {
      const bool qp = i % 2;
      m = Header(g, i, "text/plain; charset=utf-8") +
          (qp ? "Content-Transfer-Encoding: quoted-printable\r\n\r\n" + Qp(g.Text(g.Between(800, 6000)))
              : "Content-Transfer-Encoding: 8bit\r\n\r\n" + g.Text(g.Between(800, 6000)));
    } else if (kind == 1) {
      m = Header(g, i, "multipart/alternative; boundary=\"alt-" + std::to_string(i) + "\"") +
          Multipart("alt-" + std::to_string(i),
                    {TextPart(g, false, g.Between(1000, 5000)), TextPart(g, true, g.Between(1000, 5000))});
    } else if (kind == 2) {
      m = Header(g, i, "multipart/mixed; boundary=\"mix-" + std::to_string(i) + "\"") +
          Multipart("mix-" + std::to_string(i), {TextPart(g, false, g.Between(300, 2000)),
                                                 BinaryPart(g, "application/pdf", "report.pdf", g.Between(4000, 40000))});
    } else {
      const std::string n = std::to_string(i);
      const std::string alternative = "Content-Type: multipart/alternative; boundary=\"alt-" + n + "\"\r\n" +
                                      Multipart("alt-" + n, {TextPart(g, false, g.Between(500, 3000)),
                                                             TextPart(g, true, g.Between(500, 3000))});
      const std::string related =
          "Content-Type: multipart/related; boundary=\"rel-" + n + "\"\r\n" +
          Multipart("rel-" + n, {alternative, BinaryPart(g, "image/png", "logo.png", g.Between(2000, 20000))});
      m = Header(g, i, "multipart/mixed; boundary=\"mix-" + n + "\"") +
          Multipart("mix-" + n, {related, BinaryPart(g, "application/zip", "data.zip", g.Between(5000, 40000))});
    }
    c.bytes += m.size();
    c.messages.push_back(std::move(m));
  }
  return c;
}

// --- Our parser

struct Totals {
  size_t leaves = 0;
  size_t decoded = 0;  // decoded bytes of non-text bodies plus text lengths
};

Totals ParseOurs(const Corpus& corpus) {
  Totals t;
  trv::CXmCountingStream sink;
  trv::WString text;
  for (const std::string& m : corpus.messages) {
    trv::CXmMimeMessage message;
    message.Parse(trv::CXmMemorySource::Borrow(m)).Ignore();
    t.decoded += message.header().DisplayText(trv::field::kSubject).size();
    t.decoded += message.header().Addresses(trv::field::kFrom).size();
    trv::ForEachPart(message.root(), [&](const trv::CXmMessagePart& p, int) {
      if (p.IsMultipart()) return;
      ++t.leaves;
      if (p.IsText()) {
        p.GetText(&text).Ignore();
        t.decoded += text.size();
      } else {
        p.DecodeBody(sink).Ignore();
      }
    });
  }
  t.decoded += sink.Size();
  return t;
}

// --- GMime

struct GmimeWalk {
  Totals* totals;
  GMimeStream* sink;
};

void GmimePart(GMimeObject*, GMimeObject* part, gpointer data) {
  auto* walk = static_cast<GmimeWalk*>(data);
  if (GMIME_IS_TEXT_PART(part)) {
    ++walk->totals->leaves;
    char* text = g_mime_text_part_get_text(GMIME_TEXT_PART(part));
    if (text) walk->totals->decoded += std::strlen(text);
    g_free(text);
  } else if (GMIME_IS_PART(part)) {
    ++walk->totals->leaves;
    if (GMimeDataWrapper* content = g_mime_part_get_content(GMIME_PART(part))) {
      g_mime_data_wrapper_write_to_stream(content, walk->sink);
    }
  }
}

void GmimeMessage(GMimeStream* stream, Totals* t, GMimeStream* sink) {
  GMimeParser* parser = g_mime_parser_new_with_stream(stream);
  GMimeMessage* message = g_mime_parser_construct_message(parser, nullptr);
  if (message) {
    const char* subject = g_mime_message_get_subject(message);
    t->decoded += subject ? std::strlen(subject) : 0;
    char* from = internet_address_list_to_string(g_mime_message_get_from(message), nullptr, FALSE);
    t->decoded += from ? std::strlen(from) : 0;
    g_free(from);
    GmimeWalk walk{t, sink};
    g_mime_message_foreach(message, GmimePart, &walk);
    g_object_unref(message);
  }
  g_object_unref(parser);
}

Totals ParseGmime(const std::vector<GMimeStream*>& streams) {
  Totals t;
  GMimeStream* sink = g_mime_stream_null_new();
  for (GMimeStream* s : streams) {
    g_mime_stream_reset(s);
    GmimeMessage(s, &t, sink);
  }
  t.decoded += GMIME_STREAM_NULL(sink)->written;
  g_object_unref(sink);
  return t;
}

// --- Peak memory

long StatusKb(const char* key) {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(key, 0) == 0) return std::atol(line.c_str() + std::strlen(key));
  }
  return -1;
}

// Runs `fn` in a child process; returns the growth of its peak resident set
// over what it had when it began, in KB, and `fn`'s result.
long PeakGrowthKb(const std::function<uint64_t()>& fn, uint64_t* result) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    if (FILE* f = std::fopen("/proc/self/clear_refs", "w")) {
      std::fputs("5", f);  // resets the peak to the present size
      std::fclose(f);
    }
    const long before = StatusKb("VmRSS:");
    const uint64_t r = fn();
    const long growth[2] = {StatusKb("VmHWM:") - before, static_cast<long>(r)};
    if (write(fds[1], growth, sizeof growth) != sizeof growth) _exit(1);
    _exit(0);
  }
  close(fds[1]);
  long growth[2] = {-1, 0};
  if (read(fds[0], growth, sizeof growth) != sizeof growth) growth[0] = -1;
  close(fds[0]);
  waitpid(pid, nullptr, 0);
  *result = static_cast<uint64_t>(growth[1]);
  return growth[0];
}

// Writes a message with a text part and an attachment of `megabytes` random
// bytes, streaming, so that making it does not grow this process.
size_t WriteBigMessage(const std::string& path, size_t megabytes) {
  trv::CXmFileStream out;
  if (out.Open(path, trv::CXmFileStream::kCreate).failed()) return 0;
  out.Write("From: a@example.org\r\nSubject: big\r\nMIME-Version: 1.0\r\n"
            "Content-Type: multipart/mixed; boundary=\"big\"\r\n\r\n--big\r\nContent-Type: text/plain\r\n\r\n"
            "see attached\r\n--big\r\nContent-Type: application/octet-stream; name=big.bin\r\n"
            "Content-Disposition: attachment; filename=big.bin\r\nContent-Transfer-Encoding: base64\r\n\r\n")
      .Ignore();
  {
    trv::CXmBase64Encoder encoder(out);
    std::mt19937 rng(7);
    std::string block(57 * 1024, '\0');
    for (size_t done = 0; done < megabytes << 20; done += block.size()) {
      for (char& c : block) c = static_cast<char>(rng());
      encoder.Write(block.data(), std::min(block.size(), (megabytes << 20) - done)).Ignore();
    }
    encoder.Finish().Ignore();
  }
  out.Write("\r\n--big--\r\n").Ignore();
  const size_t size = out.Size();
  out.Close().Ignore();
  return size;
}

uint64_t BigOurs(const std::string& path) {
  auto source = std::make_shared<trv::CXmFileSource>();
  if (source->Open(path).failed()) return 0;
  trv::CXmMimeMessage m;
  m.Parse(source).Ignore();
  trv::CXmCountingStream sink;
  for (const trv::CXmMessagePart* p : m.Parts()) {
    p->GetContentType();
    p->GetFileName();
    p->GetBodySize();
    if (p->IsAttachment()) p->DecodeBody(sink).Ignore();
  }
  return sink.Size();
}

uint64_t BigGmime(const std::string& path) {
  GMimeStream* stream = g_mime_stream_fs_open(path.c_str(), O_RDONLY, 0, nullptr);
  if (!stream) return 0;
  Totals t;
  GMimeStream* sink = g_mime_stream_null_new();
  GmimeMessage(stream, &t, sink);
  const uint64_t written = GMIME_STREAM_NULL(sink)->written;
  g_object_unref(sink);
  g_object_unref(stream);
  return written;
}

template <typename Fn>
double Seconds(Fn fn) {
  const auto t0 = Clock::now();
  fn();
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::atoi(argv[1]) : 10000;
  const size_t big_mb = argc > 2 ? static_cast<size_t>(std::atol(argv[2])) : 50;
  g_mime_init();

  // Peak memory first, while this process is still small.
  const std::string path = "/tmp/parse_bench_" + std::to_string(getpid()) + ".eml";
  const size_t big_size = WriteBigMessage(path, big_mb);
  uint64_t ours_decoded = 0;
  uint64_t gmime_decoded = 0;
  const long ours_kb = PeakGrowthKb([&] { return BigOurs(path); }, &ours_decoded);
  const long gmime_kb = PeakGrowthKb([&] { return BigGmime(path); }, &gmime_decoded);
  std::remove(path.c_str());

  const Corpus corpus = MakeCorpus(count);
  std::vector<GMimeStream*> streams;
  for (const std::string& m : corpus.messages) streams.push_back(g_mime_stream_mem_new_with_buffer(m.data(), m.size()));

  double best_ours = 1e9;
  double best_gmime = 1e9;
  Totals ours;
  Totals theirs;
  for (int round = 0; round < kRounds; ++round) {
    best_ours = std::min(best_ours, Seconds([&] { ours = ParseOurs(corpus); }));
    best_gmime = std::min(best_gmime, Seconds([&] { theirs = ParseGmime(streams); }));
  }
  for (GMimeStream* s : streams) g_object_unref(s);

  const double mb = corpus.bytes / 1e6;
  std::printf("corpus: %d messages (%d plain, %d alternative, %d with an attachment, %d nested), %.1f MB\n",
              count, corpus.kinds[0], corpus.kinds[1], corpus.kinds[2], corpus.kinds[3], mb);
  std::printf("bodies: %zu single parts (GMime %zu), best of %d rounds\n", ours.leaves, theirs.leaves, kRounds);
  std::printf("%-22s %10s %14s\n", "parser", "MB/s", "messages/s");
  std::printf("%-22s %10.1f %14.0f\n", "CXmMimeMessage", mb / best_ours, count / best_ours);
  const std::string gmime = "GMime " + std::to_string(gmime_major_version) + "." + std::to_string(gmime_minor_version) +
                            "." + std::to_string(gmime_micro_version);
  std::printf("%-22s %10.1f %14.0f\n", gmime.c_str(), mb / best_gmime, count / best_gmime);
  std::printf("ratio (ours / GMime): %.2f\n", best_gmime / best_ours);
  std::printf("%zu MB attachment (%.1f MB message), parse + list parts + decode to a counting sink:\n", big_mb,
              big_size / 1e6);
  std::printf("  peak RSS growth: CXmMimeMessage %.1f MB (decoded %.1f MB), GMime %.1f MB (decoded %.1f MB)\n",
              ours_kb / 1024.0, ours_decoded / 1048576.0, gmime_kb / 1024.0, gmime_decoded / 1048576.0);
  g_mime_shutdown();
  return ours.leaves == theirs.leaves ? 0 : 1;
}
