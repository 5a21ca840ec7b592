#include "ui/message_show.h"

#include "mime/stream.h"
#include "mime/html_text.h"

namespace trv {

namespace {

constexpr char kTextSeparator[] = "----------------------------------------\n";

// UTF-8 with "\n" line ends: CR LF and lone CR become LF.
std::string TerminalText(WStringView text) {
  std::string utf8 = WideToUtf8(text);
  std::string out;
  out.reserve(utf8.size());
  for (size_t i = 0; i < utf8.size(); ++i) {
    if (utf8[i] == '\r') {
      out += '\n';
      if (i + 1 < utf8.size() && utf8[i + 1] == '\n') ++i;
    } else {
      out += utf8[i];
    }
  }
  return out;
}

std::string EscapeHtml(std::string_view text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

std::string AttachmentLine(const CXmMessagePart& part) {
  std::string line = "[attachment";
  const WString name = part.GetFileName();
  if (!name.empty()) line += " \"" + WideToUtf8(name) + "\"";
  line += ", " + WideToUtf8(part.GetContentType()) + ", " + std::to_string(DecodedSize(part)) + " bytes]\n";
  return line;
}

}  // namespace

uint64_t DecodedSize(const CXmMessagePart& part) {
  const TransferEncoding e = part.encoding();
  if (part.body().kind != PartBody::kSource || (e != kEncodingBase64 && e != kEncodingQuotedPrintable)) {
    return part.GetBodySize();
  }
  CXmCountingStream counter;
  part.DecodeBody(counter).Ignore();  // damaged encoding: the size of what could be decoded
  return counter.Size();
}

std::string RenderMainHeaders(const CXmMimeMessage& message) {
  const CXmHeader& h = message.header();
  std::string out;
  const std::pair<const char*, const char16_t*> rows[] = {
      {"From", field::kFrom}, {"To", field::kTo}, {"CC", field::kCc}, {"Subject", field::kSubject},
      {"Date", field::kDate},
  };
  for (const auto& [label, name] : rows) {
    if (!h.Find(name)) continue;
    out += label;
    out += ": ";
    out += TerminalText(h.DisplayText(name));
    out += '\n';
  }
  return out;
}

std::string RenderMessageText(const CXmMimeMessage& message, const MessageViewOptions& options, Result* status) {
  const MessageView view = BuildMessageView(message, options);
  if (status) *status = view.status;
  std::string out = RenderMainHeaders(message) + "\n";
  bool had_text = false;
  for (const HtmlBlock& block : view.blocks) {
    if (const auto* picture = std::get_if<HtmlPicture>(&block)) {
      out += "[picture " + WideToUtf8(PictureSource(*picture)) + ", " + std::to_string(picture->width) + "x" +
             std::to_string(picture->height) + "]\n";
      continue;
    }
    if (had_text) out += kTextSeparator;
    had_text = true;
    const auto* text = std::get_if<WString>(&block);
    std::string body = TerminalText(text ? *text : HtmlToPlainText(std::get<HtmlMarkup>(block).html));
    if (!body.empty() && body.back() != '\n') body += '\n';
    out += body;
  }
  for (const CXmMessagePart* part : view.attachments) out += AttachmentLine(*part);
  return out;
}

std::string RenderMessageHtml(const CXmMimeMessage& message, const MessageViewOptions& options, Result* status) {
  const MessageView view = BuildMessageView(message, options);
  if (status) *status = view.status;
  std::string doc = WideToUtf8(BuildHtmlDocument(view.blocks));
  // A document of its own: it says its character set, and the attachments
  // the window shows beside the view are listed at its end.
  constexpr std::string_view kHead = "<HTML><HEAD>";
  if (doc.starts_with(kHead)) doc.insert(kHead.size(), "<META charset=\"utf-8\">");
  doc.insert(0, "<!DOCTYPE html>\n");
  std::string list;
  for (const CXmMessagePart* part : view.attachments) {
    std::string line = AttachmentLine(*part);
    line.pop_back();
    list += EscapeHtml(line) + "<BR>\n";
  }
  constexpr std::string_view kEnd = "</BODY></HTML>";
  if (!list.empty() && doc.ends_with(kEnd)) doc.insert(doc.size() - kEnd.size(), "\n<HR>\n" + list);
  return doc + "\n";
}

std::string RenderPartTree(const CXmMimeMessage& message) {
  std::string out;
  ForEachPart(message.root(), [&](const CXmMessagePart& part, int depth) {
    std::string line(static_cast<size_t>(depth) * 2, ' ');
    line += WideToUtf8(part.GetContentType());
    if (part.IsMultipart()) {
      line += "  " + std::to_string(part.children().size()) + " parts";
    } else {
      line += "  " + std::to_string(part.GetBodySize()) + " bytes";
      if (part.body().kind == PartBody::kSource) {
        // No Content-Transfer-Encoding field means 7bit.
        const bool named = !TrimView(part.header().GetContentTransferEncoding()).empty();
        line += "  " + std::string(named ? TransferEncodingName(part.encoding()) : "7bit");
      }
      if (part.IsText()) line += "  charset=" + part.GetCharset();
    }
    const WString name = part.GetFileName();
    if (!name.empty()) line += "  \"" + WideToUtf8(name) + "\"";
    const WString disposition(TrimView(part.header().GetContentDisposition()));
    if (!disposition.empty()) line += "  " + WideToUtf8(ToLowerAscii(disposition));
    const WString id = part.GetContentId();
    if (!id.empty()) line += "  id=" + WideToUtf8(id);
    out += line + '\n';
  });
  return out;
}

}  // namespace trv
