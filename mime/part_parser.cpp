#include "mime/part_parser.h"

#include <cstring>

#include "mime/charset/charset.h"
#include "mime/field_line.h"
#include "mime/header_split.h"
#include "mime/message_part.h"
#include "mime/mime_result.h"

namespace trv {

namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// Bytes of the line end that closes `line`: 2 for CR LF, 1 for a bare LF.
size_t LineEndLength(std::string_view line) {
  if (line.ends_with("\r\n")) return 2;
  return line.ends_with('\n') ? 1 : 0;
}

constexpr struct {
  uint32_t bit;
  const char* text;
} kProblemTexts[] = {
    {kProblemHeaderSyntax, "header syntax error"},
    {kProblemHeaderCharset, "header text in an unknown or wrong character set"},
    {kProblemNoBoundary, "multipart without boundary, read as plain text"},
    {kProblemBoundaryNotFound, "multipart boundary not found, body kept as text"},
    {kProblemUnterminated, "missing closing boundary"},
    {kProblemNulBytes, "NUL bytes"},
    {kProblemLongLines, "over-long lines"},
    {kProblemDepthLimit, "multipart nesting too deep"},
    {kProblemPartLimit, "too many parts, the rest skipped"},
    {kProblemNoHeader, "body part without header"},
};

}  // namespace

std::string DescribeParseProblems(uint32_t problems) {
  std::string text;
  for (const auto& p : kProblemTexts) {
    if (!(problems & p.bit)) continue;
    if (!text.empty()) text += "; ";
    text += p.text;
  }
  return text;
}

CXmPartParser::CXmPartParser(CXmStream& in, std::string reading_charset, uint32_t options, const ParseLimits& limits)
    : reader_(in, kDefaultLineBuffer), reading_charset_(std::move(reading_charset)), options_(options),
      limits_(limits) {
  if (reading_charset_.empty()) reading_charset_ = "us-ascii";
}

uint64_t CXmPartParser::Position() const { return pushed_back_ ? pushed_start_ : reader_.consumed(); }

bool CXmPartParser::NextLine(std::string_view* line, uint64_t* start, bool* at_line_start, Result* error) {
  if (pushed_back_) {
    pushed_back_ = false;
    *line = line_;
    *start = pushed_start_;
    *at_line_start = true;
    return true;
  }
  *start = reader_.consumed();
  *at_line_start = at_line_start_;
  if (Result r = reader_.ReadLine(&line_); r.failed()) {
    *error = r;
    return false;
  }
  if (line_.empty()) return false;
  at_line_start_ = line_.back() == '\n';
  if (!at_line_start_ && line_.size() >= kMaxLineLength) Note(kProblemLongLines);
  if (std::memchr(line_.data(), 0, line_.size())) Note(kProblemNulBytes);
  *line = line_;
  return true;
}

bool CXmPartParser::Classify(std::string_view line, BoundaryHit* hit) const {
  if (line.size() < 3 || line[0] != '-' || line[1] != '-' || boundaries_.empty()) return false;
  if (line.ends_with('\n')) line.remove_suffix(1);
  if (line.ends_with('\r')) line.remove_suffix(1);
  for (int level = static_cast<int>(boundaries_.size()) - 1; level >= 0; --level) {
    const std::string& b = boundaries_[static_cast<size_t>(level)];
    if (line.size() < b.size() + 2 || line.compare(2, b.size(), b) != 0) continue;
    std::string_view rest = line.substr(b.size() + 2);
    const bool closing = rest.starts_with("--");
    if (closing) rest.remove_prefix(2);
    bool blanks_only = true;
    for (char c : rest) blanks_only = blanks_only && IsBlank(c);
    if (!blanks_only) continue;
    *hit = {level, closing};
    return true;
  }
  return false;
}

