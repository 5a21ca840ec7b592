// check PATH: checks and repairs a folder file and says what it found.
// check PATH --recreate: a folder whose file is missing gets a new empty one
// (what the window program offers at the load); otherwise as without it.
//
// The folder's own file object is closed for the check; a second one, whose
// log lines are watched on their way to the activity log, opens the file,
// reads its index as any load would (a load that meets damage repairs once)
// and then asks for the full check and repair (container consistency, or a
// salvage into a new file with the damaged one kept beside it, and the
// index rebuilt from its records and the message streams). Then the folder's
// file is opened again.
#include <algorithm>
#include <set>

#include "app/cli/commands.h"
#include "base/file_io.h"

namespace trv::cli {

namespace {

// Passes lines on to another log and keeps them.
class WatchedLog final : public LogSink {
 public:
  explicit WatchedLog(LogSink& next) : next_(next) {}
  void Log(std::string_view text, int level) override {
    lines_.emplace_back(text);
    next_.Log(text, level);
  }
  // The first line holding `part`; empty when none does.
  std::string Find(std::string_view part) const {
    for (const std::string& line : lines_) {
      if (line.find(part) != std::string::npos) return line;
    }
    return {};
  }

 private:
  LogSink& next_;
  std::vector<std::string> lines_;
};

// The copies of damaged files kept beside the folder file.
std::set<std::filesystem::path> DamagedCopies(const std::filesystem::path& file) {
  std::set<std::filesystem::path> found;
  const std::string prefix = file.filename().string() + ".damaged";
  for (const std::string& name : ListRegularFiles(file.parent_path())) {
    if (name.starts_with(prefix)) found.insert(file.parent_path() / name);
  }
  return found;
}

std::set<uint32_t> Keys(const FolderFile& file) {
  std::set<uint32_t> keys;
  for (const MessageRecord& r : file.Messages()) keys.insert(r.key);
  return keys;
}

size_t CountMissing(const std::set<uint32_t>& of, const std::set<uint32_t>& in) {
  return static_cast<size_t>(std::count_if(of.begin(), of.end(), [&](uint32_t k) { return !in.count(k); }));
}

}  // namespace

int RunCheck(CliContext& ctx, const ParsedArgs& args) {
  int status = kExitOk;
  MailFolder* folder = FindFolderOrFail(ctx, args.positional[0], &status);
  if (folder == nullptr) return status;
  if (!folder->is_root() && !folder->available()) {
    const std::string what = FolderPathText(*folder);
    if (!args.has("--recreate")) {
      std::string hint = "--recreate makes a new empty one";
      if (!folder->is_special()) hint += ", \"rmdir --force\" removes the folder";
      return Fail(ctx, "folder \"" + what + "\" has no folder file (" + Utf8(folder->file_name()) + "); " + hint,
                  rc::kFileMissing);
    }
    if (Result r = folder->storage().RecreateMissingFolderFile(folder); r.failed()) {
      return Fail(ctx, "cannot make a new folder file for \"" + what + "\"", r);
    }
    WriteOut(ctx, "made a new empty folder file for " + what + " (" + folder->file()->path().string() + ")\n");
    return kExitOk;
  }
  FolderFile* file = FolderFileOrFail(ctx, *folder, &status);
  if (file == nullptr) return status;
  const std::string what = FolderPathText(*folder);
  const std::filesystem::path path = file->path();
  const FolderCounts counted = file->counts();
  const std::set<std::filesystem::path> copies_before = DamagedCopies(path);
  file->Close();

  WatchedLog log(ctx.engine->activity_log());
  std::set<uint32_t> keys_read, keys_after;
  FolderCounts counts_after;
  bool read_whole = false;
  Result r;
  {
    FolderFile checker(log, ctx.engine->FolderFileSettings());
    r = checker.Open(path);
    if (r.ok()) r = checker.LoadIndex();
    read_whole = r.ok() && log.Find("Trying to repair").empty();
    if (read_whole) keys_read = Keys(checker);
    if (r.ok()) r = checker.CheckAndRepairFile();
    keys_after = Keys(checker);
    counts_after = checker.counts();
  }
  const Result reopened = file->Open(path);

  std::vector<std::filesystem::path> new_copies;
  for (const auto& p : DamagedCopies(path)) {
    if (!copies_before.count(p)) new_copies.push_back(p);
  }
  std::string out = "checked " + what + " (" + path.string() + ")\n";
  if (!new_copies.empty()) {
    out += "  container: damaged; what could be read was saved into a new file, the damaged one is kept as " +
           new_copies.front().string() + "\n";
  } else {
    out += "  container: sound\n";
  }
  if (const std::string line = log.Find("Trying to repair"); !line.empty()) {
    out += "  index: could not be read (" + line + "); rebuilt from its records and the message streams\n";
  } else if (r.ok()) {
    out += "  index: sound\n";
  }
  if (r.ok()) {
    if (read_whole) {
      const size_t added = CountMissing(keys_after, keys_read);
      const size_t dropped = CountMissing(keys_read, keys_after);
      if (added > 0) out += "  records made for message streams the index had lost: " + std::to_string(added) + "\n";
      if (dropped > 0) out += "  records whose message stream is gone: " + std::to_string(dropped) + "\n";
    }
    out += "  messages: " + std::to_string(counts_after.messages) + ", unread: " + std::to_string(counts_after.unread);
    if (counted != counts_after) {
      out += " (the stored counts said " + std::to_string(counted.messages) + " and " +
             std::to_string(counted.unread) + "; corrected)";
    }
    out += "\n";
  }
  WriteOut(ctx, out);
  if (r.failed()) return Fail(ctx, "cannot repair folder file " + path.string() + " of \"" + what + "\"", r);
  if (reopened.failed()) return Fail(ctx, "cannot open folder file " + path.string() + " after the check", reopened);
  return kExitOk;
}

}  // namespace trv::cli
