// list, show, rm, mv, mark.
#include "app/cli/commands.h"
#include "app/cli/listing.h"
#include "app/cli/show_modes.h"
#include "core/engine.h"
#include "services/message_actions.h"
#include "store/storage_messages.h"

namespace trv::cli {


bool ValidateShow(const ParsedArgs& args, std::string* error) {
  if (args.has("--raw") + args.has("--html") + args.has("--parts") > 1) {
    *error = "--raw, --html and --parts exclude each other";
    return false;
  }
  return ValidateKeys(args, 1, 2, error);
}

bool ValidateRemove(const ParsedArgs& args, std::string* error) {
  return ValidateKeys(args, 1, args.positional.size(), error);
}

bool ValidateMove(const ParsedArgs& args, std::string* error) {
  return ValidateKeys(args, 1, args.positional.size() - 1, error);
}

bool ValidateMark(const ParsedArgs& args, std::string* error) {
  const std::string& state = args.positional.back();
  if (state != "read" && state != "unread") {
    *error = "the last argument must be \"read\" or \"unread\", not \"" + state + "\"";
    return false;
  }
  return ValidateKeys(args, 1, args.positional.size() - 1, error);
}

int RunList(CliContext& ctx, const ParsedArgs& args) {
  int status = kExitOk;
  Selection sel;
  if (!SelectMessages(ctx, args, 1, 1, &sel, &status)) return status;
  if (ctx.json) {
    WriteListingJson(*sel.file, [&ctx](std::string_view piece) { WriteOut(ctx, piece); });
  } else {
    WriteOut(ctx, ListingText(sel.file->Messages()));
  }
  return kExitOk;
}

int RunShow(CliContext& ctx, const ParsedArgs& args) {
  int status = kExitOk;
  Selection sel;
  if (!SelectMessages(ctx, args, 1, 2, &sel, &status)) return status;
  const uint32_t key = sel.keys.front();
  const std::string what = FolderPathText(*sel.folder) + "/" + KeyText(key);
  if (const std::optional<MessageRecord> m = sel.file->FindMessage(key); m && (m->flags & msgflag::kPartial)) {
    // On the error stream, so that --raw still gives the stored bytes alone.
    const std::string how = m->flags & msgflag::kFullDownloadRequested
                                ? "the next sync loads the rest"
                                : std::string("run: ") + kProgramName + " fetch \"" + FolderPathText(*sel.folder) +
                                      "\" " + KeyText(key) + " (the next sync loads the rest)";
    std::fprintf(ctx.err, "%s: message %s is partially loaded (%u of %u bytes); %s\n", kProgramName, what.c_str(),
                 m->size, m->server_size, how.c_str());
  }
  if (args.has("--raw")) {
    std::string text;
    if (Result r = sel.file->ReadMessage(key, &text); r.failed()) return Fail(ctx, "cannot read message " + what, r);
    WriteOut(ctx, text);
    return kExitOk;
  }
  if (args.has("--html")) return ShowMessage(ctx, what, *sel.file, key, ShowMode::kHtml);
  if (args.has("--parts")) return ShowMessage(ctx, what, *sel.file, key, ShowMode::kParts);
  return ShowMessage(ctx, what, *sel.file, key, ShowMode::kText);
}

int RunRemove(CliContext& ctx, const ParsedArgs& args) {
  int status = kExitOk;
  Selection sel;
  if (!SelectMessages(ctx, args, 1, args.positional.size(), &sel, &status)) return status;
  const std::string path = FolderPathText(*sel.folder);
  const size_t n = sel.keys.size();
  if (args.has("--purge") || DeletesForGood(*sel.folder)) {
    if (Result r = DeleteMessagesForGood(ctx.engine->FileOps(), *sel.folder, sel.keys); r.failed()) {
      return Fail(ctx, "cannot delete " + MessageCount(n) + " from \"" + path + "\"", r);
    }
    WriteOut(ctx, "deleted " + MessageCount(n) + " from " + path + " for good\n");
    return kExitOk;
  }
  MailFolder* deleted = nullptr;
  if (Result r = MoveToDeleted(*sel.folder, sel.keys, &deleted); r == rc::kFileMissing) {
    return Fail(ctx, "storage \"" + Utf8(sel.folder->storage().name()) +
                         "\" has no usable \"Deleted\" folder; nothing deleted (--purge deletes for good)",
                r);
  } else if (r.failed()) {
    return Fail(ctx, "cannot move " + MessageCount(n) + " from \"" + path + "\" to \"" +
                         FolderPathText(*deleted) + "\"", r);
  }
  WriteOut(ctx, "moved " + MessageCount(n) + " from " + path + " to " + FolderPathText(*deleted) + "\n");
  return kExitOk;
}

int RunMove(CliContext& ctx, const ParsedArgs& args) {
  int status = kExitOk;
  Selection sel;
  if (!SelectMessages(ctx, args, 1, args.positional.size() - 1, &sel, &status)) return status;
  MailFolder* dest = nullptr;
  if (FolderFileOrFail(ctx, args.positional.back(), &dest, &status) == nullptr) return status;
  if (dest == sel.folder) return Fail(ctx, "source and destination are the same folder", rc::kInvalidArg);
  std::vector<uint32_t> new_keys;
  if (Result r = MoveMessages(*sel.folder, sel.keys, *dest, &new_keys); r.failed()) {
    return Fail(ctx, "cannot move messages from \"" + FolderPathText(*sel.folder) + "\" to \"" +
                         FolderPathText(*dest) + "\"", r);
  }
  // One line per message: its key here and its key in the destination.
  std::string out;
  for (size_t i = 0; i < sel.keys.size() && i < new_keys.size(); ++i) {
    out += KeyText(sel.keys[i]) + " -> " + KeyText(new_keys[i]) + "\n";
  }
  WriteOut(ctx, out);
  return kExitOk;
}

int RunMark(CliContext& ctx, const ParsedArgs& args) {
  int status = kExitOk;
  Selection sel;
  if (!SelectMessages(ctx, args, 1, args.positional.size() - 1, &sel, &status)) return status;
  const bool read = args.positional.back() == "read";
  size_t changed = 0;
  if (Result r = MarkMessagesRead(*sel.file, sel.keys, read, &changed); r.failed()) {
    return Fail(ctx, "cannot mark messages of " + FolderPathText(*sel.folder) + " " + args.positional.back() + " (" +
                         std::to_string(changed) + " marked before the failure)",
                r);
  }
  WriteOut(ctx, "marked " + std::to_string(changed) + " of " + MessageCount(sel.keys.size()) + " " +
                    args.positional.back() + "\n");
  return kExitOk;
}

}  // namespace trv::cli
