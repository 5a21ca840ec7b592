#include "mime/message_part.h"

#include <algorithm>

#include "mime/charset/converter.h"
#include "mime/encoded_word.h"
#include "mime/header_split.h"
#include "mime/message_flags.h"
#include "mime/mime_message.h"
#include "mime/part_parser.h"
#include "mime/mime_result.h"

namespace trv {

namespace {

void Keep(Result* first, Result r) {
  if (first->ok() && r.failed()) *first = r;
}

// Opens a composed body's content for reading.
Result OpenContent(const PartBody& body, std::unique_ptr<CXmStream>* content) {
  if (body.kind == PartBody::kBytes) {
    *content = std::make_unique<CXmViewStream>(body.bytes);
    return rc::kOk;
  }
  auto file = std::make_unique<CXmFileStream>();
  if (Result r = file->Open(body.path, CXmFileStream::kRead); r.failed()) return r;
  *content = std::move(file);
  return rc::kOk;
}

}  // namespace

CXmMessagePart::CXmMessagePart(CXmMultiPartPart* parent, CXmMimeMessage* message)
    : parent_(parent), message_(message) {
  header_.SetContentType(default_type_);
}

CXmMessagePart::~CXmMessagePart() = default;

Result CXmMessagePart::Parse(CXmHeader header, CXmPartParser& parser) {
  Reset();
  header_ = std::move(header);
  encoding_ = TransferEncodingFromName(header_.GetContentTransferEncoding());
  uint64_t offset = 0;
  uint64_t length = 0;
  status_ = parser.Scan(encoding_, &offset, &length);
  SetBodyRange(offset, length, encoding_);
  return status_;
}

Result CXmMessagePart::WriteHeaderBlock(CXmStream& out, const MimeWriteOptions& options) const {
  Result status;
  if (options.for_transport && !parent_) {
    CXmHeader copy = header_;
    copy.Remove(field::kBcc);
    copy.Remove(field::kResentBcc);
    copy.Remove(kFieldXUnsent);
    status = copy.Write(out, options.header);
  } else {
    status = header_.Write(out, options.header);
  }
  // The header writer's own status is a character-set one; anything else is
  // the stream's.
  if (status.failed() && status != rc::kMimeCharset) return status;
  if (Result r = out.Write("\r\n"); r.failed()) return r;
  return status;
}

Result CXmMessagePart::Write(CXmStream& out, const MimeWriteOptions& options) {
  if (body_.kind != PartBody::kBytes && body_.kind != PartBody::kFile) {
    Result status = WriteHeaderBlock(out, options);
    if (status.failed() && status != rc::kMimeCharset) return status;
    if (body_.kind == PartBody::kSource) {
      CXmMessageSource* source = message_ ? message_->source().get() : nullptr;
      if (!source) return rc::kInvalidArg;
      if (Result r = CopySourceRange(*source, body_.offset, body_.length, out); r.failed()) return r;
    }
    return status;
  }

  std::unique_ptr<CXmStream> content;
  if (Result r = OpenContent(body_, &content); r.failed()) return r;
  const std::string& name = encoding_name_.empty() && IsText() ? options.body_encoding : encoding_name_;
  bool known = false;
  TransferEncoding code = TransferEncodingFromName(name, &known);
  if (!known) {
    if (Result r = ChooseTransferEncoding(*content, 0, &code); r.failed()) return r;
  }
  header_.SetContentTransferEncoding(TransferEncodingNameW(code));
  Result status = WriteHeaderBlock(out, options);
  if (status.failed() && status != rc::kMimeCharset) return status;
  if (Result r = content->Rewind(); r.failed()) return r;
  auto encoder = MakeTransferEncoder(code, out);
  if (Result r = CopyStream(*content, *encoder, 64 * 1024); r.failed()) return r;
  if (Result r = encoder->Finish(); r.failed()) return r;
  return status;
}

void CXmMessagePart::SplitType(WString* type, WString* subtype) const {
  const CXmHeaderField* f = header_.Find(field::kContentType);
  WStringView value = f ? TrimView(f->value()) : WStringView();
  if (value.empty()) value = default_type_;
  SplitMediaType(value, type, subtype);
}

WString CXmMessagePart::GetType() const {
  WString type;
  WString subtype;
  SplitType(&type, &subtype);
  return type;
}

WString CXmMessagePart::GetSubtype() const {
  WString type;
  WString subtype;
  SplitType(&type, &subtype);
  return subtype;
}

WString CXmMessagePart::GetContentType() const {
  WString type;
  WString subtype;
  SplitType(&type, &subtype);
  return type + u"/" + subtype;
}

void CXmMessagePart::Reset() {
  header_.Clear();
  body_ = PartBody();
  encoding_ = kEncoding8bit;
  status_ = rc::kOk;
}

uint64_t CXmMessagePart::GetBodySize() const {
  switch (body_.kind) {
    case PartBody::kSource: return body_.length;
    case PartBody::kBytes: return body_.bytes.size();
    case PartBody::kFile: {
      std::error_code ec;
      const auto size = std::filesystem::file_size(body_.path, ec);
      return ec ? 0 : size;
    }
    case PartBody::kNone: break;
  }
  return 0;
}

Result CXmMessagePart::DecodeBody(CXmStream& out) const {
  return DecodeBody(message_ ? message_->source().get() : nullptr, out);
}

Result CXmMessagePart::DecodeBody(CXmMessageSource* source, CXmStream& out) const {
  switch (body_.kind) {
    case PartBody::kNone: return rc::kOk;
    case PartBody::kBytes: return out.Write(body_.bytes);
    case PartBody::kFile: {
      std::unique_ptr<CXmStream> content;
      if (Result r = OpenContent(body_, &content); r.failed()) return r;
      return CopyStream(*content, out, 64 * 1024);
    }
    case PartBody::kSource: break;
  }
  if (!source) return rc::kInvalidArg;
  auto decoder = MakeTransferDecoder(encoding_, out);
  if (Result r = CopySourceRange(*source, body_.offset, body_.length, *decoder); r.failed()) return r;
  if (Result r = decoder->Finish(); r.failed()) return r;
  return decoder->clean() ? rc::kOk : rc::kMimeSyntax;
}

Result CXmMessagePart::GetText(WString* text) const {
  return GetText(message_ ? message_->source().get() : nullptr, text);
}

Result CXmMessagePart::GetText(CXmMessageSource* source, WString* text) const {
  text->clear();
  CXmMemoryStream decoded;
  Result status = DecodeBody(source, decoded);
  if (status.failed() && status != rc::kMimeSyntax) return status;
  CXmConverter converter(GetCharset(), "utf-16");
  if (!converter.Convert(decoded.data(), text)) Keep(&status, rc::kMimeCharset);
  std::replace(text->begin(), text->end(), u'\0', u'\uFFFD');
  return status;
}

void CXmMessagePart::SetBody(std::string content) {
  body_ = PartBody();
  body_.kind = PartBody::kBytes;
  body_.bytes = std::move(content);
}

void CXmMessagePart::SetBodyFile(std::filesystem::path path) {
  body_ = PartBody();
  body_.kind = PartBody::kFile;
  body_.path = std::move(path);
}

void CXmMessagePart::SetBodyRange(uint64_t offset, uint64_t length, TransferEncoding encoding) {
  body_ = PartBody();
  body_.kind = PartBody::kSource;
  body_.offset = offset;
  body_.length = length;
  encoding_ = encoding;
}

bool CXmMessagePart::IsText() const { return GetType() == u"text"; }
bool CXmMessagePart::IsPlainText() const {
  WString type;
  WString subtype;
  SplitType(&type, &subtype);
  return type == u"text" && subtype == u"plain";
}
bool CXmMessagePart::IsMessage() const { return GetType() == u"message"; }
bool CXmMessagePart::IsImage() const { return GetType() == u"image"; }
bool CXmMessagePart::IsAudio() const { return GetType() == u"audio"; }
bool CXmMessagePart::IsVideo() const { return GetType() == u"video"; }

bool CXmMessagePart::IsAttachment() const {
  const CXmHeaderField* f = header_.Find(field::kContentDisposition);
  if (!f) return false;
  const WStringView disposition = TrimView(f->value());
  if (disposition.empty()) return !f->GetParam(field::kParamFilename).empty();
  return !EqualsNoCase(disposition, u"inline");
}

WString CXmMessagePart::GetFileName() const {
  WString name = header_.GetParam(field::kContentDisposition, field::kParamFilename);
  if (name.empty()) name = header_.GetParam(field::kContentType, field::kParamName);
  if (name.find(u"=?") != WString::npos) name = DecodeHeaderText(name);
  return name;
}

void CXmMessagePart::SetFileName(WStringView name) {
  header_.SetContentDisposition(field::kDispositionAttachment);
  header_.Find(field::kContentDisposition)->SetParam(field::kParamFilename, WString(name));
}

WString CXmMessagePart::GetContentId() const {
  WString id = header_.GetContentId();
  std::erase_if(id, [](char16_t c) { return c == u' ' || c == u'\t'; });
  return id;
}

std::string CXmMessagePart::GetCharset() const {
  if (!charset_override_.empty()) return charset_override_;
  if (message_ && !message_->charset_override().empty()) return message_->charset_override();
  const WString declared(TrimView(header_.GetParam(field::kContentType, field::kParamCharset)));
  return declared.empty() ? std::string("us-ascii") : WideToUtf8(declared);
}

const CXmMessagePart::Children& CXmMessagePart::children() const {
  static const Children kNone;
  return kNone;
}

void CXmMessagePart::Adopt(CXmMultiPartPart* parent, CXmMimeMessage* message) {
  parent_ = parent;
  message_ = message;
  if (!IsMultipart()) return;
  auto* self = static_cast<CXmMultiPartPart*>(this);
  for (const auto& child : children()) child->Adopt(self, message);
}

}  // namespace trv
