// The commands of trvmail-cli, one group per file. Each has a validator,
// called before the engine starts (a false result is a usage error with
// `*error` saying why), and a runner that returns the exit status.
#pragma once

#include <string>

#include "app/cli/args.h"
#include "app/cli/cli.h"

namespace trv::cli {

using Validator = bool (*)(const ParsedArgs& args, std::string* error);
using Runner = int (*)(CliContext& ctx, const ParsedArgs& args);

struct Command {
  const char* name;
  const char* usage;    // the arguments, for the usage text
  const char* summary;  // one line
  size_t min_args;      // positional arguments
  size_t max_args;
  ArgOptions accepted;         // the command's own options
  Validator validate;   // may be null
  Runner run;
  bool json = false;    // has a --json form
  const char* details = nullptr;  // more lines for the command's own --help
  // SIGINT and SIGTERM are blocked in every thread from before the engine
  // starts; the command takes them with sigtimedwait (cmd_sync.cpp).
  bool takes_stop_signals = false;
};

// Every command, in the order of the usage text.
const std::vector<Command>& Commands();

// The folder of positional argument 0 (with its index loaded) and the keys
// of positional arguments `first` up to, not including, `end`: each must
// name a message there. On failure says so and sets `*status`.
struct Selection {
  MailFolder* folder = nullptr;
  FolderFile* file = nullptr;
  std::vector<uint32_t> keys;
};
bool SelectMessages(CliContext& ctx, const ParsedArgs& args, size_t first, size_t end, Selection* selection,
                    int* status);
// ParseKeys of positional arguments `first` up to `end`.
bool ValidateKeys(const ParsedArgs& args, size_t first, size_t end, std::string* error);

// cmd_folders.cpp
int RunStorages(CliContext& ctx, const ParsedArgs& args);
int RunFolders(CliContext& ctx, const ParsedArgs& args);
int RunMkdir(CliContext& ctx, const ParsedArgs& args);
int RunRename(CliContext& ctx, const ParsedArgs& args);
int RunRmdir(CliContext& ctx, const ParsedArgs& args);

// cmd_check.cpp
int RunCheck(CliContext& ctx, const ParsedArgs& args);

// cmd_messages.cpp
bool ValidateShow(const ParsedArgs& args, std::string* error);
bool ValidateRemove(const ParsedArgs& args, std::string* error);  // rm
bool ValidateMove(const ParsedArgs& args, std::string* error);
bool ValidateMark(const ParsedArgs& args, std::string* error);
int RunList(CliContext& ctx, const ParsedArgs& args);
int RunShow(CliContext& ctx, const ParsedArgs& args);
int RunRemove(CliContext& ctx, const ParsedArgs& args);
int RunMove(CliContext& ctx, const ParsedArgs& args);
int RunMark(CliContext& ctx, const ParsedArgs& args);

// cmd_search.cpp
int RunSearch(CliContext& ctx, const ParsedArgs& args);

// cmd_import.cpp
int RunImport(CliContext& ctx, const ParsedArgs& args);

// cmd_export.cpp
bool ValidateExport(const ParsedArgs& args, std::string* error);
int RunExport(CliContext& ctx, const ParsedArgs& args);

// cmd_accept_cert.cpp
bool ValidateAcceptCert(const ParsedArgs& args, std::string* error);
int RunAcceptCert(CliContext& ctx, const ParsedArgs& args);

// cmd_account.cpp
bool ValidateAccount(const ParsedArgs& args, std::string* error);
ArgOptions AccountOptions();
int RunAccount(CliContext& ctx, const ParsedArgs& args);

// cmd_folder_sync.cpp
bool ValidateFolderSync(const ParsedArgs& args, std::string* error);
int RunFolderSync(CliContext& ctx, const ParsedArgs& args);
// "Download, Upload" for the imap4sync bits; "none" for 0.
std::string FolderOptionsText(uint32_t sync);

// cmd_compose.cpp
bool ValidateCompose(const ParsedArgs& args, std::string* error);
int RunCompose(CliContext& ctx, const ParsedArgs& args);

// cmd_sync.cpp
void BlockStopSignals();
bool ValidateSync(const ParsedArgs& args, std::string* error);
int RunSync(CliContext& ctx, const ParsedArgs& args);
int RunWatch(CliContext& ctx, const ParsedArgs& args);
// fetch PATH KEY...: the rest of partially loaded messages, at the next sync.
int RunFetch(CliContext& ctx, const ParsedArgs& args);

// cmd_log.cpp
bool ValidateLog(const ParsedArgs& args, std::string* error);
int RunLog(CliContext& ctx, const ParsedArgs& args);

}  // namespace trv::cli
