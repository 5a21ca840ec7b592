#include "app/gui/desktop_integration.h"

#include <QProcess>
#include <QStringList>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <system_error>

#include "base/file_io.h"

namespace trv::gui {

namespace {

std::filesystem::path ConfigDir() {
  const char* xdg = std::getenv("XDG_CONFIG_HOME");
  if (xdg != nullptr && *xdg == '/') return xdg;
  const char* home = std::getenv("HOME");
  return std::filesystem::path(home != nullptr ? home : "") / ".config";
}

// The line without our entry in its list of desktop files; `changed` tells
// whether it had one. Lines that are not "key=a;b;" come back as they are.
std::string WithoutOurs(const std::string& line, bool* changed) {
  const size_t eq = line.find('=');
  if (eq == std::string::npos || line.empty() || line[0] == '[' || line[0] == '#') return line;
  std::string kept;
  bool ours = false;
  std::stringstream list(line.substr(eq + 1));
  for (std::string entry; std::getline(list, entry, ';');) {
    if (entry == DesktopIntegration::kDesktopFile) {
      ours = true;
    } else if (!entry.empty()) {
      kept += entry + ";";
    }
  }
  if (!ours) return line;
  *changed = true;
  return kept.empty() ? std::string() : line.substr(0, eq + 1) + kept;
}

}  // namespace

DesktopIntegration::DesktopIntegration(std::string program, std::filesystem::path config_dir)
    : program_(std::move(program)), mimeapps_((config_dir.empty() ? ConfigDir() : config_dir) / "mimeapps.list") {}

Result DesktopIntegration::Run(const std::vector<std::string>& args, std::string* out) {
  QStringList list;
  for (const std::string& arg : args) list << QString::fromStdString(arg);
  QProcess process;
  process.start(QString::fromStdString(program_), list);
  subject_ = program_;
  if (!process.waitForStarted(static_cast<int>(std::chrono::milliseconds(kProgramWait).count()))) {
    problem_ = Problem::kProgramMissing;
    return rc::kFail;
  }
  const bool ended = process.waitForFinished(static_cast<int>(std::chrono::milliseconds(kProgramWait).count()));
  if (!ended) process.kill();
  exit_code_ = ended && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
  if (exit_code_ != 0) {
    problem_ = Problem::kProgramFailed;
    return rc::kFail;
  }
  if (out != nullptr) *out = process.readAllStandardOutput().trimmed().toStdString();
  return rc::kOk;
}

bool DesktopIntegration::IsIntegrated() {
  problem_ = Problem::kNone;
  for (const char* type : kMimeTypes) {
    std::string answer;
    if (Run({"query", "default", type}, &answer).failed() || answer != kDesktopFile) return false;
  }
  return true;
}

Result DesktopIntegration::Integrate() {
  problem_ = Problem::kNone;
  for (const char* type : kMimeTypes) {
    if (Result r = Run({"default", kDesktopFile, type}, nullptr); r.failed()) return r;
  }
  return rc::kOk;
}

Result DesktopIntegration::Desintegrate() {
  problem_ = Problem::kNone;
  subject_ = mimeapps_.string();
  std::string text;
  if (Result r = ReadWholeFile(mimeapps_, &text); r.failed()) {
    if (!std::filesystem::exists(mimeapps_)) return rc::kOk;  // nothing was ever set
    problem_ = Problem::kFileFailed;
    return r;
  }
  bool changed = false;
  std::string kept;
  std::stringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const std::string left = WithoutOurs(line, &changed);
    if (!left.empty() || line.empty()) kept += left + "\n";
  }
  if (!changed) return rc::kOk;
  // A new file beside the old one, renamed over it: a failure leaves the old.
  const std::filesystem::path temp = mimeapps_.string() + ".trvmail";
  std::error_code ec;
  const auto mode = std::filesystem::status(mimeapps_, ec).permissions();
  Result r = rc::kOk;
  {
    std::ofstream out(temp, std::ios::binary | std::ios::trunc);
    out << kept;
    out.close();
    if (!out) r = ResultFromErrno(errno != 0 ? errno : EIO);
  }
  if (r.ok()) std::filesystem::permissions(temp, mode, ec);
  if (r.ok() && std::rename(temp.c_str(), mimeapps_.c_str()) != 0) r = ResultFromErrno(errno);
  if (r.failed()) {
    std::filesystem::remove(temp, ec);
    problem_ = Problem::kFileFailed;
  }
  return r;
}

}  // namespace trv::gui
