// storages, folders, mkdir, rename, rmdir.
#include <functional>

#include "app/cli/commands.h"
#include "app/cli/json_writer.h"
#include "app/cli/text_table.h"

namespace trv::cli {

namespace {

const char* KindName(uint32_t kind) {
  switch (kind) {
    case kFolderInbox: return "inbox";
    case kFolderOutbox: return "outbox";
    case kFolderSent: return "sent";
    case kFolderDeleted: return "deleted";
    case kFolderDrafts: return "drafts";
    case kFolderRoot: return "storage";
    default: return "folder";
  }
}

size_t FolderCount(const Storage& storage) {
  size_t n = 0;
  storage.ForEachFolder([&n](MailFolder&) { ++n; });
  return n;
}

// "Storage/A/B" split into the parent's path and the last name.
bool SplitPath(std::string path, std::string* parent, std::string* name) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash == 0 || slash + 1 == path.size()) return false;
  *parent = path.substr(0, slash);
  *name = path.substr(slash + 1);
  return true;
}

// Messages in a folder and its subtree; false when a folder there is
// unavailable (its count is unknown).
bool SubtreeMessages(const MailFolder& folder, uint64_t* count) {
  if (!folder.is_root()) {
    if (!folder.available()) return false;
    *count += folder.file()->counts().messages;
  }
  for (const auto& child : folder.children()) {
    if (!SubtreeMessages(*child, count)) return false;
  }
  return true;
}

}  // namespace

int RunStorages(CliContext& ctx, const ParsedArgs&) {
  std::vector<Storage*> storages;
  for (Storage* s : ctx.engine->storages()) {
    if (s->is_open()) storages.push_back(s);
  }
  if (ctx.json) {
    JsonWriter json;
    json.BeginArray();
    for (const Storage* s : storages) {
      json.BeginObject();
      json.Key("name");
      json.String(Utf8(s->name()));
      json.Key("id");
      json.String(s->id().ToRegistryString());
      json.Key("index");
      json.String(s->index_path().string());
      json.Key("folders");
      json.Int(static_cast<int64_t>(FolderCount(*s)));
      json.EndObject();
    }
    json.EndArray();
    WriteOut(ctx, json.text() + "\n");
    return kExitOk;
  }
  TextTable table({"NAME", "ID", "INDEX", "FOLDERS"},
                  {TextTable::kLeft, TextTable::kLeft, TextTable::kLeft, TextTable::kRight});
  for (const Storage* s : storages) {
    table.AddRow({Utf8(s->name()), s->id().ToRegistryString(), s->index_path().string(),
                  std::to_string(FolderCount(*s))});
  }
  WriteOut(ctx, table.Render());
  return kExitOk;
}

int RunFolders(CliContext& ctx, const ParsedArgs& args) {
  std::vector<Storage*> storages;
  for (Storage* s : ctx.engine->storages()) {
    if (!s->is_open()) continue;
    if (args.positional.empty() || EqualsNoCase(s->name(), Utf8ToWide(args.positional[0]))) storages.push_back(s);
  }
  if (storages.empty() && !args.positional.empty()) {
    return Fail(ctx, "no storage \"" + args.positional[0] + "\"", FromWin32(3));
  }
  std::vector<MailFolder*> folders;
  for (Storage* s : storages) s->ForEachFolder([&folders](MailFolder& f) { folders.push_back(&f); });

  if (ctx.json) {
    JsonWriter json;
    json.BeginArray();
    for (const MailFolder* f : folders) {
      json.BeginObject();
      json.Key("path");
      json.String(FolderPathText(*f));
      json.Key("kind");
      json.Int(f->kind());
      const std::optional<FolderCounts> counts =
          f->available() ? std::optional<FolderCounts>(f->file()->counts()) : std::nullopt;
      json.Key("messages");
      counts ? json.Int(counts->messages) : json.Null();
      json.Key("unread");
      counts ? json.Int(counts->unread) : json.Null();
      json.EndObject();
    }
    json.EndArray();
    WriteOut(ctx, json.text() + "\n");
    return kExitOk;
  }
  TextTable table({"PATH", "KIND", "MESSAGES", "UNREAD"},
                  {TextTable::kLeft, TextTable::kLeft, TextTable::kRight, TextTable::kRight});
  for (const MailFolder* f : folders) {
    if (f->available()) {
      const FolderCounts counts = f->file()->counts();
      table.AddRow({FolderPathText(*f), KindName(f->kind()), std::to_string(counts.messages),
                    std::to_string(counts.unread)});
    } else {
      table.AddRow({FolderPathText(*f), std::string(KindName(f->kind())) + " (unavailable)", "-", "-"});
    }
  }
  WriteOut(ctx, table.Render());
  return kExitOk;
}

