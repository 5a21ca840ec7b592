#include "app/cli/show_modes.h"

#include <memory>
#include <optional>

#include "core/folder_message_source.h"
#include "mime/mime_message.h"
#include "mime/part_parser.h"
#include "ui/message_show.h"
#include "mime/mime_result.h"

namespace trv::cli {

int ShowMessage(CliContext& ctx, const std::string& what, FolderFile& file, uint32_t key, ShowMode mode) {
  const std::optional<MessageRecord> record = file.FindMessage(key);
  if (!record) return Fail(ctx, "no message " + what, rc::kInvalidArg);

  CXmMimeMessage message;
  const Result parsed = message.Parse(std::make_shared<FolderMessageSource>(file, key, record->size));
  // Broken MIME is still shown; only a failed read of the folder file ends here.
  if (parsed.failed() && parsed != rc::kMimeSyntax && parsed != rc::kMimeCharset) return Fail(ctx, "cannot read message " + what, parsed);

  Result shown = rc::kOk;
  switch (mode) {
    case ShowMode::kText: WriteOut(ctx, RenderMessageText(message, {}, &shown)); break;
    case ShowMode::kHtml: WriteOut(ctx, RenderMessageHtml(message, {}, &shown)); break;
    case ShowMode::kParts: WriteOut(ctx, RenderPartTree(message)); break;
  }
  if (message.problems() != 0) {
    Warn(ctx, what + ": " + DescribeParseProblems(message.problems()) + "; what could be read is shown");
  } else if (shown == rc::kMimeCharset) {
    Warn(ctx, what + ": the text is in a character set that is unknown or does not fit it; it is shown as well "
                     "as it could be converted");
  } else if (shown.failed()) {
    Warn(ctx, what + ": " + ResultText(shown) + " What could be read is shown.");
  }
  return kExitOk;
}

}  // namespace trv::cli
