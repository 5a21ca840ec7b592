#include "app/cli/show_modes.h"

#include "core/message_import.h"
#include "mime/header.h"

namespace trv::cli {

namespace {

int NotAvailable(CliContext& ctx, const std::string& mode, const std::string& what) {
  return Fail(ctx, "cannot show " + what + " with " + mode + ": message rendering is not available yet",
              rc::kNotImplemented);
}

}  // namespace

int ShowDefault(CliContext& ctx, const std::string& what, const std::string& text) {
  CXmHeader header;
  header.Parse(text, "us-ascii").Ignore();  // what could be read is shown
  std::string out;
  const std::pair<const char*, std::string> lines[] = {
      {"From", Utf8(AddressListText(header, field::kFrom))},
      {"To", Utf8(AddressListText(header, field::kTo))},
      {"CC", Utf8(AddressListText(header, field::kCc))},
      {"Subject", Utf8(header.DisplayText(field::kSubject))},
      {"Date", Utf8(header.DisplayText(field::kDate))},
  };
  for (const auto& [name, value] : lines) {
    if (!value.empty()) out += std::string(name) + ": " + value + "\n";
  }
  WriteOut(ctx, out);
  Warn(ctx, "body rendering is not available yet; \"show PATH KEY --raw\" prints the stored text of " + what);
  return kExitOk;
}

int ShowHtml(CliContext& ctx, const std::string& what, const std::string&) {
  return NotAvailable(ctx, "--html", what);
}

int ShowParts(CliContext& ctx, const std::string& what, const std::string&) {
  return NotAvailable(ctx, "--parts", what);
}

}  // namespace trv::cli
