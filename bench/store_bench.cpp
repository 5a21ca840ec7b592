// Message store benchmark: one folder file against a Maildir folder written
// and read in the same run, on the same file system.
//
//   store_bench [--count N] [--size BYTES] [--dir DIR] [--no-sync]
//
// Steps, each for both stores: append N messages one by one (each durable
// before the next: a commit flushed to the disk here, fsync of the file and
// of the directory there); open with counts only; load the full listing
// (here the index; there every file's header, as a Maildir reader must);
// delete 10% one by one and reopen. Caches are warm for both. Appends and
// deletes alternate between the stores in blocks, so a disk shared with
// other work slows both alike.
#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "core/activity_log.h"
#include "store/folder_file.h"
#include "bench/resident_memory.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

double Seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

[[noreturn]] void Die(const char* what, trv::Result r) {
  std::fprintf(stderr, "store_bench: %s failed: %s %s\n", what, trv::ResultHex(r).c_str(), trv::ResultText(r).c_str());
  std::exit(1);
}

[[noreturn]] void DieErrno(const char* what, const std::string& path) {
  std::fprintf(stderr, "store_bench: %s %s: %s\n", what, path.c_str(), std::strerror(errno));
  std::exit(1);
}

struct Message {
  trv::MessageRecord record;
  std::string text;
};

// A plain message of about `size` bytes with the headers a listing shows.
Message MakeMessage(uint32_t i, size_t size) {
  Message m;
  const std::string subject = "Benchmark message number " + std::to_string(i);
  const std::string from = "Sender " + std::to_string(i % 97) + " <sender" + std::to_string(i % 97) + "@example.org>";
  const std::string to = "reader@example.org";
  const std::string id = "bench." + std::to_string(i) + "@example.org";
  m.text = "From: " + from + "\r\nTo: " + to + "\r\nSubject: " + subject +
           "\r\nDate: Mon, 4 Mar 2024 10:00:00 +0000\r\nMessage-ID: <" + id + ">\r\n\r\n";
  while (m.text.size() + 2 < size) {
    m.text.append("The quick brown fox jumps over the lazy dog, line ").append(std::to_string(m.text.size())).append("\r\n");
  }
  m.text.resize(size - 2);
  m.text += "\r\n";
  m.record.subject = trv::Utf8ToWide(subject);
  m.record.from = trv::Utf8ToWide(from);
  m.record.to = trv::Utf8ToWide(to);
  m.record.message_id = trv::Utf8ToWide(id);
  m.record.sent_date = 45355.416666;
  m.record.received_date = trv::DateNow();
  return m;
}

// ---- Maildir peer -------------------------------------------------------

void FsyncPath(const fs::path& p, int flags) {
  const int fd = ::open(p.c_str(), flags | O_CLOEXEC);
  if (fd < 0 || ::fsync(fd) != 0) DieErrno("fsync", p);
  ::close(fd);
}

// Writes tmp/<name>, flushes it, renames it into new/ and flushes new/.
void MaildirDeliver(const fs::path& dir, const std::string& name, const std::string& text, bool sync) {
  const fs::path tmp = dir / "tmp" / name;
  const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) DieErrno("create", tmp);
  if (::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) DieErrno("write", tmp);
  if (sync && ::fsync(fd) != 0) DieErrno("fsync", tmp);
  ::close(fd);
  const fs::path dest = dir / "new" / name;
  if (::rename(tmp.c_str(), dest.c_str()) != 0) DieErrno("rename", tmp);
  if (sync) FsyncPath(dir / "new", O_RDONLY | O_DIRECTORY);
}

std::vector<std::string> MaildirNames(const fs::path& dir) {
  std::vector<std::string> names;
  for (const char* sub : {"new", "cur"}) {
    DIR* d = ::opendir((dir / sub).c_str());
    if (!d) DieErrno("opendir", dir / sub);
    while (dirent* e = ::readdir(d)) {
      if (e->d_name[0] != '.') names.push_back(std::string(sub) + "/" + e->d_name);
    }
    ::closedir(d);
  }
  return names;
}

// The value of a header field in a header block (unfolded lines only; the
// benchmark's messages have no folding).
std::string Field(std::string_view head, std::string_view name) {
  size_t at = 0;
  while (at < head.size()) {
    const size_t end = head.find("\r\n", at);
    const std::string_view line = head.substr(at, end - at);
    if (line.size() > name.size() && trv::StartsWithNoCase(line, name) && line[name.size()] == ':') {
      return std::string(trv::TrimView(line.substr(name.size() + 1)));
    }
    if (end == std::string_view::npos) break;
    at = end + 2;
  }
  return {};
}

