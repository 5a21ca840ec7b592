// Full-text search benchmark: the search database over one folder file of
// generated messages, beside notmuch (a benchmark-only peer) indexing and
// querying the same messages as a Maildir, in the same run.
//
//   search_bench [--count N] [--dir DIR] [--no-peer]
//
// Figures: index build time for each; for each query the median of five
// runs: ours in-process (Find alone, and Search, which first compares the
// folder with the database), notmuch as a child process ("notmuch search
// --output=files", so its process start is in its figure).
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "base/log_sink.h"
#include "bench/mail_generator.h"
#include "core/message_import.h"
#include "core/search_index.h"
#include "mime/message_text.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

double Seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

[[noreturn]] void Die(const std::string& what, trv::Result r = trv::rc::kFail) {
  std::fprintf(stderr, "search_bench: %s failed: %s %s\n", what.c_str(), trv::ResultHex(r).c_str(),
               trv::ResultText(r).c_str());
  std::exit(1);
}

// About 4 KB a message: text, some with small attachments or HTML.
constexpr trv::bench::CorpusSizes kSearchCorpus{800, 3200, 1000, 2000, 1000, 4000, false, "search-bench.test"};

// Runs a shell command with NOTMUCH_CONFIG set; its seconds. Exits on failure.
double Shell(const std::string& command) {
  const auto start = Clock::now();
  if (std::system(command.c_str()) != 0) Die("\"" + command + "\"");
  return Seconds(start);
}

struct Query {
  const char* ours;
  const char* notmuch;
};

}  // namespace

int main(int argc, char** argv) {
  int count = 100000;
  bool peer_runs = true;
  fs::path dir = fs::temp_directory_path() / ("search_bench." + std::to_string(::getpid()));
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--no-peer") peer_runs = false;
    else if (a == "--count" && i + 1 < argc) count = std::atoi(argv[++i]);
    else if (a == "--dir" && i + 1 < argc) dir = argv[++i];
  }
  fs::remove_all(dir);
  fs::create_directories(dir / "maildir/cur");
  fs::create_directories(dir / "maildir/new");
  fs::create_directories(dir / "maildir/tmp");
  trv::NullLogSink log;

  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  // The same messages into a folder file and a Maildir.
  trv::FolderFile folder(log, {.sync_commits = false});
  if (trv::Result r = folder.Create(dir / "folder.fld"); r.failed()) Die("creating the folder file", r);
  trv::bench::Random rnd;
  std::vector<std::string> texts;
  for (int i = 0; i < count; ++i) {
    const std::string lf = trv::bench::Message(rnd, i, kSearchCorpus);
    FILE* f = std::fopen((dir / "maildir/cur" / (std::to_string(i) + ".bench:2,S")).c_str(), "wb");
    if (f == nullptr || std::fwrite(lf.data(), 1, lf.size(), f) != lf.size() || std::fclose(f) != 0) {
      Die("writing the Maildir");
    }
    texts.push_back(trv::ToStoredForm(lf));
    if (texts.size() == 1000 || i + 1 == count) {
      std::vector<trv::NewMessage> batch;
      for (const std::string& t : texts) batch.push_back({trv::RecordFromMessage(t), t});
      std::vector<uint32_t> keys;
      if (trv::Result r = folder.AppendMany(batch, &keys); r.failed()) Die("appending", r);
      texts.clear();
    }
  }
  std::printf("%d messages, folder file %.0f MB\n", count, fs::file_size(dir / "folder.fld") / 1e6);

  trv::SearchIndex index(log);
  if (trv::Result r = index.Open(dir / trv::SearchIndex::kFileName); r.failed()) Die("opening the database", r);
  const std::vector<trv::SearchFolder> folders = {{"folder.fld", &folder}};
  auto start = Clock::now();
  if (trv::Result r = index.Update(folders, true); r.failed()) Die("indexing", r);
  const double ours_build = Seconds(start);

  const std::string config = (dir / "notmuch-config").string();
  {
    FILE* f = std::fopen(config.c_str(), "w");
    std::fprintf(f,
                 "[database]\npath=%s\n[new]\ntags=inbox;\n[search]\nexclude_tags=\n"
                 "[maildir]\nsynchronize_flags=false\n",
                 (dir / "maildir").c_str());
    std::fclose(f);
  }
  const std::string env = "NOTMUCH_CONFIG=" + config + " ";
  const double notmuch_build = peer_runs ? Shell(env + "notmuch new --quiet >/dev/null") : 0;
  std::printf("index build: ours %.1f s (database %.0f MB), notmuch %.1f s\n", ours_build,
              fs::file_size(dir / trv::SearchIndex::kFileName) / 1e6, notmuch_build);

  // What a search pays before its query: the folder compared with the
  // database (nothing new), of which the copy of the folder's records.
  std::vector<double> compare, copy;
  for (int run = 0; run < 5; ++run) {
    start = Clock::now();
    if (trv::Result r = index.Update(folders, true); r.failed()) Die("comparing", r);
    compare.push_back(Seconds(start));
    start = Clock::now();
    const size_t n = folder.Messages().size();
    copy.push_back(Seconds(start));
    if (n != static_cast<size_t>(count)) Die("listing");
  }
  std::printf("folder comparison %.1f ms, of which copying the records %.1f ms\n",
              trv::bench::Median(compare) * 1e3, trv::bench::Median(copy) * 1e3);

  const Query queries[] = {
      {"4242", "4242"},
      {"\"offline client\"", "\"offline client\""},
      {"from:s42@example.test", "from:s42@example.test"},
      {"server", "server"},
  };
  std::printf("%-24s %8s  %10s  %10s  %12s  %9s\n", "query", "hits", "ours Find", "ours Search", "notmuch", "its hits");
  for (const Query& q : queries) {
    std::vector<double> find, search, peer;
    std::vector<trv::SearchHit> hits;
    for (int run = 0; run < 5; ++run) {
      start = Clock::now();
      if (trv::Result r = index.Find(trv::ParseSearchQuery(q.ours), folders, &hits); r.failed()) Die("Find", r);
      find.push_back(Seconds(start));
      start = Clock::now();
      if (trv::Result r = index.Search(q.ours, folders, true, {}, &hits); r.failed()) Die("Search", r);
      search.push_back(Seconds(start));
      const std::string command = "notmuch search --output=files '" + std::string(q.notmuch) + "' >";
      if (peer_runs) peer.push_back(Shell(env + command + (dir / "hits").string()));
    }
    size_t peer_hits = 0;
    if (FILE* f = std::fopen((dir / "hits").c_str(), "r")) {
      for (int c; (c = std::fgetc(f)) != EOF;) peer_hits += c == '\n';
      std::fclose(f);
    }
    std::printf("%-24s %8zu  %8.1f ms  %8.1f ms  %9.1f ms  %9zu\n", q.ours, hits.size(),
                trv::bench::Median(find) * 1e3, trv::bench::Median(search) * 1e3,
                peer_runs ? trv::bench::Median(peer) * 1e3 : 0, peer_hits);
  }
  fs::remove_all(dir);
  return 0;
}
