// export PATH [KEY...] (--eml DIR | --mbox FILE): the folder's messages (all
// of them when no key is given), in index order.
// --eml: one file per message named by its key ("0000001A.eml"), the bytes
//   exactly as stored. An existing file is never overwritten.
// --mbox: one mboxrd file (mime/mbox.h), written anew; an existing file is never
//   overwritten, and a file left incomplete by a failure is removed. Each
//   message carries its read state in a "Status" field, which import reads.
// Both are created 0600: exported mail stays as private as the stored mail.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "app/cli/commands.h"
#include "mime/mbox.h"
#include "base/date_value.h"
#include "base/durable_write.h"
#include "base/file_io.h"
#include "core/message_import.h"

namespace trv::cli {

namespace {

// A file created for writing; never replaces an existing one.
class NewFile {
 public:
  ~NewFile() {
    if (fd_ >= 0) ::close(fd_);
  }
  Result Create(const std::filesystem::path& path) {
    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kPrivateFileMode);
    return fd_ < 0 ? ResultFromErrno(errno) : rc::kOk;
  }
  Result Write(std::string_view bytes) { return WriteAllBytes(fd_, bytes); }
  // Flushes to the disk and closes.
  Result Finish() {
    const bool synced = ::fsync(fd_) == 0;
    const int err = errno;
    const bool closed = ::close(fd_) == 0;
    fd_ = -1;
    if (!synced) return ResultFromErrno(err);
    return closed ? rc::kOk : ResultFromErrno(errno);
  }

 private:
  int fd_ = -1;
};

// The stored message with a "Status" field that carries its read state as an
// mbox reader (and import) takes it: "RO" when read, "O" when unread. An
// existing field that already tells the state is kept; one that tells the
// other is replaced; a read message without one gets it at the end of its
// header.
std::string WithReadStatus(std::string_view stored, bool read) {
  size_t header_end = stored.find("\r\n\r\n");
  header_end = header_end == std::string_view::npos ? stored.size() : header_end + 2;
  size_t pos = 0;
  while (pos < header_end) {
    size_t end = stored.find("\r\n", pos);
    end = end == std::string_view::npos || end > header_end ? header_end : end + 2;
    // The field's folded lines belong to it.
    while (end < header_end && (stored[end] == ' ' || stored[end] == '\t')) {
      const size_t next = stored.find("\r\n", end);
      end = next == std::string_view::npos || next > header_end ? header_end : next + 2;
    }
    const std::string_view line = stored.substr(pos, end - pos);
    if (line.size() >= 7 && EqualsNoCase(line.substr(0, 7), std::string_view("Status:"))) {
      if ((line.find('R', 7) != std::string_view::npos) == read) return std::string(stored);
      return std::string(stored.substr(0, pos)) + (read ? "Status: RO\r\n" : "Status: O\r\n") +
             std::string(stored.substr(end));
    }
    pos = end;
  }
  if (!read) return std::string(stored);
  return std::string(stored.substr(0, header_end)) + "Status: RO\r\n" + std::string(stored.substr(header_end));
}

double EnvelopeDate(const MessageRecord& record) {
  return record.sent_date != kNoDate ? record.sent_date : record.received_date;
}

int ExportEml(CliContext& ctx, FolderFile& file, const std::string& what, const std::vector<uint32_t>& keys,
              const std::filesystem::path& dir) {
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  if (ec) return Fail(ctx, "cannot create directory " + dir.string(), ResultFromErrno(ec.value()));
  size_t written = 0;
  for (uint32_t key : keys) {
    const std::filesystem::path path = dir / (KeyText(key) + ".eml");
    std::string text;
    if (Result r = file.ReadMessage(key, &text); r.failed()) {
      return Fail(ctx, "cannot read message " + what + "/" + KeyText(key) + " (" + std::to_string(written) +
                           " written before it)", r);
    }
    // Durable, and never over an existing file (checked just before the rename).
    FileSystem& fs = PosixFileSystem::Instance();
    DurableWriteOptions no_replace;
    no_replace.before_replace = [&]() { return fs.Exists(path) ? ResultFromErrno(EEXIST) : rc::kOk; };
    const Result r = WriteFileDurably(fs, path, text, no_replace);
    if (r.failed()) {
      return Fail(ctx, "cannot write " + path.string() +
                           (r == ResultFromErrno(EEXIST) ? " (it exists and is not overwritten)" : "") + "; " +
                           MessageCount(written) + " written before it",
                  r);
    }
    ++written;
  }
  WriteOut(ctx, MessageCount(written) + " of " + what + " written to " + dir.string() + "\n");
  return kExitOk;
}

int ExportMbox(CliContext& ctx, FolderFile& file, const std::string& what, const std::vector<uint32_t>& keys,
               const std::filesystem::path& path) {
  NewFile out;
  if (Result r = out.Create(path); r.failed()) {
    return Fail(ctx, "cannot create " + path.string() +
                         (r == ResultFromErrno(EEXIST) ? " (it exists and is not overwritten)" : ""), r);
  }
  std::string buffer;
  Result r;
  for (size_t i = 0; i < keys.size() && r.ok(); ++i) {
    std::string text;
    r = file.ReadMessage(keys[i], &text);
    if (r.failed()) {
      Fail(ctx, "cannot read message " + what + "/" + KeyText(keys[i]), r);
      break;
    }
    const std::optional<MessageRecord> record = file.FindMessage(keys[i]);
    if (record) text = WithReadStatus(text, record->is_read());
    AppendMboxMessage(text, record ? EnvelopeDate(*record) : kNoDate, &buffer);
    if (buffer.size() >= (1u << 20)) {
      r = out.Write(buffer);
      buffer.clear();
    }
  }
  if (r.ok()) r = out.Write(buffer);
  if (r.ok()) r = out.Finish();
  if (r.failed()) {
    std::error_code ec;
    std::filesystem::remove(path, ec);
    return Fail(ctx, "cannot export " + what + " to " + path.string() + " (the incomplete file is removed)", r);
  }
  WriteOut(ctx, MessageCount(keys.size()) + " of " + what + " written to " + path.string() + "\n");
  return kExitOk;
}

}  // namespace

bool ValidateExport(const ParsedArgs& args, std::string* error) {
  if (args.has("--eml") == args.has("--mbox")) {
    *error = "give one of --eml DIR and --mbox FILE";
    return false;
  }
  if (args.value(args.has("--eml") ? "--eml" : "--mbox").empty()) {
    *error = "the file or directory to write to is empty";
    return false;
  }
  return ValidateKeys(args, 1, args.positional.size(), error);
}

int RunExport(CliContext& ctx, const ParsedArgs& args) {
  int status = kExitOk;
  Selection sel;
  if (!SelectMessages(ctx, args, 1, args.positional.size(), &sel, &status)) return status;
  const std::string what = FolderPathText(*sel.folder);
  if (sel.keys.empty()) {
    for (const MessageRecord& r : sel.file->Messages()) sel.keys.push_back(r.key);
  }
  if (args.has("--eml")) return ExportEml(ctx, *sel.file, what, sel.keys, args.value("--eml"));
  return ExportMbox(ctx, *sel.file, what, sel.keys, args.value("--mbox"));
}

}  // namespace trv::cli
