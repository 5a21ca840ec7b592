// The desktop's association of mailto: links and message files with this
// program: the desktop entry "trvmail.desktop" (installed beside the other
// applications' entries) made the default for x-scheme-handler/mailto and
// message/rfc822 through `xdg-mime default`, asked with `xdg-mime query
// default`, and undone by removing the entry from the user's mimeapps.list
// (${XDG_CONFIG_HOME:-~/.config}/mimeapps.list; xdg-mime cannot unset a
// default).
//
// The program that sets and asks is a parameter, so that tests run a script
// of their own. Its run blocks the caller for as long as it takes (a few
// milliseconds; at most kProgramWait). Interface thread (QProcess).
#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "base/result.h"

namespace trv::gui {

class DesktopIntegration {
 public:
  static constexpr const char* kDesktopFile = "trvmail.desktop";
  static constexpr const char* kMimeTypes[] = {"x-scheme-handler/mailto", "message/rfc822"};
  static constexpr std::chrono::seconds kProgramWait{10};

  // What went wrong, for the caller's message.
  enum class Problem {
    kNone,
    kProgramMissing,  // subject(): the program that could not be started
    kProgramFailed,   // subject(): the program; exit_code()
    kFileFailed,      // subject(): the mimeapps.list path; the result names the cause
  };

  // `config_dir` empty: ${XDG_CONFIG_HOME:-$HOME/.config}.
  explicit DesktopIntegration(std::string program = "xdg-mime", std::filesystem::path config_dir = {});

  // Whether the program answers kDesktopFile for every type; false also
  // when it cannot be asked (problem() says why).
  bool IsIntegrated();
  // `program default trvmail.desktop TYPE` for each type. rc::kFail with
  // problem() set when the program is missing or fails.
  Result Integrate();
  // Removes trvmail.desktop from every association of the user's
  // mimeapps.list (lines left empty are dropped), writing the file only when
  // it changes; a missing file is 0. Needs no program.
  Result Desintegrate();

  Problem problem() const { return problem_; }
  const std::string& subject() const { return subject_; }
  int exit_code() const { return exit_code_; }
  const std::filesystem::path& mimeapps_path() const { return mimeapps_; }

 private:
  // Runs the program; its standard output in *out (may be null).
  Result Run(const std::vector<std::string>& args, std::string* out);

  std::string program_;
  std::filesystem::path mimeapps_;
  Problem problem_ = Problem::kNone;
  std::string subject_;
  int exit_code_ = 0;
};

}  // namespace trv::gui
