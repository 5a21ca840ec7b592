// Command-line benchmark: the real trvmail-cli importing a generated mbox of
// 10,000 and then 100,000 messages and listing the folder with --json, each
// as a child process, beside a peer doing what mbox-to-Maildir converters do
// with the same file in the same run: split it and deliver one file per
// message (written to tmp/, flushed, renamed into new/, the directory
// flushed). The listing is also run in-process, through the same code as the
// list command, to count what it reads: the folder file's container counts
// every stream it opens, and a listing must open none of the messages.
//
//   cli_bench [--counts 10000,100000] [--dir DIR] [--keep]
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "mime/line_source.h"
#include "app/cli/listing.h"
#include "mime/mbox.h"
#include "core/engine.h"
#include "mime/base64.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr const char* kFolder = "Local Folders/Inbox";

double Seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

[[noreturn]] void Die(const std::string& what) {
  std::fprintf(stderr, "cli_bench: %s\n", what.c_str());
  std::exit(1);
}

[[noreturn]] void DieErrno(const std::string& what, const fs::path& path) {
  Die(what + " " + path.string() + ": " + std::strerror(errno));
}

// ---- the input ------------------------------------------------------------

const char* const kWords[] = {"mail",  "folder", "message", "server", "account", "storage", "header",
                              "body",  "sender", "reply",   "meeting", "report", "draft",   "the",
                              "of",    "and",    "to",      "in",      "from",   "with",    "about"};

// An mbox of `count` messages: varied headers (encoded words, several
// recipients), 1 to 4 KB of text, every twentieth with a base64 attachment
// of 8 KB, body lines starting with "From " quoted as mboxrd does.
std::string MakeMbox(uint32_t count) {
  std::mt19937 rng(count);
  std::string mbox;
  mbox.reserve(static_cast<size_t>(count) * 3300);
  for (uint32_t i = 0; i < count; ++i) {
    const std::string n = std::to_string(i);
    mbox += "From sender" + std::to_string(i % 211) + "@example.org Mon Mar  4 10:00:00 2024\n";
    mbox += "Return-Path: <sender" + std::to_string(i % 211) + "@example.org>\n";
    mbox += "Received: from mx.example.org by mail.example.net; Mon, 4 Mar 2024 10:00:0" + std::to_string(i % 10) +
            " +0000\n";
    mbox += i % 3 == 0 ? "From: =?UTF-8?Q?J=C3=B6rg_Sender_" + n + "?= <sender" + std::to_string(i % 211) +
                             "@example.org>\n"
                       : "From: Sender " + n + " <sender" + std::to_string(i % 211) + "@example.org>\n";
    mbox += "To: reader@example.net" + std::string(i % 4 == 0 ? ", team@example.net, boss@example.net" : "") + "\n";
    mbox += i % 2 == 0 ? "Subject: Report number " + n + " about the storage\n"
                       : "Subject: =?UTF-8?B?" + trv::Base64Encode("Grüße zum Bericht " + n, 0) + "?=\n";
    mbox += "Date: Mon, 4 Mar 2024 09:" + std::to_string(10 + i % 50) + ":00 +0100\n";
    mbox += "Message-ID: <" + n + ".bench@example.org>\n";
    mbox += "MIME-Version: 1.0\n";
    std::string body;
    const size_t length = 1000 + rng() % 3000;
    while (body.size() < length) {
      std::string line;
      while (line.size() < 60) line += std::string(kWords[rng() % std::size(kWords)]) + " ";
      if (rng() % 40 == 0) line = "From " + line;  // quoted below, unquoted by the reader
      body += line + "\n";
      if (rng() % 8 == 0) body += "\n";
    }
    if (i % 20 == 0) {
      std::string data(8192, '\0');
      for (char& c : data) c = static_cast<char>(rng());
      std::string encoded = trv::Base64Encode(data, 76);
      for (size_t p = 0; (p = encoded.find('\r', p)) != std::string::npos;) encoded.erase(p, 1);
      mbox += "Content-Type: multipart/mixed; boundary=\"b" + n + "\"\n";
      body = "--b" + n + "\nContent-Type: text/plain\n\n" + body + "--b" + n +
             "\nContent-Type: application/octet-stream\nContent-Transfer-Encoding: base64\n\n" + encoded + "\n--b" +
             n + "--\n";
    } else {
      mbox += "Content-Type: text/plain; charset=utf-8\n";
    }
    mbox += "\n";
    for (size_t pos = 0; pos < body.size();) {
      const size_t end = body.find('\n', pos) + 1;
      if (body.compare(pos, 5, "From ") == 0) mbox += '>';
      mbox.append(body, pos, end - pos);
      pos = end;
    }
    mbox += "\n";
  }
  return mbox;
}