// What a Maildir reader does to list a folder: every file's header block.
std::vector<trv::MessageRecord> MaildirListing(const fs::path& dir) {
  std::vector<trv::MessageRecord> list;
  std::string head(8192, '\0');
  for (const std::string& name : MaildirNames(dir)) {
    const fs::path p = dir / name;
    const int fd = ::open(p.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) DieErrno("open", p);
    const ssize_t n = ::read(fd, head.data(), head.size());
    ::close(fd);
    if (n < 0) DieErrno("read", p);
    std::string_view block(head.data(), static_cast<size_t>(n));
    block = block.substr(0, block.find("\r\n\r\n"));
    trv::MessageRecord r;
    r.subject = trv::Utf8ToWide(Field(block, "Subject"));
    r.from = trv::Utf8ToWide(Field(block, "From"));
    r.to = trv::Utf8ToWide(Field(block, "To"));
    r.message_id = trv::Utf8ToWide(Field(block, "Message-ID"));
    r.server_uid = trv::Utf8ToWide(name);
    list.push_back(std::move(r));
  }
  return list;
}

// Bytes the file system allocated for a file or a directory tree.
uint64_t DiskUse(const fs::path& p) {
  uint64_t bytes = 0;
  auto add = [&](const fs::path& f) {
    struct stat st;
    if (::lstat(f.c_str(), &st) == 0) bytes += static_cast<uint64_t>(st.st_blocks) * 512;
  };
  add(p);
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(p, ec); !ec && it != fs::recursive_directory_iterator(); ++it) {
    add(it->path());
  }
  return bytes;
}

struct Row {
  std::string step;
  double ours;
  double peer;
  std::string unit;
};

}  // namespace

