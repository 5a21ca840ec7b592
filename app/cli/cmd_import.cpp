// import PATH FILE...: .eml files (one message), mbox files, "-" for
// standard input (either kind). Reading, telling the kinds apart and storing
// in batches is core/message_import.h; this file opens the inputs and says
// on standard error what the import decided about odd input, naming the file
// and line.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "app/cli/commands.h"
#include "core/message_import.h"

namespace trv::cli {

namespace {

// What is said about an event, or nothing.
std::string EventText(ImportEvent event, const MboxMessage* entry) {
  switch (event) {
    case ImportEvent::kStored:
      return {};
    case ImportEvent::kBrokenEnvelope:
      return "\"From \" line without sender and date (\"" + (entry ? entry->envelope : std::string()) +
             "\"); it starts a new message all the same";
    case ImportEvent::kEmptyEntry:
      return "the entry holds no message text; skipped";
    case ImportEvent::kNoHeader:
      return "the message has no header; stored with an empty header before its text (no subject)";
    case ImportEvent::kEmptyHeader:
      return "the message has no header; stored as it is (no subject)";
  }
  return {};
}

// Imports one file; the exit status for it.
int ImportFile(CliContext& ctx, MessageImporter& importer, const std::string& folder_path,
               const std::string& file_name, ProgressLine& progress) {
  const bool standard_input = file_name == "-";
  const std::string name = standard_input ? "standard input" : file_name;
  const int fd = standard_input ? STDIN_FILENO : ::open(file_name.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return Fail(ctx, "cannot open " + name, ResultFromErrno(errno));
  LineSource source(LineSource::FromFd(fd));
  const size_t stored_before = importer.stored();
  size_t messages = 0;

  InputKind kind = InputKind::kNotMail;
  Result r = ImportMailInput(source, importer, &kind, [&](ImportEvent event, const MboxMessage* entry) {
    if (event == ImportEvent::kStored) {
      ++messages;
      if (entry) progress.Update("importing " + name + ": " + MessageCount(messages));
      return;
    }
    progress.Finish();  // the warning goes on a line of its own below the progress line
    Warn(ctx, (entry ? name + ":" + std::to_string(entry->line) : name) + ": " + EventText(event, entry));
  });
  // Whatever was read before a failure is stored too.
  const Result flushed = importer.Flush();
  if (r.ok()) r = flushed;
  if (!standard_input) ::close(fd);
  progress.Finish();

  const size_t stored = importer.stored() - stored_before;
  if (r.ok() && kind == InputKind::kNotMail) {
    return Fail(ctx, name + " is not mail: neither an mbox file (starting with a \"From \" line) nor a message "
                     "(starting with header fields such as From, Date, Subject); nothing imported from it",
                rc::kInvalidData);
  }
  if (r.failed()) {
    return Fail(ctx, "importing " + name + " into \"" + folder_path + "\" stopped; stored from it before: " +
                         MessageCount(stored), r);
  }
  WriteOut(ctx, name + ": " + MessageCount(stored) + " imported into " + folder_path + "\n");
  return kExitOk;
}

}  // namespace

int RunImport(CliContext& ctx, const ParsedArgs& args) {
  int status = kExitOk;
  MailFolder* folder = nullptr;
  FolderFile* file = FolderFileOrFail(ctx, args.positional[0], &folder, &status);
  if (file == nullptr) return status;
  const std::string path = FolderPathText(*folder);
  MessageImporter importer(*file);
  ProgressLine progress(ctx);
  size_t standard_input_uses = 0;
  for (size_t i = 1; i < args.positional.size(); ++i) {
    if (args.positional[i] == "-" && ++standard_input_uses > 1) continue;  // it can be read once
    // A file that fails does not stop the others; the run then fails.
    if (ImportFile(ctx, importer, path, args.positional[i], progress) != kExitOk) status = kExitFailed;
  }
  return status;
}

}  // namespace trv::cli
