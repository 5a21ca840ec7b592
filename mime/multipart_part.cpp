// CXmMultiPartPart and CXmPlainTextPart.
#include "mime/message_part.h"
#include "mime/message_stamp.h"
#include "mime/part_parser.h"
#include "mime/mime_result.h"

namespace trv {

namespace {

constexpr char kPreambleText[] = "This is a multi-part message in MIME format.";
// New boundaries that clash with an ancestor's are drawn again this often
// before the nesting depth is appended to make them differ.
constexpr int kBoundaryDraws = 8;

void Keep(Result* first, Result r) {
  if (first->ok() && r.failed()) *first = r;
}

bool AncestorUses(const CXmMultiPartPart* part, WStringView boundary) {
  for (const CXmMultiPartPart* p = part->parent(); p; p = p->parent()) {
    if (p->header().Boundary() == boundary) return true;
  }
  return false;
}

int Depth(const CXmMessagePart* part) {
  int depth = 0;
  for (const CXmMultiPartPart* p = part->parent(); p; p = p->parent()) ++depth;
  return depth;
}

}  // namespace

CXmMultiPartPart::CXmMultiPartPart(CXmMultiPartPart* parent, CXmMimeMessage* message)
    : CXmMessagePart(parent, message) {
  default_type_ = u"multipart/mixed";
  header_.SetContentType(default_type_);
}

void CXmMultiPartPart::Reset() {
  CXmMessagePart::Reset();
  children_.clear();
  preamble_offset_ = preamble_length_ = epilogue_length_ = 0;
}

Result CXmMultiPartPart::Parse(CXmHeader header, CXmPartParser& parser) {
  Reset();
  header_ = std::move(header);
  std::string boundary = CXmPartParser::BoundaryBytes(header_);
  if (boundary.empty()) {
    // Only reachable when called directly: read the body as one text part.
    parser.Note(kProblemNoBoundary);
    auto text = std::make_unique<CXmPlainTextPart>(this, message_);
    uint64_t offset = 0;
    uint64_t length = 0;
    Result status = parser.Scan(kEncoding8bit, &offset, &length);
    text->SetBodyRange(offset, length, kEncoding8bit);
    children_.push_back(std::move(text));
    Keep(&status, rc::kMimeSyntax);
    status_ = status;
    return status;
  }

  const int own = parser.PushBoundary(std::move(boundary));
  Result status = parser.Scan(kEncoding7bit, &preamble_offset_, &preamble_length_);
  const bool seen_boundary = parser.hit().level == own;
  const bool digest = GetSubtype() == u"digest";
  while (parser.hit().level == own && !parser.hit().closing) {
    if (!parser.CountPart()) {
      Keep(&status, rc::kMimeSyntax);
      uint64_t offset = 0;
      uint64_t length = 0;
      do {
        Keep(&status, parser.Scan(kEncoding7bit, &offset, &length));
      } while (parser.hit().level == own && !parser.hit().closing);
      break;
    }
    CXmHeader child_header;
    Keep(&status, parser.ReadHeader(&child_header));
    Result made;
    std::unique_ptr<CXmMessagePart> child = parser.MakePart(&child_header, this, message_, digest, &made);
    Keep(&status, made);
    Keep(&status, child->Parse(std::move(child_header), parser));
    children_.push_back(std::move(child));
  }
  const BoundaryHit end = parser.hit();
  parser.PopBoundary();

  if (end.level == own) {
    // The closing delimiter. Inside another container the epilogue runs to
    // the parent's next boundary line; after the root's it is not read.
    if (own > 0) {
      uint64_t offset = 0;
      Keep(&status, parser.Scan(kEncoding7bit, &offset, &epilogue_length_));
    }
  } else {
    parser.Note(kProblemUnterminated);
    Keep(&status, rc::kMimeSyntax);
    if (!seen_boundary) {
      // The boundary never came: everything was preamble. Keep it as text.
      parser.Note(kProblemBoundaryNotFound);
      auto text = std::make_unique<CXmPlainTextPart>(this, message_);
      text->SetBodyRange(preamble_offset_, preamble_length_, kEncoding8bit);
      children_.push_back(std::move(text));
    }
  }
  status_ = status;
  return status;
}

Result CXmMultiPartPart::Write(CXmStream& out, const MimeWriteOptions& options) {
  WString boundary = header_.Boundary();
  if (boundary.empty() || AncestorUses(this, boundary)) {
    StampSource& stamp = options.stamp ? *options.stamp : SystemStamp();
    for (int draw = 0; draw < kBoundaryDraws && (boundary.empty() || AncestorUses(this, boundary)); ++draw) {
      boundary = MakeBoundary(stamp);
    }
    if (AncestorUses(this, boundary)) boundary += u"_" + W(std::to_string(Depth(this)));
    CXmHeaderField* ct = header_.Find(field::kContentType);
    if (!ct) ct = &header_.SetValue(field::kContentType, default_type_);
    ct->SetParam(field::kParamBoundary, boundary);
  }
  const std::string line = "--" + CXmPartParser::BoundaryBytes(header_);

  Result status = WriteHeaderBlock(out, options);
  if (status.failed() && status != rc::kMimeCharset) return status;
  if (!parent_) {
    if (Result r = out.Write(kPreambleText); r.failed()) return r;
  }
  if (Result r = out.Write("\r\n" + line + "\r\n"); r.failed()) return r;
  for (size_t i = 0; i < children_.size(); ++i) {
    Keep(&status, children_[i]->Write(out, options));
    const bool last = i + 1 == children_.size();
    if (Result r = out.Write("\r\n" + line + (last ? "--\r\n" : "\r\n")); r.failed()) return r;
  }
  return status;
}

uint64_t CXmMultiPartPart::GetBodySize() const {
  uint64_t total = 0;
  for (const auto& child : children_) total += child->GetBodySize();
  return total;
}

CXmMessagePart* CXmMultiPartPart::AddChild(std::unique_ptr<CXmMessagePart> child) {
  child->Adopt(this, message_);
  children_.push_back(std::move(child));
  return children_.back().get();
}

void CXmMultiPartPart::SetSubtype(WStringView subtype) {
  CXmHeaderField* ct = header_.Find(field::kContentType);
  const WString value = u"multipart/" + WString(subtype);
  if (ct) {
    ct->set_value(value);
  } else {
    header_.SetValue(field::kContentType, value);
  }
}

CXmPlainTextPart::CXmPlainTextPart(CXmMultiPartPart* parent, CXmMimeMessage* message)
    : CXmMultiPartPart(parent, message) {
  default_type_ = u"text/plain";
  header_.SetContentType(default_type_);
}

Result CXmPlainTextPart::Parse(CXmHeader header, CXmPartParser& parser) {
  Reset();
  return CXmMessagePart::Parse(std::move(header), parser);
}

Result CXmPlainTextPart::Write(CXmStream& out, const MimeWriteOptions& options) {
  return CXmMessagePart::Write(out, options);
}

const CXmMessagePart::Children& CXmPlainTextPart::children() const { return CXmMessagePart::children(); }

}  // namespace trv
