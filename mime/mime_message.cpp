#include "mime/mime_message.h"
#include "mime/mime_result.h"

namespace trv {

CXmMimeMessage::CXmMimeMessage() : root_(std::make_unique<CXmPlainTextPart>(nullptr, this)) {}

CXmMimeMessage::~CXmMimeMessage() = default;

Result CXmMimeMessage::Parse(std::shared_ptr<CXmMessageSource> source, std::string_view reading_charset,
                             uint32_t options, const ParseLimits& limits) {
  source_ = std::move(source);
  reading_charset_.assign(reading_charset.empty() ? "us-ascii" : reading_charset);
  CXmSourceStream stream(*source_);
  CXmPartParser parser(stream, reading_charset_, options, limits);

  CXmHeader header;
  Result status = parser.ReadHeader(&header);
  Result made;
  root_ = parser.MakePart(&header, nullptr, this, false, &made);
  if (status.ok()) status = made;
  const Result parsed = root_->Parse(std::move(header), parser);
  if (status.ok()) status = parsed;

  status_ = status;
  problems_ = parser.problems();
  if (!(options & kParseKeepSource)) source_.reset();
  return status;
}

Result CXmMimeMessage::ParseText(std::string text, std::string_view reading_charset, uint32_t options,
                                 const ParseLimits& limits) {
  return Parse(std::make_shared<CXmMemorySource>(std::move(text)), reading_charset, options, limits);
}

Result CXmMimeMessage::Write(CXmStream& out, const MimeWriteOptions& options) { return root_->Write(out, options); }

Result CXmMimeMessage::Write(std::string* out, const MimeWriteOptions& options) {
  CXmMemoryStream stream;
  const Result r = Write(stream, options);
  *out = stream.Take();
  return r;
}

void CXmMimeMessage::SetRoot(std::unique_ptr<CXmMessagePart> root) {
  root_ = std::move(root);
  root_->Adopt(nullptr, this);
}

std::vector<const CXmMessagePart*> CXmMimeMessage::Parts() const {
  std::vector<const CXmMessagePart*> parts;
  ForEachPart(*root_, [&](const CXmMessagePart& p, int) { parts.push_back(&p); });
  return parts;
}

Result ParseAttachedMessage(const CXmMessagePart& part, CXmMimeMessage* out) {
  const CXmMimeMessage* outer = part.message();
  const PartBody& body = part.body();
  const bool in_place = body.kind == PartBody::kSource && outer && outer->source() &&
                        part.encoding() != kEncodingBase64 && part.encoding() != kEncodingQuotedPrintable;
  if (in_place) {
    auto window = std::make_shared<CXmRangeSource>(outer->source(), body.offset, body.length);
    return out->Parse(window, outer->reading_charset());
  }
  CXmMemoryStream decoded;
  const Result r = part.DecodeBody(decoded);
  if (r.failed() && r != rc::kMimeSyntax) return r;
  return out->ParseText(decoded.Take(), outer ? outer->reading_charset() : "us-ascii");
}

}  // namespace trv
