#include "mime/compose_text.h"

#include "mime/header_names.h"
#include "mime/stream.h"

namespace trv {

namespace {

Result DecodedBytes(const CXmMessagePart& part, std::string* bytes) {
  CXmMemoryStream out;
  const Result r = part.DecodeBody(out);
  *bytes = out.data();
  return r;
}

std::string TypeOf(const CXmMessagePart& part) {
  return WideToUtf8(ToLowerAscii(part.GetType() + u"/" + part.GetSubtype()));
}

}  // namespace

Result ComposeMessageText(const ComposedMessage& composed, const ComposeOptions& options, std::string* text,
                          uint16_t* flags, ComposeReport* report) {
  text->clear();
  CXmMimeMessage message;
  if (Result r = ComposeMessage(composed, options, &message, flags, report); r.failed()) return r;
  MimeWriteOptions write;
  write.header = report->header_options();
  std::string written;
  if (Result r = message.Write(&written, write); r.failed()) return r;
  *text = std::move(written);
  return rc::kOk;
}

Result ComposedFromMessage(const CXmMimeMessage& message, ComposedMessage* composed) {
  *composed = ComposedMessage();
  const CXmHeader& h = message.header();
  composed->from = h.DisplayText(field::kFrom);
  composed->sender = h.DisplayText(field::kSender);
  composed->reply_to = h.DisplayText(field::kReplyTo);
  composed->to = h.DisplayText(field::kTo);
  composed->cc = h.DisplayText(field::kCc);
  composed->bcc = h.DisplayText(field::kBcc);
  composed->subject = h.DisplayText(field::kSubject);
  composed->in_reply_to = h.DisplayText(field::kInReplyTo);
  composed->references = h.DisplayText(field::kReferences);
  composed->priority = ReadPriority(h);
  composed->unsent = ReadUnsent(h);

  Result first_error = rc::kOk;
  const CXmMessagePart* html = nullptr;
  bool have_text = false;
  for (const CXmMessagePart* part : message.Parts()) {
    if (part->IsMultipart() && !part->IsText()) continue;
    const bool attachment = part->IsAttachment();
    const WString id = part->GetContentId();
    if (!attachment && part->IsPlainText() && !have_text) {
      WString text;
      if (Result r = part->GetText(&text); r.failed() && first_error.ok()) first_error = r;
      composed->parts.bodies.push_back({std::move(text), false});
      have_text = true;
      continue;
    }
    if (!attachment && TypeOf(*part) == "text/html" && id.empty()) {
      if (html == nullptr) html = part;
      continue;
    }
    if (!attachment && id.empty()) continue;
    ComposedItem item;
    if (Result r = DecodedBytes(*part, &item.data); r.failed() && first_error.ok()) first_error = r;
    item.file_name = part->GetFileName();
    item.content_type = TypeOf(*part);
    if (!attachment) item.content_id = id;
    (attachment ? composed->parts.attachments : composed->parts.inline_items).push_back(std::move(item));
  }
  if (!have_text && html != nullptr) {
    WString text;
    if (Result r = html->GetText(&text); r.failed() && first_error.ok()) first_error = r;
    composed->parts.bodies.push_back({std::move(text), true});
  }
  return first_error;
}

}  // namespace trv
