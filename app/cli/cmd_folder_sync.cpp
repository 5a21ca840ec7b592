// folder-sync NAME PATH OPTIONS: the synchronization options of one folder
// record of an IMAP4 account. PATH is the mailbox's server path as `account
// show` lists it, or the path of its local folder below the account's
// storage. OPTIONS are words separated by blanks, commas or both (one
// argument "download,upload" or several "download upload"); `none` alone
// stops the folder's synchronization.
#include <algorithm>
#include <string>
#include <vector>

#include "app/cli/cli_result.h"
#include "app/cli/commands.h"
#include "services/imap4_service.h"
#include "services/service_registry.h"

namespace trv::cli {

namespace {

constexpr std::pair<const char*, uint32_t> kOptionWords[] = {
    {"download", imap4sync::kDownload},          {"new", imap4sync::kDownloadNew},
    {"upload", imap4sync::kUpload},              {"delete-local", imap4sync::kDeleteOnLocal},
    {"delete-server", imap4sync::kDeleteOnServer}, {"none", 0},
};

// The words of positional arguments 2 on, split at commas and blanks.
std::vector<std::string> OptionWords(const ParsedArgs& args) {
  std::vector<std::string> words;
  for (size_t i = 2; i < args.positional.size(); ++i) {
    std::string word;
    for (char c : args.positional[i] + ",") {
      if (c != ',' && c != ' ' && c != '\t') {
        word += c;
      } else if (!word.empty()) {
        words.push_back(word);
        word.clear();
      }
    }
  }
  return words;
}

// The bits of the words; false with *error when a word is unknown or the
// set makes no sense.
bool ParseOptions(const ParsedArgs& args, uint32_t* sync, std::string* error) {
  const std::vector<std::string> words = OptionWords(args);
  *sync = 0;
  bool none = false;
  for (const std::string& word : words) {
    const auto* it = std::find_if(std::begin(kOptionWords), std::end(kOptionWords),
                                  [&](const auto& option) { return EqualsNoCase(word, option.first); });
    if (it == std::end(kOptionWords)) {
      *error = "folder-sync takes download, new, upload, delete-local, delete-server or none, not \"" + word + "\"";
      return false;
    }
    none |= it->second == 0;
    *sync |= it->second;
  }
  if (words.empty() || (none && words.size() > 1)) {
    *error = "folder-sync needs options, or \"none\" alone";
    return false;
  }
  if ((*sync & imap4sync::kDownloadNew) && !(*sync & imap4sync::kDownload)) {
    *error = "\"new\" limits downloading to new messages: give it with \"download\"";
    return false;
  }
  return true;
}

}  // namespace

std::string FolderOptionsText(uint32_t sync) {
  std::string text = SyncOptionsText(sync);
  return text.empty() ? "none" : text.substr(0, text.size() - 2);  // without the last ", "
}

bool ValidateFolderSync(const ParsedArgs& args, std::string* error) {
  uint32_t sync = 0;
  return ParseOptions(args, &sync, error);
}

int RunFolderSync(CliContext& ctx, const ParsedArgs& args) {
  const std::string& name = args.positional[0];
  const std::string& path = args.positional[1];
  uint32_t sync = 0;
  std::string error;
  if (!ParseOptions(args, &sync, &error)) return Fail(ctx, error, rc::kInvalidArg);  // validated before
  auto* service = dynamic_cast<Imap4Service*>(FindService(*ctx.engine, name));
  if (service == nullptr) {
    return Fail(ctx, "no IMAP4 account \"" + name + "\" (\"account list\")", kNotFound);
  }
  std::string shown;
  {
    MutexLock lock(service->folders_mutex());
    Imap4FolderTree& folders = service->folders();
    const WString wide = Utf8ToWide(path);
    Imap4FolderSync* record = folders.FindByServerPath(wide);
    if (record == nullptr) record = folders.FindByLocal(wide);
    if (record == nullptr) {
      return Fail(ctx, "no folder \"" + path + "\" in account \"" + name + "\"; `sync` lists the server's folders first",
                  kNotFound);
    }
    record->sync = sync;
    shown = Utf8(record->ServerPath());
  }
  if (Result r = service->SaveFolders(); r.failed()) {
    return Fail(ctx, "cannot save the folder options of account \"" + name + "\"", r);
  }
  WriteOut(ctx, "folder \"" + shown + "\" of account \"" + name + "\": " + FolderOptionsText(sync) + "\n");
  return kExitOk;
}

}  // namespace trv::cli