int RunMkdir(CliContext& ctx, const ParsedArgs& args) {
  std::string parent_path, name;
  if (!SplitPath(args.positional[0], &parent_path, &name)) {
    return Fail(ctx, "\"" + args.positional[0] + "\" names no folder below a storage", rc::kInvalidArg);
  }
  int status = kExitOk;
  MailFolder* parent = FindFolderOrFail(ctx, parent_path, &status);
  if (parent == nullptr) return status;
  MailFolder* created = nullptr;
  const Result r = parent->storage().CreateFolder(parent, Utf8ToWide(name), &created);
  if (r == rc::kFileExists) return Fail(ctx, "folder \"" + args.positional[0] + "\" exists already", r);
  if (r.failed()) return Fail(ctx, "cannot create folder \"" + args.positional[0] + "\"", r);
  WriteOut(ctx, "created " + FolderPathText(*created) + "\n");
  return kExitOk;
}

int RunRename(CliContext& ctx, const ParsedArgs& args) {
  int status = kExitOk;
  MailFolder* folder = FindFolderOrFail(ctx, args.positional[0], &status);
  if (folder == nullptr) return status;
  if (folder->is_root()) return Fail(ctx, "a storage cannot be renamed here", rc::kInvalidArg);
  const std::string old_path = FolderPathText(*folder);
  const Result r = folder->storage().RenameFolder(folder, Utf8ToWide(args.positional[1]));
  if (r.failed()) return Fail(ctx, "cannot rename folder \"" + old_path + "\" to \"" + args.positional[1] + "\"", r);
  WriteOut(ctx, "renamed " + old_path + " to " + FolderPathText(*folder) + "\n");
  return kExitOk;
}

int RunRmdir(CliContext& ctx, const ParsedArgs& args) {
  int status = kExitOk;
  MailFolder* folder = FindFolderOrFail(ctx, args.positional[0], &status);
  if (folder == nullptr) return status;
  const std::string path = FolderPathText(*folder);
  if (folder->is_root()) return Fail(ctx, "\"" + path + "\" is a storage; storages are not deleted here", rc::kInvalidArg);
  bool special_inside = false;
  std::function<void(const MailFolder&)> find_special = [&](const MailFolder& f) {
    special_inside = special_inside || f.is_special();
    for (const auto& child : f.children()) find_special(*child);
  };
  find_special(*folder);
  if (special_inside) {
    return Fail(ctx, "\"" + path + "\" is or holds a special folder (Inbox, Outbox, Sent, Deleted, Drafts); "
                     "special folders cannot be deleted", rc::kInvalidArg);
  }
  uint64_t messages = 0;
  const bool known = SubtreeMessages(*folder, &messages);
  if (!args.has("--force") && (!known || messages > 0)) {
    return Fail(ctx, "folder \"" + path + "\" " +
                         (known ? "holds " + MessageCount(messages) +
                                      "; move them away first, or use --force to delete them with it"
                                : "is or holds a folder whose file is unavailable, so what it holds is not known; "
                                  "--force deletes it all the same"),
                rc::kInvalidArg);
  }
  const Result r = folder->storage().DeleteFolder(folder);
  if (r.failed()) return Fail(ctx, "cannot delete folder \"" + path + "\"", r);
  WriteOut(ctx, "deleted " + path + "\n");
  return kExitOk;
}

}  // namespace trv::cli
