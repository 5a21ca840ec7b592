// compose: a new message from the options, built as the compose window
// builds it, put unsent into the account's "Outbox" (or "Drafts").
#include <unistd.h>

#include <cstdio>

#include "app/cli/commands.h"
#include "base/file_io.h"
#include "core/message_import.h"
#include "mime/compose.h"
#include "mime/message_text.h"
#include "services/outbox.h"
#include "services/service_registry.h"

namespace trv::cli {

namespace {

// Every value of a repeatable address option, joined into one list.
WString AddressList(const ParsedArgs& args, const char* option) {
  std::string joined;
  for (const std::string& v : args.values(option)) joined += (joined.empty() ? "" : ", ") + v;
  return Utf8ToWide(joined);
}

Result ReadStandardInput(std::string* text) {
  char buf[65536];
  size_t n = 0;
  while ((n = std::fread(buf, 1, sizeof buf, stdin)) > 0) text->append(buf, n);
  return std::ferror(stdin) ? ResultFromErrno(EIO) : rc::kOk;
}

// The text bodies: the files given, else standard input as plain text.
bool ReadBodies(CliContext& ctx, const ParsedArgs& args, ComposedParts* parts, int* status) {
  for (auto [option, html] : {std::pair{"--body-file", false}, std::pair{"--html-file", true}}) {
    if (!args.has(option)) continue;
    std::string bytes;
    if (Result r = ReadWholeFile(args.value(option), &bytes); r.failed()) {
      *status = Fail(ctx, "cannot read " + args.value(option), r);
      return false;
    }
    parts->bodies.push_back({Utf8ToWide(bytes), html});
  }
  if (!parts->bodies.empty()) return true;
  std::string bytes;
  if (Result r = ReadStandardInput(&bytes); r.failed()) {
    *status = Fail(ctx, "cannot read the body from standard input", r);
    return false;
  }
  parts->bodies.push_back({Utf8ToWide(bytes), false});
  return true;
}

}  // namespace

bool ValidateCompose(const ParsedArgs& args, std::string* error) {
  if (!args.has("--account") || !args.has("--subject")) {
    *error = "compose needs --account and --subject";
  } else if (args.values("--to").empty() && !args.has("--draft")) {
    *error = "compose needs --to (a draft may go without)";
  } else if (args.has("--priority") && args.value("--priority") != "low" && args.value("--priority") != "normal" &&
             args.value("--priority") != "high") {
    *error = "--priority takes low, normal or high";
  }
  return error->empty();
}

int RunCompose(CliContext& ctx, const ParsedArgs& args) {
  MailService* service = FindService(*ctx.engine, args.value("--account"));
  if (service == nullptr) return Fail(ctx, "no account \"" + args.value("--account") + "\"", FromWin32(1168));
  const ServiceSettings s = service->settings();
  ComposedMessage c;
  c.from = AccountFromField(s);
  c.reply_to = s.reply_address;
  c.to = AddressList(args, "--to");
  c.cc = AddressList(args, "--cc");
  c.bcc = AddressList(args, "--bcc");
  c.subject = Utf8ToWide(args.value("--subject"));
  const std::string& priority = args.value("--priority");
  c.priority = priority == "low" ? Priority::kLow : priority == "high" ? Priority::kHigh : Priority::kNormal;
  c.unsent = true;
  for (auto [option, items] : {std::pair{"--inline", &c.parts.inline_items}, {"--attach", &c.parts.attachments}}) {
    for (const std::string& f : args.values(option)) items->emplace_back().path = f;
  }
  int status = kExitOk;
  if (!ReadBodies(ctx, args, &c.parts, &status)) return status;

  ComposeOptions options;
  options.sending_charset = s.sending_charset;
  options.body_encoding = s.body_encoding;
  options.save_unsent = true;
  CXmMimeMessage message;
  uint16_t flags = 0;
  ComposeReport report;
  if (Result r = ComposeMessage(c, options, &message, &flags, &report); r.failed()) {
    const std::string file = report.failed_file.empty() ? "" : " (" + report.failed_file.string() + ")";
    return Fail(ctx, "cannot compose the message" + file, r);
  }
  MimeWriteOptions write;
  write.header = report.header_options();
  std::string text;
  if (Result r = message.Write(&text, write); r.failed()) return Fail(ctx, "cannot write the message", r);

  const bool draft = args.has("--draft");
  MailFolder* folder = service->storage().SpecialFolder(draft ? kFolderDrafts : kFolderOutbox);
  if (folder == nullptr) return Fail(ctx, "the account's storage has no " + std::string(draft ? "Drafts" : "Outbox"),
                                     rc::kFileMissing);
  uint32_t key = 0;
  if (Result r = draft ? StoreDraft(*service, text, flags, &key) : QueueForSending(*service, text, &key);
      r.failed()) {
    return Fail(ctx, "cannot store the message in \"" + FolderPathText(*folder) + "\"", r);
  }
  if (report.charset_changed) {
    Warn(ctx, "the text does not fit " + (s.sending_charset.empty() ? "us-ascii" : s.sending_charset) + "; written in " +
                  report.charset);
  }
  WriteOut(ctx, FolderPathText(*folder) + " " + KeyText(key) + "\n");
  return kExitOk;
}

}  // namespace trv::cli
