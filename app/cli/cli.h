// trvmail-cli: the command-line front end over the mail engine.
//
//   trvmail-cli [--data-dir DIR] [--json] COMMAND [ARGS...]
//
// A run resolves the data directory, takes the single-instance lock for it
// (waiting up to kLockWait for another process to let go), starts the engine
// as the mail program does, runs one command and shuts the engine down.
// Exit status: kExitOk, kExitFailed (standard error names what failed, the
// code in hex and its text), kExitUsage (the command line is wrong, --json
// given to a command without a JSON form; usage on standard error). "-h",
// "--help" (alone or after a command) and "--version" print to standard
// output and exit kExitOk without starting the engine. A --data-dir that does
// not exist is announced on standard error before the engine creates it.
#pragma once

#include <chrono>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "core/engine.h"
#include "base/result.h"
#include "store/mail_folder.h"

namespace trv::cli {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;
inline constexpr const char* kProgramName = "trvmail-cli";
inline constexpr std::chrono::milliseconds kLockWait{5000};

// What a command works with.
struct CliContext {
  MailEngine* engine = nullptr;
  bool json = false;
  std::FILE* out = stdout;
  std::FILE* err = stderr;
  // Progress lines go to standard error only when it is a terminal.
  bool progress = false;
};

// Runs one command line (argv without the program name); the exit status.
int RunCli(const std::vector<std::string>& args);

// The command line as the start-up line of the activity log shows it: the
// values of options whose name holds "password" are masked ("********").
std::string LoggedCommandLine(const std::vector<std::string>& args);

// Error output, each line starting "trvmail-cli: ". These return the exit
// status to pass on.
//   "<what>: 0x80070057 The parameter is incorrect."
int Fail(CliContext& ctx, const std::string& what, Result r);
void Warn(CliContext& ctx, const std::string& text);

// Writes bytes to standard output as they are.
void WriteOut(CliContext& ctx, std::string_view bytes);

// A folder by its path ("Storage name/A/B", a trailing "/" ignored). On
// failure says so and returns null; `*status` is then the exit status.
MailFolder* FindFolderOrFail(CliContext& ctx, const std::string& path, int* status);
// The folder's open file; null (with the message) when the folder is the
// root of a storage or its file is unavailable.
FolderFile* FolderFileOrFail(CliContext& ctx, MailFolder& folder, int* status);
// Both: the folder of `path` in `*folder` and its open file.
FolderFile* FolderFileOrFail(CliContext& ctx, const std::string& path, MailFolder** folder, int* status);

// "%.8X" of a key, and its reading: one to eight hexadecimal digits, not 0.
std::string KeyText(uint32_t key);
bool ParseKey(std::string_view text, uint32_t* key);
// Keys given as arguments: each must read (ParseKey); false with the
// offending text in *error. Repeated keys are kept once, in order.
bool ParseKeys(const std::vector<std::string>& texts, std::vector<uint32_t>* keys, std::string* error);

// "1 message", "2 messages".
std::string MessageCount(uint64_t n);

// UTF-8 forms of engine text.
std::string Utf8(WStringView text);
std::string FolderPathText(const MailFolder& folder);

// Repeated progress on one line of standard error (when enabled), at most
// every tenth of a second; Finish ends the line.
class ProgressLine {
 public:
  explicit ProgressLine(CliContext& ctx) : ctx_(ctx) {}
  ~ProgressLine() { Finish(); }
  void Update(const std::string& text, bool force = false);
  void Finish();

 private:
  CliContext& ctx_;
  std::chrono::steady_clock::time_point last_{};
  size_t shown_ = 0;
};

}  // namespace trv::cli
