// Message list benchmark: the window program's main window, in this process
// on Qt's offscreen platform, choosing a folder of 100,000 messages and
// painting its list, beside the command line's listing code over the same
// folder in the same run.
//
//   gui_list_bench [--count N] [--dir DIR] [--rounds R]
//
// The data directory is built once under DIR (default: the temp directory)
// through the import's batch append and reused by later runs. Every time is
// from the action (choosing the folder, scrolling, clicking a column) to
// the end of the list viewport's next paint: the paint event is handled
// inside an event filter and the clock read after it. The first choice of
// the folder loads its index; later ones (after the Inbox in between) find
// it loaded. Memory: resident set growth from before the first choice to
// after its paint, per listed message.
#include <malloc.h>
#include <unistd.h>

#include <QApplication>
#include <QEvent>
#include <QHeaderView>
#include <QScrollBar>
#include <QTableView>
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "app/cli/listing.h"
#include "app/gui/session.h"
#include "bench/mail_generator.h"
#include "core/engine.h"
#include "core/message_import.h"
#include "store/mail_folder.h"
#include "bench/resident_memory.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr const char16_t* kFolderName = u"Bench";
constexpr const char16_t* kFolderPath = u"Local Folders/Bench";
// Small messages, 1.2 KB on average: text of 100 to 500 bytes, attachments
// of a few hundred; the generator's HTML parts (one message in ten) are 2 to 8 KB.
constexpr trv::bench::CorpusSizes kListCorpus{100, 400, 100, 300, 200, 600, false, "gui-bench.test"};

