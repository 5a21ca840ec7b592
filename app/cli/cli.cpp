#include "app/cli/cli.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <utility>

#include "app/cli/cli_result.h"
#include "app/cli/commands.h"
#include "base/hex_digits.h"
#include "core/instance_lock.h"
#include "services/service_registry.h"

namespace trv::cli {

namespace {

constexpr size_t kMany = std::numeric_limits<size_t>::max();
// InstanceLock::Acquire's answer when another process holds the lock.
constexpr Result kLockHeld = FromWin32(32);

constexpr const char* kAccountDetails =
    "  account add --class POP3|IMAP4 --name NAME --email ADDR --host HOST [--port N]\n"
    "      [--user U] [--password-stdin] [--ssl none|implicit|explicit]\n"
    "      [--smtp-host HOST] [--smtp-port N] [--smtp-ssl none|implicit|explicit]\n"
    "      [--smtp-auth none|after-incoming|same|credentials] [--smtp-user U] [--smtp-password-stdin]\n"
    "      [--socks 4|4a|5 --socks-host H --socks-port N [--socks-user U --socks-password-stdin]]\n"
    "  account list | account show NAME\n"
    "  account set NAME [KEY=VALUE...] [--password-stdin] [--smtp-password-stdin]\n"
    "  account remove NAME [--delete-storage]\n"
    "Passwords are never arguments: --password-stdin reads the incoming password from the first\n"
    "line of standard input, --smtp-password-stdin the SMTP password from the next line; without\n"
    "them, sync asks on the terminal. Ports not given follow the SSL mode (SMTP 25/465, POP3\n"
    "110/995, IMAP4 143/993); the SMTP host and SSL mode default to the incoming ones; the SOCKS\n"
    "proxy serves both. set takes the settings file's key names as account show lists them.\n";
constexpr const char* kComposeUsage =
    "--account NAME --to ADDR... [--cc ADDR...] [--bcc ADDR...] --subject TEXT [--body-file F] "
    "[--html-file F] [--inline F...] [--attach F...] [--priority low|normal|high] [--draft]";
constexpr const char* kComposeDetails =
    "Address and file options may be repeated; an address option may hold a list (\"a@x, b@y\").\n"
    "Without --body-file or --html-file the plain text body is read from standard input.\n";
constexpr const char* kSyncDetails =
    "Without names, every account with Synchronize=1. A user name and password the server needs\n"
    "are asked on the terminal (the password without echo); without a terminal such a run fails.\n"
    "SIGINT stops the runs after the current command, a second one aborts them.\n";

constexpr const char* kFolderSyncDetails =
    "PATH is the mailbox's server path as account show lists it, or its local folder's path in\n"
    "the account's storage. The folders are known after the account's first sync. new takes only\n"
    "messages that arrived since the last sync and goes with download.\n";

std::string UsageText() {
  std::string text = "usage: trvmail-cli [--data-dir DIR] [--json] COMMAND [ARGS...]\n\ncommands:\n";
  for (const Command& c : Commands()) {
    std::string line = std::string("  ") + c.name + (*c.usage ? " " : "") + c.usage;
    if (line.size() < 48) line.resize(48, ' ');
    else line += "\n" + std::string(48, ' ');
    text += line + c.summary + "\n";
  }
  return text +
         "\noptions:\n"
         "  --data-dir DIR    the data directory for this run (created when missing, said first)\n"
         "  --json            JSON output of storages, folders and list\n"
         "  -h, --help        this text; after a command, that command's usage\n"
         "  --version         the program's version\n";
}

std::string CommandUsage(const Command& command) {
  return std::string("usage: trvmail-cli [--data-dir DIR]") + (command.json ? " [--json] " : " ") + command.name +
         (*command.usage ? " " : "") + command.usage + "\n  " + command.summary + "\n" +
         (command.details != nullptr ? command.details : "");
}

int UsageError(const std::string& problem, const Command* command) {
  std::fprintf(stderr, "%s: %s\n", kProgramName, problem.c_str());
  std::fputs(command != nullptr ? CommandUsage(*command).c_str() : UsageText().c_str(), stderr);
  return kExitUsage;
}

bool IsHelp(const std::string& arg) { return arg == "-h" || arg == "--help"; }

// Says on standard error that a data directory named on the command line
// does not exist and will be created, so that a mistyped path does not pass
// unnoticed.
void AnnounceNewDataDirectory(const std::string& dir) {
  std::error_code ec;
  if (std::filesystem::exists(dir, ec) || ec) return;
  std::fprintf(stderr, "%s: the data directory %s does not exist; creating it\n", kProgramName, dir.c_str());
}

// The engine's progress callback: a run without a person to ask leaves a
// folder whose file is missing unopened (it is found again when its medium
// is back; WarnUnavailableFolders says what can be done) and goes on after
// load errors, saying so.
int AnswerStorageEvent(CliContext& ctx, const StorageEvent& event, bool* skipped_missing) {
  const std::string where = Utf8(event.storage_name) + (event.folder_name.empty() ? "" : "/" + Utf8(event.folder_name));
  switch (event.code) {
    case kEventFolderFileNotFound:
      *skipped_missing = true;
      return kAnswerSkip;
    case kEventStorageLoadingError:
      Warn(ctx, "storage index " + event.path.string() + " could not be opened: " + ResultHex(event.error) + " " +
                    ResultText(event.error) + (event.detail.empty() ? "" : " (" + event.detail + ")"));
      return kAnswerDefault;
    case kEventFolderLoadingError:
      // The skipped folder's own report: said once, below.
      if (std::exchange(*skipped_missing, false) && event.error == rc::kFileNotFound) return kAnswerDefault;
      Warn(ctx, "folder \"" + where + "\" could not be loaded: " + ResultHex(event.error) + " " +
                    ResultText(event.error));
      return kAnswerDefault;
    default:
      return kAnswerDefault;
  }
}

// One line for each folder whose file was not found, with what can be done.
void WarnUnavailableFolders(CliContext& ctx) {
  for (Storage* s : ctx.engine->storages()) {
    if (!s->is_open()) continue;
    s->ForEachFolder([&](MailFolder& f) {
      if (f.available()) return;
      const std::string path = FolderPathText(f);
      std::string text = "folder \"" + path + "\" has no folder file (" + Utf8(f.file_name()) +
                         "); \"check --recreate '" + path + "'\" makes a new empty one";
      if (!f.is_special()) text += ", \"rmdir --force '" + path + "'\" removes the folder";
      Warn(ctx, text);
    });
  }
}

// Engine and lock for one command; shut down in order.
int RunWithEngine(const Command& command, const ParsedArgs& parsed, const std::string& data_dir, bool json,
                  const std::vector<std::string>& all_args) {
  if (command.takes_stop_signals) BlockStopSignals();
  CliContext ctx;
  ctx.json = json;
  ctx.progress = ::isatty(STDERR_FILENO) == 1;
  MailEngine* engine = AcquireEngine();
  if (engine == nullptr) return Fail(ctx, "cannot start the mail engine", rc::kOutOfMemory);
  if (!data_dir.empty()) engine->SetDataDirectoryOverride(data_dir);
  InstallServiceFactory(*engine);
  bool skipped_missing = false;
  engine->SetProgressCallback(
      [&](const StorageEvent& event) { return AnswerStorageEvent(ctx, event, &skipped_missing); });

  InstanceLock lock;
  std::filesystem::path dir;
  int status = kExitOk;
  if (engine->PrepareDataDirectory(&dir).failed()) {
    std::fprintf(stderr, "%s: %s\n", kProgramName, engine->start_problem().c_str());
    status = kExitFailed;
  } else if (Result r = lock.Acquire(dir, kProgramName, kLockWait); r == kLockHeld) {
    std::string holder = lock.holder_pid() > 0 ? "process " + std::to_string(lock.holder_pid()) : "another process";
    if (!lock.holder_name().empty()) holder += " (" + lock.holder_name() + ")";
    status = Fail(ctx, "the data directory " + dir.string() + " is in use by " + holder, r);
  } else if (r.failed()) {
    status = Fail(ctx, "cannot lock the data directory " + dir.string() + " with " + lock.lock_path().string(), r);
  } else if (engine->Start(LoggedCommandLine(all_args)).failed()) {
    std::fprintf(stderr, "%s: %s\n", kProgramName, engine->start_problem().c_str());
    status = kExitFailed;
  } else {
    ctx.engine = engine;
    if (command.run != RunCheck) WarnUnavailableFolders(ctx);  // check reports on its folder itself
    status = command.run(ctx, parsed);
    std::fflush(stdout);
  }
  ReleaseEngine();  // the last release shuts the engine down
  lock.Release();
  return status;
}

}  // namespace

const std::vector<Command>& Commands() {
  static const std::vector<Command> commands = {
      {"storages", "", "every storage: name, identifier, index file, folders", 0, 0, {}, nullptr, RunStorages, true},
      {"folders", "[STORAGE]", "the folder tree with kinds and message counts", 0, 1, {}, nullptr, RunFolders, true},
      {"mkdir", "PATH", "create a folder", 1, 1, {}, nullptr, RunMkdir},
      {"rename", "PATH NEWNAME", "rename a folder", 2, 2, {}, nullptr, RunRename},
      {"rmdir", "PATH [--force]", "delete a folder (one holding messages only with --force)", 1, 1, {{"--force"}, {}, {}},
       nullptr, RunRmdir},
      {"import", "PATH FILE...", "append messages from .eml or mbox files, \"-\" for standard input", 2, kMany, {},
       nullptr, RunImport},
      {"list", "PATH", "the folder's messages", 1, 1, {}, nullptr, RunList, true},
      {"show", "PATH KEY [--raw|--html|--parts]", "a message", 2, 2, {{"--raw", "--html", "--parts"}, {}, {}},
       ValidateShow, RunShow},
      {"search", "QUERY... [--folder PATH]", "messages that match: words, \"phrases\", from: to: subject: "
       "before:/after:YYYY-MM-DD has:attachment is:unread", 1, kMany, {{}, {"--folder"}, {}}, nullptr, RunSearch, true},
      {"export", "PATH [KEY...] (--eml DIR | --mbox FILE)", "write messages out", 1, kMany,
       {{}, {"--eml", "--mbox"}, {}}, ValidateExport, RunExport},
      {"rm", "PATH KEY... [--purge]", "delete messages (into \"Deleted\"; --purge for good)", 2, kMany,
       {{"--purge"}, {}, {}}, ValidateRemove, RunRemove},
      {"mv", "PATH KEY... DEST", "move messages to another folder", 3, kMany, {}, ValidateMove, RunMove},
      {"mark", "PATH KEY... read|unread", "mark messages read or unread", 3, kMany, {}, ValidateMark, RunMark},
      {"check", "PATH [--recreate]", "check and repair the folder file (--recreate: a new empty one when it is missing)",
       1, 1, {{"--recreate"}, {}, {}}, nullptr, RunCheck},
      {"accept-cert", "HOST:PORT [--starttls smtp|pop3|imap|none] [--yes]",
       "show a server's certificate and trust it for that host", 1, 1, {{"--yes"}, {"--starttls"}, {}},
       ValidateAcceptCert, RunAcceptCert},
      {"account", "add|list|show|set|remove ...", "accounts: add, list, show, change and remove them", 1, kMany,
       AccountOptions(), ValidateAccount, RunAccount, true, kAccountDetails},
      {"folder-sync", "NAME PATH OPTIONS", "an IMAP4 folder's options: download, new, upload, delete-local, "
       "delete-server (blank- or comma-separated) or none", 3, kMany, {}, ValidateFolderSync, RunFolderSync, false,
       kFolderSyncDetails},
      {"compose", kComposeUsage, "a new message into the account's \"Outbox\" (or \"Drafts\")", 0, 0,
       {{"--draft"}, {"--account", "--subject", "--body-file", "--html-file", "--priority"},
        {"--to", "--cc", "--bcc", "--inline", "--attach"}},
       ValidateCompose, RunCompose, false, kComposeDetails},
      {"sync", "[NAME...] [--send-only|--receive-only]", "send and receive, with progress; exit 1 when a run failed",
       0, kMany, {{"--send-only", "--receive-only"}, {}, {}}, ValidateSync, RunSync, false, kSyncDetails, true},
      {"fetch", "PATH KEY...", "complete partially loaded messages at the next sync", 2, kMany, {},
       [](const ParsedArgs& a, std::string* e) { return ValidateKeys(a, 1, a.positional.size(), e); }, RunFetch},
      {"log", "[--tail N]", "the activity log", 0, 0, {{}, {"--tail"}, {}}, ValidateLog, RunLog},
      {"watch", "", "synchronize on the accounts' schedules until SIGINT or SIGTERM", 0, 0, {}, nullptr, RunWatch,
       false, nullptr, true},
  };
  return commands;
}

int RunCli(const std::vector<std::string>& args) {
  std::string data_dir;
  bool json = false;
  size_t i = 0;
  for (; i < args.size() && (args[i].rfind("--", 0) == 0 || args[i] == "-h"); ++i) {
    if (args[i] == "--json") {
      json = true;
    } else if (args[i] == "--data-dir" && i + 1 < args.size()) {
      data_dir = args[++i];
    } else if (args[i].rfind("--data-dir=", 0) == 0) {
      data_dir = args[i].substr(11);
    } else if (IsHelp(args[i])) {
      std::fputs(UsageText().c_str(), stdout);
      return kExitOk;
    } else if (args[i] == "--version") {
      std::printf("%s %s\n", kProgramName, TRV_VERSION);
      return kExitOk;
    } else {
      return UsageError(args[i] == "--data-dir" ? "option --data-dir needs a value" : "unknown option " + args[i],
                        nullptr);
    }
  }
  if (i == args.size()) return UsageError("no command given", nullptr);
  if (args[i] == "help") {
    std::fputs(UsageText().c_str(), stdout);
    return kExitOk;
  }
  const Command* command = nullptr;
  for (const Command& c : Commands()) {
    if (args[i] == c.name) command = &c;
  }
  if (command == nullptr) return UsageError("unknown command " + args[i], nullptr);
  for (size_t j = i + 1; j < args.size() && args[j] != "--"; ++j) {
    if (IsHelp(args[j])) {
      std::fputs(CommandUsage(*command).c_str(), stdout);
      return kExitOk;
    }
  }

  // The global options are understood after the command too.
  ArgOptions accepted = command->accepted;
  accepted.flags.push_back("--json");
  accepted.with_value.push_back("--data-dir");
  ParsedArgs parsed;
  std::string error;
  if (!ParseArgs(std::vector<std::string>(args.begin() + static_cast<std::ptrdiff_t>(i) + 1, args.end()), accepted,
                 &parsed, &error)) {
    return UsageError(error, command);
  }
  if (parsed.has("--json")) json = true;
  if (parsed.has("--data-dir")) {
    if (!data_dir.empty()) return UsageError("option --data-dir given twice", command);
    data_dir = parsed.value("--data-dir");
  }
  if (parsed.has("--data-dir") && data_dir.empty()) return UsageError("option --data-dir needs a value", command);
  const size_t n = parsed.positional.size();
  if (n < command->min_args) return UsageError("too few arguments", command);
  if (n > command->max_args) return UsageError("too many arguments", command);
  if (command->validate != nullptr && !command->validate(parsed, &error)) return UsageError(error, command);
  if (json && !command->json) {
    return UsageError(std::string(command->name) + " has no --json form (storages, folders and list have one)",
                      command);
  }
  if (!data_dir.empty()) AnnounceNewDataDirectory(data_dir);
  return RunWithEngine(*command, parsed, data_dir, json, args);
}

std::string LoggedCommandLine(const std::vector<std::string>& args) {
  std::string line = kProgramName;
  bool mask_next = false;
  for (const std::string& a : args) {
    const bool option = a.rfind("--", 0) == 0;
    const bool secret = option && a.find("password") != std::string::npos;
    if (mask_next && !option) {
      line += " ********";
    } else if (secret && a.find('=') != std::string::npos) {
      line += " " + a.substr(0, a.find('=') + 1) + "********";
    } else {
      line += " " + a;
    }
    mask_next = secret && a.find('=') == std::string::npos;
  }
  return line;
}

int Fail(CliContext& ctx, const std::string& what, Result r) {
  std::fprintf(ctx.err, "%s: %s: %s %s\n", kProgramName, what.c_str(), ResultHex(r).c_str(), ResultText(r).c_str());
  return kExitFailed;
}

void Warn(CliContext& ctx, const std::string& text) {
  std::fprintf(ctx.err, "%s: warning: %s\n", kProgramName, text.c_str());
}

void WriteOut(CliContext& ctx, std::string_view bytes) { std::fwrite(bytes.data(), 1, bytes.size(), ctx.out); }

MailFolder* FindFolderOrFail(CliContext& ctx, const std::string& path, int* status) {
  std::string_view p = path;
  while (p.size() > 1 && p.back() == '/') p.remove_suffix(1);
  MailFolder* folder = ctx.engine->FindFolder(Utf8ToWide(p));
  if (folder == nullptr) {
    // A folder named without its storage ("Inbox"): the full paths it may mean.
    std::vector<std::string> meant;
    const std::string tail = "/" + std::string(p);
    for (Storage* s : ctx.engine->storages()) {
      if (!s->is_open()) continue;
      s->ForEachFolder([&](MailFolder& f) {
        const WString full = f.PathText();
        if (full.size() > tail.size() && EqualsNoCase(WStringView(full).substr(full.size() - tail.size()),
                                                      Utf8ToWide(tail))) {
          meant.push_back("\"" + FolderPathText(f) + "\"");
        }
      });
    }
    std::string hint;
    for (size_t n = 0; n < meant.size(); ++n) hint += (n == 0 ? " (did you mean " : " or ") + meant[n];
    if (!hint.empty()) {
      hint += "?)";
    } else if (p.find('/') == std::string_view::npos) {
      hint = " (a folder is named by its storage and path: \"Local Folders/Inbox\")";
    }
    *status = Fail(ctx, "no folder \"" + std::string(p) + "\"" + hint, FromWin32(3));
  }
  return folder;
}

FolderFile* FolderFileOrFail(CliContext& ctx, MailFolder& folder, int* status) {
  if (folder.is_root()) {
    *status = Fail(ctx, "\"" + FolderPathText(folder) + "\" is a storage, not a folder with messages", rc::kInvalidArg);
    return nullptr;
  }
  if (!folder.available()) {
    *status = Fail(ctx, "folder \"" + FolderPathText(folder) + "\" has no open folder file (" +
                            Utf8(folder.file_name()) + ")", rc::kFileMissing);
    return nullptr;
  }
  return folder.file();
}

FolderFile* FolderFileOrFail(CliContext& ctx, const std::string& path, MailFolder** folder, int* status) {
  *folder = FindFolderOrFail(ctx, path, status);
  return *folder == nullptr ? nullptr : FolderFileOrFail(ctx, **folder, status);
}

std::string KeyText(uint32_t key) {
  char buf[12];
  std::snprintf(buf, sizeof buf, "%.8X", key);
  return buf;
}

bool ParseKey(std::string_view text, uint32_t* key) {
  if (text.empty() || text.size() > 8) return false;
  uint32_t v = 0;
  for (char c : text) {
    const int d = HexDigitValue(static_cast<unsigned char>(c));
    if (d < 0) return false;
    v = v << 4 | static_cast<uint32_t>(d);
  }
  if (v == 0) return false;
  *key = v;
  return true;
}

bool ParseKeys(const std::vector<std::string>& texts, std::vector<uint32_t>* keys, std::string* error) {
  keys->clear();
  for (const std::string& t : texts) {
    uint32_t key = 0;
    if (!ParseKey(t, &key)) {
      *error = "not a message key: \"" + t + "\" (one to eight hexadecimal digits, not 0)";
      return false;
    }
    if (std::find(keys->begin(), keys->end(), key) == keys->end()) keys->push_back(key);
  }
  return true;
}

namespace {

// ParseKeys of positional arguments `first` up to `end`.
bool KeysOf(const ParsedArgs& args, size_t first, size_t end, std::vector<uint32_t>* keys, std::string* error) {
  return ParseKeys(std::vector<std::string>(args.positional.begin() + static_cast<std::ptrdiff_t>(first),
                                            args.positional.begin() + static_cast<std::ptrdiff_t>(end)),
                   keys, error);
}

}  // namespace

bool SelectMessages(CliContext& ctx, const ParsedArgs& args, size_t first, size_t end, Selection* sel, int* status) {
  sel->file = FolderFileOrFail(ctx, args.positional[0], &sel->folder, status);
  if (sel->file == nullptr) return false;
  const std::string path = FolderPathText(*sel->folder);
  if (Result r = sel->file->LoadIndex(); r.failed()) {
    *status = Fail(ctx, "cannot read the messages of \"" + path + "\" (" + sel->file->path().string() + ")", r);
    return false;
  }
  std::string error;
  if (!KeysOf(args, first, end, &sel->keys, &error)) {  // checked before the engine started: not met here
    *status = Fail(ctx, error, rc::kInvalidArg);
    return false;
  }
  for (uint32_t key : sel->keys) {
    if (!sel->file->FindMessage(key)) {
      *status = Fail(ctx, "no message " + KeyText(key) + " in \"" + path + "\"", kNotFound);
      return false;
    }
  }
  return true;
}

bool ValidateKeys(const ParsedArgs& args, size_t first, size_t end, std::string* error) {
  std::vector<uint32_t> keys;
  return KeysOf(args, first, end, &keys, error);
}

std::string MessageCount(uint64_t n) { return std::to_string(n) + (n == 1 ? " message" : " messages"); }

std::string Utf8(WStringView text) { return WideToUtf8(text); }

std::string FolderPathText(const MailFolder& folder) { return WideToUtf8(folder.PathText()); }

void ProgressLine::Update(const std::string& text, bool force) {
  if (!ctx_.progress) return;
  const auto now = std::chrono::steady_clock::now();
  if (!force && shown_ > 0 && now - last_ < std::chrono::milliseconds(100)) return;
  last_ = now;
  std::string line = "\r" + text;
  if (text.size() < shown_) line += std::string(shown_ - text.size(), ' ');
  std::fputs(line.c_str(), ctx_.err);
  std::fflush(ctx_.err);
  shown_ = std::max<size_t>(text.size(), 1);
}

void ProgressLine::Finish() {
  if (shown_ == 0) return;
  std::fputs("\n", ctx_.err);
  shown_ = 0;
}

}  // namespace trv::cli
