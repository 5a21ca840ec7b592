// import PATH FILE...: .eml files (one message), mbox files, "-" for
// standard input (either kind). What a file is comes from its first bytes,
// not its name. Messages are stored in batches, each one transaction, so a
// failure keeps every batch stored before it; what is decided about odd
// input is said on standard error, naming the file and line:
// - a file that is neither an mbox nor a message: nothing from it is stored;
// - a "From " line without sender and date: it starts a new message anyway;
// - an mbox entry with no text: skipped;
// - a message with no header: stored, with an empty header put before text
//   that would otherwise be read as header fields (it has no subject then).
// An mbox "Status" field holding "R" imports the message as read.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "app/cli/commands.h"
#include "app/cli/line_source.h"
#include "app/cli/mbox.h"
#include "app/cli/message_text.h"
#include "core/message_import.h"

namespace trv::cli {

namespace {

constexpr size_t kBatchBytes = 8u << 20;
constexpr size_t kBatchMessages = 2000;

// Collects messages and appends them to the folder file a batch at a time.
class Importer {
 public:
  explicit Importer(FolderFile& file) : file_(file) {}

  // `text` in stored form.
  Result Add(std::string text) {
    MessageRecord record = RecordFromMessage(text);
    if (RawHeaderValue(text, "Status").find('R') != std::string_view::npos) record.flags |= msgflag::kRead;
    bytes_ += text.size();
    records_.push_back(std::move(record));
    texts_.push_back(std::move(text));
    return bytes_ >= kBatchBytes || texts_.size() >= kBatchMessages ? Flush() : rc::kOk;
  }

  Result Flush() {
    if (texts_.empty()) return rc::kOk;
    std::vector<NewMessage> batch;
    batch.reserve(texts_.size());
    for (size_t i = 0; i < texts_.size(); ++i) batch.push_back({records_[i], texts_[i]});
    const Result r = file_.AppendMany(batch, nullptr);
    if (r.ok()) stored_ += texts_.size();
    texts_.clear();
    records_.clear();
    bytes_ = 0;
    return r;
  }

  // Messages stored so far (committed).
  size_t stored() const { return stored_; }

 private:
  FolderFile& file_;
  std::vector<std::string> texts_;
  std::vector<MessageRecord> records_;
  size_t bytes_ = 0;
  size_t stored_ = 0;
};

struct FileImport {
  CliContext& ctx;
  Importer& importer;
  std::string name;  // for messages
  ProgressLine& progress;
  size_t messages = 0;
};

// A warning, on a line of its own below the progress line.
void Say(FileImport& f, const std::string& text) {
  f.progress.Finish();
  Warn(f.ctx, text);
}

Result ImportMbox(FileImport& f, LineSource& source) {
  MboxReader reader(source);
  MboxMessage m;
  for (;;) {
    bool got = false;
    if (Result r = reader.Next(&m, &got); r.failed()) return r;
    if (!got) return rc::kOk;
    const std::string where = f.name + ":" + std::to_string(m.line);
    if (m.broken_envelope) {
      Say(f, where + ": \"From \" line without sender and date (\"" + m.envelope +
                 "\"); it starts a new message all the same");
    }
    if (m.text.empty()) {
      Say(f, where + ": the entry holds no message text; skipped");
      continue;
    }
    if (const HeaderState state = HeaderStateOf(m.text); state != HeaderState::kHeader) {
      Say(f, where + ": the message has no header; " +
                 (state == HeaderState::kNoHeader ? "stored with an empty header before its text (no subject)"
                                                  : "stored as it is (no subject)"));
    }
    if (Result r = f.importer.Add(ToStoredForm(m.text)); r.failed()) return r;
    ++f.messages;
    f.progress.Update("importing " + f.name + ": " + std::to_string(f.messages) + " messages");
  }
}

// Imports one file; the exit status for it.
int ImportFile(CliContext& ctx, Importer& importer, const std::string& folder_path, const std::string& file_name,
               ProgressLine& progress) {
  const bool standard_input = file_name == "-";
  const std::string name = standard_input ? "standard input" : file_name;
  const int fd = standard_input ? STDIN_FILENO : ::open(file_name.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return Fail(ctx, "cannot open " + name, ResultFromErrno(errno));
  LineSource source(LineSource::FromFd(fd));
  FileImport f{ctx, importer, name, progress};
  const size_t stored_before = importer.stored();

  std::string_view head;
  Result r = source.Peek(kClassifyBytes, &head);
  InputKind kind = InputKind::kNotMail;
  if (r.ok()) kind = ClassifyInput(head);
  if (r.ok() && kind == InputKind::kMbox) {
    r = ImportMbox(f, source);
  } else if (r.ok() && kind == InputKind::kMessage) {
    std::string text;
    r = source.ReadRest(&text);
    if (r.ok()) r = importer.Add(ToStoredForm(text));
    if (r.ok()) ++f.messages;
  }
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
    return Fail(ctx, "importing " + name + " into \"" + folder_path + "\" stopped; " + std::to_string(stored) +
                         " messages of it were stored before", r);
  }
  WriteOut(ctx, name + ": " + std::to_string(stored) + " messages imported into " + folder_path + "\n");
  return kExitOk;
}

}  // namespace

int RunImport(CliContext& ctx, const ParsedArgs& args) {
  int status = kExitOk;
  MailFolder* folder = nullptr;
  FolderFile* file = FolderFileOrFail(ctx, args.positional[0], &folder, &status);
  if (file == nullptr) return status;
  const std::string path = FolderPathText(*folder);
  Importer importer(*file);
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