// This thread's processor time: every step below runs on the interface
// thread, so this is the step's time without the machine's other work.
double CpuMs() {
  timespec t{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

double Ms(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::milli>(to - from).count();
}

[[noreturn]] void Die(const std::string& what) {
  std::fprintf(stderr, "gui_list_bench: %s\n", what.c_str());
  std::exit(1);
}

// Growth of the resident set since `before`, per row.
double BytesPerRow(size_t before, size_t rows) {
  const double growth = static_cast<double>(trv::bench::ResidentBytes()) - static_cast<double>(before);
  return growth / static_cast<double>(std::max<size_t>(rows, 1));
}

// Subjects as a real folder has them: replies, forwards, words in mixed case.
std::string Subject(trv::bench::Random& rnd, int i) {
  static const char* const kPrefixes[] = {"", "", "", "Re: ", "RE: ", "Fwd: ", "Re: Re: "};
  static const char* const kWords[] = {"meeting", "Report", "budget", "the", "server", "Invoice", "draft",
                                       "plans",   "Folder", "sync",   "of",  "weekly", "notes",   "Offline"};
  std::string s = kPrefixes[rnd.Next(7)];
  for (uint32_t n = 2 + rnd.Next(4); n > 0; --n) s += std::string(kWords[rnd.Next(14)]) + " ";
  return s + std::to_string(i);
}

// The data directory with `count` generated messages in "Bench", built when
// it is not there yet (a marker says it is complete).
void BuildData(const fs::path& data_dir, uint32_t count) {
  const fs::path marker = data_dir / "gui_list_bench.ready";
  if (fs::exists(marker)) return;
  fs::remove_all(data_dir);
  const auto start = Clock::now();
  trv::MailEngine* engine = trv::AcquireEngine();
  engine->SetDataDirectoryOverride(data_dir);
  if (engine->Start("gui_list_bench").failed()) Die("engine start: " + engine->start_problem());
  trv::Storage& storage = *engine->storages().front();
  trv::MailFolder* folder = nullptr;
  if (storage.CreateFolder(storage.root(), kFolderName, &folder).failed()) Die("cannot create the folder");
  trv::MessageImporter importer(*folder->file());
  trv::bench::Random rnd;
  for (uint32_t i = 0; i < count; ++i) {
    std::string text = trv::bench::Message(rnd, static_cast<int>(i), kListCorpus);
    const std::string old_subject = "Subject: Message " + std::to_string(i) + "\n";
    text.replace(text.find(old_subject), old_subject.size(), "Subject: " + Subject(rnd, static_cast<int>(i)) + "\n");
    if (importer.Add(text).failed()) Die("import");
  }
  if (importer.Flush().failed() || importer.stored() != count) Die("import");
  trv::ReleaseEngine();
  std::ofstream(marker) << count << "\n";
  std::printf("built %s: %" PRIu32 " messages in %.1f s\n", data_dir.c_str(), count, Ms(start, Clock::now()) / 1000);
}

// Milliseconds on the clock and of this thread's processor time.
struct Timing {
  double wall = 0, cpu = 0;
};

// Handles the viewport's paint events itself, to note when one has ended.
class PaintClock : public QObject {
 public:
  explicit PaintClock(QWidget* viewport) : viewport_(viewport) { viewport->installEventFilter(this); }

  // Runs `action` and the event loop until the viewport has painted (after
  // `settled` holds, when given): the milliseconds from the action's start
  // to that paint's end.
  template <typename Action>
  Timing Measure(Action&& action, std::function<bool()> settled = {}) {
    painted_ = false;
    settled_ = std::move(settled);
    const auto start = Clock::now();
    const double cpu_start = CpuMs();
    action();
    acted_ms_ = Ms(start, Clock::now());
    viewport_->update();  // a paint even when the action changed nothing on the screen
    const auto limit = start + std::chrono::seconds(30);
    while (!painted_ && Clock::now() < limit) QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    if (!painted_) Die("the list did not paint");
    return {Ms(start, painted_at_), painted_cpu_ - cpu_start};
  }

  // The share of the last Measure spent in the action itself.
  double acted_ms() const { return acted_ms_; }

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override {
    if (watched != viewport_ || event->type() != QEvent::Paint || inside_) return false;
    inside_ = true;
    // Through the remaining filters: the view's own paints the rows now.
    QCoreApplication::sendEvent(viewport_, event);
    inside_ = false;
    painted_at_ = Clock::now();
    painted_cpu_ = CpuMs();
    painted_ = !settled_ || settled_();
    return true;
  }

 private:
  QWidget* viewport_;
  bool painted_ = false;
  bool inside_ = false;
  std::function<bool()> settled_;
  double acted_ms_ = 0;
  double painted_cpu_ = 0;
  Clock::time_point painted_at_;
};

struct Figures {
  size_t rows = 0;
  Timing first;                  // index not loaded
  double first_select_ms = 0;    // of which choosing the folder (index read, rows taken)
  std::vector<Timing> again;     // index loaded
  double rss_per_row = 0;
  Timing to_end, to_middle;
  std::vector<double> pages;     // wall
  std::vector<std::pair<const char*, Timing>> sorts;
  Timing mark_read;
  Timing arrival, removal;
};

Figures MeasureWindow(const fs::path& program_dir, const fs::path& data_dir, int rounds) {
  Figures f;
  trv::gui::Session session;
  if (!session.Start({program_dir, data_dir, "gui_list_bench", [](const std::string& text, const std::string&) {
                        Die(text);
                      }})) {
    Die("the window program did not start");
  }
  trv::gui::MainWindow& window = *session.window();
  trv::MailFolder* folder = session.engine()->FindFolder(kFolderPath);
  trv::MailFolder* inbox = session.engine()->storages().front()->SpecialFolder(trv::kFolderInbox);
  if (folder == nullptr || inbox == nullptr) Die("no folder " + trv::WideToUtf8(kFolderName));
  QTableView& list = window.message_list();
  PaintClock clock(list.viewport());
  clock.Measure([] {});  // the window's first paint, Inbox shown

  ::malloc_trim(0);
  const size_t rss_before = trv::bench::ResidentBytes();
  f.first = clock.Measure([&] { window.SelectFolder(folder); });
  f.first_select_ms = clock.acted_ms();
  f.rows = static_cast<size_t>(window.message_model().rowCount());
  f.rss_per_row = BytesPerRow(rss_before, f.rows);
  for (int i = 0; i < rounds; ++i) {
    clock.Measure([&] { window.SelectFolder(inbox); });
    f.again.push_back(clock.Measure([&] { window.SelectFolder(folder); }));
  }
  if (static_cast<size_t>(window.message_model().rowCount()) != f.rows) Die("rows changed");

  f.to_end = clock.Measure([&] { list.scrollToBottom(); });
  f.to_middle = clock.Measure([&] {
    list.scrollTo(window.message_model().index(static_cast<int>(f.rows / 2), 0), QAbstractItemView::PositionAtCenter);
  });
  QScrollBar& bar = *list.verticalScrollBar();
  for (int i = 0; i < 100; ++i) {
    f.pages.push_back(
        clock.Measure([&] { bar.setValue(bar.value() + (i < 50 ? bar.pageStep() : -bar.pageStep())); }).wall);
  }

  using Col = trv::gui::MessageListModel::Column;
  const std::pair<const char*, std::pair<Col, Qt::SortOrder>> kSorts[] = {
      {"subject, ascending", {Col::kSubject, Qt::AscendingOrder}},
      {"subject, descending", {Col::kSubject, Qt::DescendingOrder}},
      {"date, ascending", {Col::kDate, Qt::AscendingOrder}},
      {"sender, ascending", {Col::kFrom, Qt::AscendingOrder}},
      {"size, ascending", {Col::kSize, Qt::AscendingOrder}}};
  for (const auto& [name, how] : kSorts) {
    f.sorts.push_back({name, clock.Measure([&] { list.sortByColumn(how.first, how.second); })});
  }

  // A message marked read (or unread: the data directory keeps the last
  // run's mark) elsewhere, another window or a run: the list, sorted by
  // subject, shows it.
  list.sortByColumn(Col::kSubject, Qt::AscendingOrder);
  trv::gui::MessageListModel& model = window.message_model();
  const uint32_t key = model.RecordAt(0)->key;
  const bool read = !model.RecordAt(0)->is_read();
  f.mark_read = clock.Measure(
      [&] {
        if (folder->file()->SetFlags(key, read ? trv::msgflag::kRead : 0, read ? 0 : trv::msgflag::kRead).failed()) {
          Die("mark");
        }
      },
      [&] { return model.RecordAt(0)->is_read() == read; });
  // A message arriving, and then deleted, in the same sorted list.
  trv::bench::Random arrival_rnd;
  const std::string text = trv::bench::Message(arrival_rnd, static_cast<int>(f.rows), kListCorpus);
  uint32_t arrived = 0;
  f.arrival = clock.Measure(
      [&] {
        if (folder->file()->Append(trv::RecordFromMessage(text), text, &arrived).failed()) Die("append");
      },
      [&] { return static_cast<size_t>(model.rowCount()) == f.rows + 1; });
  f.removal = clock.Measure([&] { if (folder->file()->Delete({arrived}).failed()) Die("delete"); },
                            [&] { return static_cast<size_t>(model.rowCount()) == f.rows; });
  return f;
}

struct CliFigures {
  size_t rows = 0;
  Timing json, text;
  double rss_per_row = 0;
};

// What `trvmail-cli list` does once its engine has started: the index read
// and the rows formatted, as JSON and as the text table.
CliFigures MeasureCli(const fs::path& data_dir) {
  CliFigures c;
  trv::MailEngine* engine = trv::AcquireEngine();
  engine->SetDataDirectoryOverride(data_dir);
  if (engine->Start("gui_list_bench").failed()) Die("engine start: " + engine->start_problem());
  trv::MailFolder* folder = engine->FindFolder(kFolderPath);
  if (folder == nullptr || folder->file() == nullptr) Die("no folder");
  trv::FolderFile& file = *folder->file();
  ::malloc_trim(0);
  const size_t rss_before = trv::bench::ResidentBytes();
  auto start = Clock::now();
  double cpu_start = CpuMs();
  if (file.LoadIndex().failed()) Die("index read");
  size_t bytes = 0;
  trv::cli::WriteListingJson(file, [&bytes](std::string_view piece) { bytes += piece.size(); });
  c.json = {Ms(start, Clock::now()), CpuMs() - cpu_start};
  c.rows = file.MessageCount();
  c.rss_per_row = BytesPerRow(rss_before, c.rows);
  start = Clock::now();
  cpu_start = CpuMs();
  bytes += trv::cli::ListingText(file.Messages()).size();
  c.text = {Ms(start, Clock::now()), CpuMs() - cpu_start};
  if (bytes < c.rows) Die("listing");
  trv::ReleaseEngine();
  return c;
}

}  // namespace

int main(int argc, char** argv) {
  uint32_t count = 100000;
  int rounds = 5;
  fs::path base = fs::temp_directory_path();
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--count" && i + 1 < argc) count = static_cast<uint32_t>(std::stoul(argv[++i]));
    else if (a == "--dir" && i + 1 < argc) base = argv[++i];
    else if (a == "--rounds" && i + 1 < argc) rounds = std::max(1, std::stoi(argv[++i]));
    else {
      std::fprintf(stderr, "usage: gui_list_bench [--count N] [--dir DIR] [--rounds R]\n");
      return 2;
    }
  }
  const fs::path work = base / ("gui-list-bench-" + std::to_string(count));
  // The window keeps its options under the home directory: a fresh one per run.
  const fs::path home = work / "home";
  fs::remove_all(home);
  fs::create_directories(home);
  fs::permissions(home, fs::perms::owner_all);
  for (const char* var : {"HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_RUNTIME_DIR"}) {
    ::setenv(var, home.c_str(), 1);
  }
  ::setenv("QT_QPA_PLATFORM", "offscreen", 0);
  BuildData(work / "data", count);

  QApplication app(argc, argv);
  const Figures f = MeasureWindow(TRVMAIL_DIR, work / "data", rounds);
  const CliFigures c = MeasureCli(work / "data");
  if (f.rows != count || c.rows != count) Die("listed " + std::to_string(f.rows) + " and " + std::to_string(c.rows));

  const auto row = [](const std::string& step, Timing ours, Timing peer = {}) {
    std::printf("%-50s %8.1f %8.1f", step.c_str(), ours.wall, ours.cpu);
    if (peer.wall > 0) std::printf(" %8.1f %8.1f %6.2f", peer.wall, peer.cpu, ours.cpu / peer.cpu);
    std::printf("\n");
  };
  const auto median = [](const std::vector<Timing>& v) {
    std::vector<double> wall, cpu;
    for (const Timing& t : v) wall.push_back(t.wall), cpu.push_back(t.cpu);
    return Timing{trv::bench::Median(wall), trv::bench::Median(cpu)};
  };
  std::printf("\nmessage list of %zu messages (offscreen, %d rounds); milliseconds, wall and cpu\n", f.rows, rounds);
  std::printf("%-50s %17s %17s %6s\n", "step", "window", "cli code", "cpu ratio");
  row("choose folder -> first paint, index not loaded", f.first, c.json);
  std::printf("%-50s %8.1f\n", "  of which the choice (index read, rows taken)", f.first_select_ms);
  std::printf("%-50s %17s %8.1f %8.1f\n", "  cli code: text table of the loaded index", "", c.text.wall, c.text.cpu);
  row("choose folder -> first paint, index loaded (median)", median(f.again));
  row("scroll to the end -> paint", f.to_end);
  row("scroll to the middle -> paint", f.to_middle);
  std::printf("%-50s %8.1f (worst %.1f)\n", "page down/up, 100 pages, median", trv::bench::Median(f.pages),
              *std::max_element(f.pages.begin(), f.pages.end()));
  for (const auto& [name, t] : f.sorts) row("sort by " + std::string(name) + " -> paint", t);
  row("a message marked read or unread elsewhere -> paint", f.mark_read);
  row("a message arriving -> paint", f.arrival);
  row("that message deleted -> paint", f.removal);
  std::printf("%-50s %8.0f %17.0f %6.2f\n", "resident memory per listed message (bytes)", f.rss_per_row, c.rss_per_row,
              f.rss_per_row / c.rss_per_row);
  std::printf("\ncli code: what `trvmail-cli --json list` does after its engine start (index read, JSON of\n"
              "every row); its memory is the folder file's index alone. The window's holds the index too.\n");
  return 0;
}
