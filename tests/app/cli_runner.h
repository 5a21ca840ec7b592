// Runs the built trvmail-cli as a child process in a sandbox of its own:
// HOME, XDG_CONFIG_HOME, XDG_DATA_HOME and XDG_RUNTIME_DIR point into a
// temporary directory and TZ is UTC, so runs never touch the user's files
// and print the same dates everywhere.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/app/json_value.h"
#include "tests/support/temp_dir.h"

namespace trv::test {

inline bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

struct CliRun {
  int status = -1;  // exit status; -1 when killed by a signal or not started
  std::string out;
  std::string err;
};

// A test with a sandbox of its own.
class CliTestBase : public ::testing::Test {
 protected:
  CliTestBase();

  const std::filesystem::path& root() const { return dir_.path(); }
  // Where the program keeps its data without --data-dir.
  std::filesystem::path data_dir() const { return root() / "data/TarvoMail"; }

  // Runs to the end with `input` on standard input.
  CliRun Run(const std::vector<std::string>& args, const std::string& input = "");
  // Runs and expects exit status 0.
  CliRun Ok(const std::vector<std::string>& args, const std::string& input = "") {
    CliRun run = Run(args, input);
    EXPECT_EQ(run.status, 0) << run.err;
    return run;
  }
  JsonList List(const std::string& folder) { return Json(Ok({"--json", "list", folder}).out); }

  // Starts a run whose standard input is a pipe; `*input` is its write end,
  // for the caller to close. With `terminal`, standard input and standard
  // error are a pseudo-terminal instead and `*input` its controlling side
  // (read the prompts from it, write the answers). Returns -1 when no
  // process could be started.
  pid_t Start(const std::vector<std::string>& args, int* input, bool terminal = false);
  // Waits for a started run.
  CliRun Wait(pid_t pid);
  // Sets the sandbox's environment in the test process too (for code that
  // must find the same lock files).
  void Enter();

 private:
  std::vector<std::string> Environment() const;
  std::string OutPath(pid_t pid, const char* which) const;

  TempDir dir_;
};

}  // namespace trv::test