Result CXmPartParser::ReadHeader(CXmHeader* header) {
  hit_ = {};
  pending_hit_ = false;
  std::string block;
  bool first = true;
  bool cut = false;
  Result error;
  std::string_view line;
  uint64_t start = 0;
  bool line_start = true;
  while (NextLine(&line, &start, &line_start, &error)) {
    if (line_start) {
      if (Classify(line, &hit_)) {
        pending_hit_ = true;
        break;
      }
      if (line == "\r\n" || line == "\n") break;
      if (first && !StartsHeaderField(line)) {
        // An mbox separator before the message header is passed over.
        if (start == 0 && line.starts_with("From ")) continue;
        pushed_back_ = true;
        pushed_start_ = start;
        Note(kProblemNoHeader);
        break;
      }
    }
    first = false;
    if (block.size() + line.size() + 1 > kMaxHeaderBlockSize) {
      cut = true;
      continue;
    }
    if (line.ends_with('\n') && !line.ends_with("\r\n")) {
      block.append(line.substr(0, line.size() - 1));
      block += "\r\n";
    } else {
      block += line;
    }
  }
  if (error.failed()) return error;

  Result status = header->Parse(block, reading_charset_);
  if (!(options_ & kParseIgnoreDeclaredCharset)) {
    const WString declared(TrimView(header->GetParam(field::kContentType, field::kParamCharset)));
    // A set the converter does not know is the body's problem (its text
    // conversion says so), not the header's: the header keeps its first reading.
    if (!declared.empty() && !EqualsNoCase(declared, Latin1ToWide(reading_charset_)) &&
        IsKnownCharset(WideToUtf8(declared))) {
      const Result again = header->Parse(block, WideToUtf8(declared));
      if (status.ok()) status = again;
    }
  }
  if (cut && status.ok()) status = rc::kMimeSyntax;
  if (cut || status == rc::kMimeSyntax) Note(kProblemHeaderSyntax);
  if (status == rc::kMimeCharset) Note(kProblemHeaderCharset);
  return status;
}

std::string CXmPartParser::BoundaryBytes(const CXmHeader& header) {
  const WString boundary = header.Boundary();
  bool ascii = true;
  for (char16_t c : boundary) ascii = ascii && c < 128;
  if (ascii) return WideToLatin1(boundary);
  // Non-ASCII boundaries are compared as the bytes they were written with.
  const CXmHeaderField* f = header.Find(field::kContentType);
  if (!f || f->raw().empty()) return WideToUtf8(boundary);
  std::string raw = f->raw();
  std::erase_if(raw, [](char c) { return c == '\r' || c == '\n'; });
  CXmHeaderField bytes;
  SplitField(Latin1ToWide(raw), &bytes).Ignore();
  WString b = bytes.GetParam(field::kParamBoundary);
  if (!b.empty() && b[0] == u'"') b = b.size() >= 2 ? b.substr(1, b.size() - 2) : WString();
  return WideToLatin1(b);
}

std::unique_ptr<CXmMessagePart> CXmPartParser::MakePart(CXmHeader* header, CXmMultiPartPart* parent,
                                                        CXmMimeMessage* message, bool in_digest, Result* status) {
  *status = rc::kOk;
  CXmHeaderField* ct = header->Find(field::kContentType);
  if (!ct) {
    if (!in_digest) return std::make_unique<CXmPlainTextPart>(parent, message);
    auto part = std::make_unique<CXmMessagePart>(parent, message);
    part->set_default_type(u"message/rfc822");  // RFC 2046 5.1.5
    return part;
  }
  WString type;
  WString subtype;
  SplitMediaType(ct->value(), &type, &subtype);
  if (type == u"multipart") {
    if (BoundaryBytes(*header).empty()) {
      Note(kProblemNoBoundary);
      *status = rc::kMimeSyntax;
      ct->set_value(u"text/plain");
      ct->ClearParams();
      return std::make_unique<CXmMessagePart>(parent, message);
    }
    if (static_cast<int>(boundaries_.size()) >= limits_.max_depth) {
      Note(kProblemDepthLimit);
      *status = rc::kMimeSyntax;
      return std::make_unique<CXmMessagePart>(parent, message);
    }
    return std::make_unique<CXmMultiPartPart>(parent, message);
  }
  if (type == u"text" && subtype == u"plain") return std::make_unique<CXmPlainTextPart>(parent, message);
  return std::make_unique<CXmMessagePart>(parent, message);
}

Result CXmPartParser::Scan(TransferEncoding mode, uint64_t* offset, uint64_t* length) {
  *offset = Position();
  *length = 0;
  if (pending_hit_) {
    pending_hit_ = false;
    return rc::kOk;
  }
  hit_ = {};
  Result error;
  std::string_view line;
  uint64_t start = 0;
  bool line_start = true;
  size_t last_end = 0;  // line end of the line before
  uint64_t end = 0;
  for (;;) {
    if (!NextLine(&line, &start, &line_start, &error)) {
      end = Position();
      break;
    }
    if (line_start && Classify(line, &hit_)) {
      end = start;
      if (mode != kEncodingBase64 && end - *offset >= 2) end -= last_end;
      break;
    }
    last_end = LineEndLength(line);
  }
  *length = end - *offset;
  return error;
}

int CXmPartParser::PushBoundary(std::string boundary) {
  boundaries_.push_back(std::move(boundary));
  return static_cast<int>(boundaries_.size()) - 1;
}

void CXmPartParser::PopBoundary() {
  if (!boundaries_.empty()) boundaries_.pop_back();
}

bool CXmPartParser::CountPart() {
  if (parts_ >= limits_.max_parts) {
    Note(kProblemPartLimit);
    return false;
  }
  ++parts_;
  return true;
}

}  // namespace trv
