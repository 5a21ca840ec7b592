// log [--tail N]: the activity log of the data directory, the rotated-out
// part (TarvoMail.bak) first, line ends made "\n". The log holds this run's
// own start-up line too.
#include <charconv>

#include "app/cli/commands.h"
#include "base/file_io.h"
#include "core/activity_log.h"

namespace trv::cli {

namespace {

bool ReadCount(const std::string& text, size_t* n) {
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), *n);
  return ec == std::errc() && end == text.data() + text.size();
}

}  // namespace

bool ValidateLog(const ParsedArgs& args, std::string* error) {
  size_t n = 0;
  if (args.has("--tail") && !ReadCount(args.value("--tail"), &n)) *error = "--tail takes a number of lines";
  return error->empty();
}

int RunLog(CliContext& ctx, const ParsedArgs& args) {
  const std::filesystem::path dir = ctx.engine->data_directory();
  std::string bytes;
  // The older part is there only after the log grew past its bound once.
  if (const std::filesystem::path bak = dir / ActivityLog::kBackupName; ReadWholeFile(bak, &bytes).failed()) {
    bytes.clear();
  }
  std::string current;
  const std::filesystem::path path = dir / ActivityLog::kFileName;
  if (Result r = ReadWholeFile(path, &current); r.failed()) return Fail(ctx, "cannot read " + path.string(), r);
  if (!bytes.empty() && bytes.back() != '\n') bytes += '\n';
  bytes += current;
  std::vector<std::string_view> lines;
  for (std::string_view rest = bytes; !rest.empty();) {
    const size_t lf = rest.find('\n');
    std::string_view line = rest.substr(0, lf);
    rest = lf == std::string_view::npos ? std::string_view() : rest.substr(lf + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    lines.push_back(line);
  }
  size_t first = 0;
  size_t tail = 0;
  if (args.has("--tail") && ReadCount(args.value("--tail"), &tail) && tail < lines.size()) first = lines.size() - tail;
  std::string out;
  for (size_t i = first; i < lines.size(); ++i) (out += lines[i]) += '\n';
  WriteOut(ctx, out);
  return kExitOk;
}

}  // namespace trv::cli