// ---- running the program ---------------------------------------------------

struct ChildRun {
  double seconds = 0;
  long max_rss_kb = 0;
};

ChildRun RunCli(const std::vector<std::string>& args, const fs::path& out) {
  std::vector<std::string> argv = {TRVMAIL_CLI_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> argp;
  for (std::string& a : argv) argp.push_back(a.data());
  argp.push_back(nullptr);
  const auto start = Clock::now();
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) ::_exit(126);
    ::dup2(fd, 1);
    ::execv(argp[0], argp.data());
    ::_exit(127);
  }
  int status = 0;
  rusage usage{};
  if (pid < 0 || ::wait4(pid, &status, 0, &usage) < 0) Die("cannot run " + argv[0]);
  ChildRun run{Seconds(start), usage.ru_maxrss};
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) Die("trvmail-cli " + args.back() + " failed");
  return run;
}

// ---- the in-process listing ------------------------------------------------

struct InProcessList {
  double start_seconds = 0;  // engine start-up: storages found, folder files opened (counts only)
  double list_seconds = 0;   // index read and JSON made
  size_t messages = 0;
  uint64_t streams_opened = 0;
  uint64_t bytes_read = 0;
};

InProcessList ListInProcess(const fs::path& data_dir) {
  InProcessList result;
  trv::MailEngine* engine = trv::AcquireEngine();
  engine->SetDataDirectoryOverride(data_dir);
  auto start = Clock::now();
  if (engine->Start("cli_bench").failed()) Die("engine start: " + engine->start_problem());
  result.start_seconds = Seconds(start);
  trv::MailFolder* folder = engine->FindFolder(trv::Utf8ToWide(kFolder));
  if (folder == nullptr || folder->file() == nullptr) Die("no folder");
  trv::FolderFile& file = *folder->file();
  const trv::ContainerCounters before = file.counters();
  start = Clock::now();
  if (file.LoadIndex().failed()) Die("index read");
  size_t json_bytes = 0;
  trv::cli::WriteListingJson(file, [&json_bytes](std::string_view piece) { json_bytes += piece.size(); });
  result.list_seconds = Seconds(start);
  const trv::ContainerCounters after = file.counters();
  result.messages = file.MessageCount();
  result.streams_opened = after.streams_opened - before.streams_opened;
  result.bytes_read = after.bytes_read - before.bytes_read;
  if (json_bytes < result.messages) Die("listing");
  trv::ReleaseEngine();
  return result;
}

// ---- the Maildir peer ------------------------------------------------------

void Fsync(const fs::path& path, int flags) {
  const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
  if (fd < 0 || ::fsync(fd) != 0) DieErrno("fsync", path);
  ::close(fd);
}

// Splits the mbox as the import does and delivers each message into new/.
size_t SplitIntoMaildir(const fs::path& mbox, const fs::path& maildir) {
  for (const char* sub : {"tmp", "new", "cur"}) fs::create_directories(maildir / sub);
  const int in = ::open(mbox.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) DieErrno("open", mbox);
  trv::LineSource source(trv::LineSource::FromFd(in));
  trv::MboxReader reader(source);
  trv::MboxMessage m;
  size_t delivered = 0;
  for (bool got = true;;) {
    if (reader.Next(&m, &got).failed()) Die("reading the mbox");
    if (!got) break;
    const std::string name = std::to_string(delivered) + ".cli_bench";
    const fs::path tmp = maildir / "tmp" / name;
    const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0 || ::write(fd, m.text.data(), m.text.size()) != static_cast<ssize_t>(m.text.size()) ||
        ::fsync(fd) != 0) {
      DieErrno("deliver", tmp);
    }
    ::close(fd);
    if (::rename(tmp.c_str(), (maildir / "new" / name).c_str()) != 0) DieErrno("rename", tmp);
    Fsync(maildir / "new", O_RDONLY | O_DIRECTORY);
    ++delivered;
  }
  ::close(in);
  return delivered;
}

// What a Maildir reader must do to list the folder: every file's header.
size_t ScanMaildirHeaders(const fs::path& maildir) {
  size_t listed = 0;
  std::string head(8192, '\0');
  DIR* d = ::opendir((maildir / "new").c_str());
  if (d == nullptr) DieErrno("opendir", maildir);
  while (dirent* e = ::readdir(d)) {
    if (e->d_name[0] == '.') continue;
    const fs::path p = maildir / "new" / e->d_name;
    const int fd = ::open(p.c_str(), O_RDONLY | O_CLOEXEC);
    const ssize_t n = fd < 0 ? -1 : ::read(fd, head.data(), head.size());
    if (n < 0) DieErrno("read", p);
    ::close(fd);
    listed += std::string_view(head.data(), static_cast<size_t>(n)).find("\n\n") != std::string_view::npos;
  }
  ::closedir(d);
  return listed;
}