int main(int argc, char** argv) {
  uint32_t count = 100000;
  size_t size = 4096;
  bool sync = true;
  fs::path base = fs::temp_directory_path();
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--count" && i + 1 < argc) count = static_cast<uint32_t>(std::stoul(argv[++i]));
    else if (a == "--size" && i + 1 < argc) size = std::stoul(argv[++i]);
    else if (a == "--dir" && i + 1 < argc) base = argv[++i];
    else if (a == "--no-sync") sync = false;
    else {
      std::fprintf(stderr, "usage: store_bench [--count N] [--size BYTES] [--dir DIR] [--no-sync]\n");
      return 2;
    }
  }
  std::string tmpl = (base / "store-bench-XXXXXX").string();
  if (!::mkdtemp(tmpl.data())) DieErrno("mkdtemp", tmpl);
  const fs::path work = tmpl;
  const fs::path folder_path = work / "bench.fld";
  const fs::path maildir = work / "Maildir";
  for (const char* sub : {"tmp", "new", "cur"}) fs::create_directories(maildir / sub);

  trv::NullLogSink log;
  trv::FolderFileOptions options;
  options.sync_commits = sync;
  std::vector<Row> rows;
  std::vector<uint32_t> keys;
  keys.reserve(count);

  // 1. Appends, one durable change each. The two stores take turns in
  // blocks, so that both see the same load on a shared disk.
  constexpr uint32_t kBlock = 1000;
  {
    trv::FolderFile folder(log, options);
    trv::Result r = folder.Create(folder_path);
    if (r.failed()) Die("create", r);
    double ours = 0, peer = 0;
    for (uint32_t first = 0; first < count; first += kBlock) {
      const uint32_t end = std::min(count, first + kBlock);
      std::vector<Message> block;
      for (uint32_t i = first; i < end; ++i) block.push_back(MakeMessage(i, size));
      auto t = Clock::now();
      for (const Message& m : block) {
        uint32_t key = 0;
        r = folder.Append(m.record, m.text, &key);
        if (r.failed()) Die("append", r);
        keys.push_back(key);
      }
      ours += Seconds(t);
      t = Clock::now();
      for (uint32_t i = first; i < end; ++i) {
        MaildirDeliver(maildir, std::to_string(i) + ".bench", block[i - first].text, sync);
      }
      peer += Seconds(t);
    }
    rows.push_back({"append, total", ours, peer, "s"});
    rows.push_back({"append, per message", ours / count * 1e6, peer / count * 1e6, "us"});
  }

  // 2. Open with counts only (averaged over repeated opens).
  {
    constexpr int kRepeat = 20;
    uint64_t index_bytes = 0;
    auto t = Clock::now();
    for (int i = 0; i < kRepeat; ++i) {
      trv::FolderFile folder(log, options);
      const trv::Result r = folder.Open(folder_path);
      if (r.failed()) Die("open", r);
      if (folder.index_loaded() || folder.counts().messages != count) Die("open by counts", trv::rc::kFail);
      index_bytes = folder.counters().bytes_read;
    }
    const double ours = Seconds(t) / kRepeat;
    t = Clock::now();
    size_t n = 0;
    for (int i = 0; i < kRepeat; ++i) n = MaildirNames(maildir).size();
    const double peer = Seconds(t) / kRepeat;
    if (n != count) Die("Maildir count", trv::rc::kFail);
    rows.push_back({"open, counts only", ours * 1e3, peer * 1e3, "ms"});
    rows.push_back({"  bytes read at open", static_cast<double>(index_bytes), 0, "B"});
  }

  // 3. The full listing: time and resident memory per message.
  {
    malloc_trim(0);
    size_t before = trv::bench::ResidentBytes();
    auto t = Clock::now();
    trv::FolderFile folder(log, options);
    trv::Result r = folder.Open(folder_path);
    if (r.ok()) r = folder.LoadIndex();
    if (r.failed()) Die("load index", r);
    const double ours = Seconds(t);
    const double ours_mem = static_cast<double>(trv::bench::ResidentBytes() - before) / count;
    folder.Close();
    malloc_trim(0);
    before = trv::bench::ResidentBytes();
    t = Clock::now();
    std::vector<trv::MessageRecord> listing = MaildirListing(maildir);
    const double peer = Seconds(t);
    const double peer_mem = static_cast<double>(trv::bench::ResidentBytes() - before) / count;
    if (listing.size() != count) Die("Maildir listing", trv::rc::kFail);
    listing.clear();
    listing.shrink_to_fit();
    rows.push_back({"load full listing", ours * 1e3, peer * 1e3, "ms"});
    rows.push_back({"  resident memory per message", ours_mem, peer_mem, "B"});
  }

  // 4. Delete every tenth message, one by one, then reopen and list.
  {
    trv::FolderFile folder(log, options);
    trv::Result r = folder.Open(folder_path);
    if (r.ok()) r = folder.LoadIndex();
    if (r.failed()) Die("load index", r);
    double ours = 0, peer = 0;
    for (uint32_t first = 0; first < count; first += 10 * kBlock) {
      const uint32_t end = std::min(count, first + 10 * kBlock);
      auto t = Clock::now();
      for (uint32_t i = first; i < end; i += 10) {
        r = folder.Delete({keys[i]});
        if (r.failed()) Die("delete", r);
      }
      ours += Seconds(t);
      t = Clock::now();
      for (uint32_t i = first; i < end; i += 10) {
        const fs::path p = maildir / "new" / (std::to_string(i) + ".bench");
        if (::unlink(p.c_str()) != 0) DieErrno("unlink", p);
        if (sync) FsyncPath(maildir / "new", O_RDONLY | O_DIRECTORY);
      }
      peer += Seconds(t);
    }
    folder.Close();
    rows.push_back({"delete 10%, total", ours, peer, "s"});

    auto t = Clock::now();
    r = folder.Open(folder_path);
    if (r.ok()) r = folder.LoadIndex();
    if (r.failed()) Die("reopen", r);
    const double ours_reopen = Seconds(t);
    const size_t left = folder.MessageCount();
    folder.Close();
    t = Clock::now();
    const size_t peer_left = MaildirListing(maildir).size();
    const double peer_reopen = Seconds(t);
    if (left != peer_left) Die("message counts after deleting", trv::rc::kFail);
    rows.push_back({"reopen and list after delete", ours_reopen * 1e3, peer_reopen * 1e3, "ms"});
    rows.push_back({"disk use after delete", DiskUse(folder_path) / 1e6, DiskUse(maildir) / 1e6, "MB"});
  }

  std::printf("Message store: %" PRIu32 " messages of %zu bytes, %s; Maildir peer in %s\n", count, size,
              sync ? "every change flushed to disk" : "no flushes", work.c_str());
  std::printf("%-32s %14s %14s %8s\n", "step", "folder file", "Maildir", "ratio");
  for (const Row& row : rows) {
    char ratio[32] = "";
    if (row.peer > 0) std::snprintf(ratio, sizeof ratio, "%.2f", row.ours / row.peer);
    std::printf("%-32s %11.2f %-2s %11.2f %-2s %8s\n", row.step.c_str(), row.ours, row.unit.c_str(), row.peer,
                row.unit.c_str(), ratio);
  }
  std::printf("(ratio: folder file / Maildir; below 1 means the folder file is faster or smaller)\n");
  std::error_code ec;
  fs::remove_all(work, ec);
  return 0;
}