void Run(uint32_t count, const fs::path& base, bool keep) {
  const fs::path work = base / ("cli-bench-" + std::to_string(count));
  fs::remove_all(work);
  fs::create_directories(work);
  const fs::path mbox = work / "in.mbox";
  {
    const std::string text = MakeMbox(count);
    FILE* f = std::fopen(mbox.c_str(), "wb");
    if (f == nullptr || std::fwrite(text.data(), 1, text.size(), f) != text.size() || std::fclose(f) != 0) {
      DieErrno("write", mbox);
    }
  }
  const double mbox_mb = static_cast<double>(fs::file_size(mbox)) / 1e6;
  const std::string data = (work / "data").string();

  const ChildRun import = RunCli({"--data-dir", data, "import", kFolder, mbox.string()}, work / "import.out");
  const ChildRun list = RunCli({"--data-dir", data, "--json", "list", kFolder}, work / "list.json");
  const ChildRun empty = RunCli({"--data-dir", (work / "empty").string(), "--json", "list", kFolder}, work / "e.json");
  const InProcessList in = ListInProcess(data);
  if (in.messages != count) Die("imported " + std::to_string(in.messages) + " of " + std::to_string(count));

  auto start = Clock::now();
  const size_t delivered = SplitIntoMaildir(mbox, work / "Maildir");
  const double peer_import = Seconds(start);
  start = Clock::now();
  const size_t scanned = ScanMaildirHeaders(work / "Maildir");
  const double peer_list = Seconds(start);
  if (delivered != count || scanned != count) Die("Maildir peer");

  std::printf("\n%" PRIu32 " messages, mbox of %.1f MB (%.0f bytes a message)\n", count, mbox_mb,
              mbox_mb * 1e6 / count);
  // ratio: time taken here over time taken by the peer (below 1: faster)
  std::printf("%-44s %14s %14s %8s\n", "step", "trvmail-cli", "Maildir peer", "ratio");
  std::printf("%-44s %14.0f %14.0f %8.2f\n", "import, messages per second", count / import.seconds,
              count / peer_import, import.seconds / peer_import);
  std::printf("%-44s %14.0f\n", "import, peak memory (MB)", import.max_rss_kb / 1024.0);
  std::printf("%-44s %14.3f %14.3f %8.2f\n", "list --json, whole run / header scan (s)", list.seconds, peer_list,
              list.seconds / peer_list);
  std::printf("%-44s %14.3f\n", "  of which a run on an empty data dir (s)", empty.seconds);
  std::printf("%-44s %14.0f\n", "list --json, peak memory (MB)", list.max_rss_kb / 1024.0);
  std::printf("%-44s %14.3f\n", "in process: engine start (s)", in.start_seconds);
  std::printf("%-44s %14.3f\n", "in process: index read + JSON (s)", in.list_seconds);
  std::printf("%-44s %14" PRIu64 "   (\"/Index\" only: no message stream)\n", "in process: streams opened by list",
              in.streams_opened);
  std::printf("%-44s %14.1f   (%.0f bytes a message)\n", "in process: MB read by list", in.bytes_read / 1e6,
              static_cast<double>(in.bytes_read) / count);
  std::fflush(stdout);
  if (in.streams_opened != 1) Die("the listing opened more than the index stream");
  if (!keep) fs::remove_all(work);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<uint32_t> counts = {10000, 100000};
  fs::path base = fs::temp_directory_path();
  bool keep = false;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--counts" && i + 1 < argc) {
      counts.clear();
      std::string list = argv[++i];
      for (size_t p = 0; p < list.size();) {
        const size_t comma = list.find(',', p);
        counts.push_back(static_cast<uint32_t>(std::stoul(list.substr(p, comma - p))));
        p = comma == std::string::npos ? list.size() : comma + 1;
      }
    } else if (a == "--dir" && i + 1 < argc) {
      base = argv[++i];
    } else if (a == "--keep") {
      keep = true;
    } else {
      std::fprintf(stderr, "usage: cli_bench [--counts 10000,100000] [--dir DIR] [--keep]\n");
      return 2;
    }
  }
  std::printf("trvmail-cli: import of a generated mbox and list --json of the folder, beside a Maildir peer\n");
  for (uint32_t count : counts) Run(count, base, keep);
  return 0;
}
