#include "mime/header.h"

#include "mime/charset/converter.h"
#include "mime/encoded_word.h"
#include "mime/field_line.h"
#include "mime/header_split.h"
#include "mime/rfc2231.h"
#include "mime/mime_result.h"

namespace trv {

namespace {
void Keep(Result* first, Result r) {
  if (first->ok() && r.failed()) *first = r;
}
}  // namespace

Result ReadHeaderBlock(CXmLineReader& reader, std::string* block, size_t max_size) {
  block->clear();
  Result status;
  std::string line;
  char tail[4] = {0, 0, 0, 0};  // the last four bytes read
  bool first_line = true;
  for (;;) {
    if (Result r = reader.ReadLine(&line); r.failed()) return r;
    if (line.empty()) break;
    if (block->size() + line.size() <= max_size) {
      *block += line;
    } else {
      block->append(line, 0, max_size - block->size());
      Keep(&status, rc::kMimeSyntax);
    }
    for (char c : line.size() > 4 ? std::string_view(line).substr(line.size() - 4) : std::string_view(line)) {
      tail[0] = tail[1];
      tail[1] = tail[2];
      tail[2] = tail[3];
      tail[3] = c;
    }
    if (std::string_view(tail, 4) == "\r\n\r\n") break;
    if (first_line && line == "\r\n") break;
    first_line = false;
  }
  return status;
}

Result CXmHeader::Parse(std::string_view block, std::string_view reading_charset, size_t* end) {
  fields_.clear();
  reading_charset_.assign(reading_charset);
  Result status;
  CXmConverter converter(reading_charset, "utf-16");
  const size_t n = block.size();
  size_t pos = 0;
  std::string text;
  WString wide;
  bool dropped = false;
  for (;;) {
    if (n - pos < 5) {
      pos = n;
      break;
    }
    if (block[pos] == '\r' && block[pos + 1] == '\n') {
      pos += 2;
      break;
    }
    const size_t start = pos;
    text.clear();
    while (pos < n) {
      if (block[pos] == '\r' && pos + 2 < n && block[pos + 1] == '\n' && pos > start &&
          block[pos - 1] != '\\') {
        if (block[pos + 2] != ' ' && block[pos + 2] != '\t') break;
        pos += 3;  // a fold: CR, LF and one blank vanish
        continue;
      }
      if (text.size() < kMaxFieldSize) text.push_back(block[pos]);
      ++pos;
    }
    const std::string_view raw = block.substr(start, pos - start);
    if (pos + 2 <= n && block[pos] == '\r' && block[pos + 1] == '\n') pos += 2;
    if (pos - start > kMaxFieldSize) Keep(&status, rc::kMimeSyntax);
    // A line end that closes the whole text is not part of the field.
    while (pos == n && !text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();

    if (fields_.size() >= kMaxFieldCount) {
      dropped = true;
      continue;
    }
    if (!converter.Convert(text, &wide)) Keep(&status, rc::kMimeCharset);
    CXmHeaderField field;
    Keep(&status, SplitField(wide, &field));
    // Only a field line (mime/field_line.h) or a bare name without ":" is
    // kept; the latter already gave 0xA0003000.
    const bool bare_name = wide.find(u':') == WString::npos;
    if (bare_name ? field.name().empty() || field.name().find(u' ') != WString::npos
                  : !SplitFieldLine(WStringView(wide))) {
      continue;
    }
    if (!MergeRfc2231Parameters(&field.mutable_params())) Keep(&status, rc::kMimeCharset);
    std::string_view raw_text = raw;
    while (!raw_text.empty() && (raw_text.back() == '\n' || raw_text.back() == '\r')) raw_text.remove_suffix(1);
    field.set_raw(std::string(raw_text));
    fields_.push_back(std::move(field));
  }
  if (dropped) Keep(&status, rc::kMimeSyntax);
  if (end) *end = pos;
  return status;
}

Result CXmHeader::Read(CXmLineReader& reader, std::string_view reading_charset) {
  std::string block;
  Result status = ReadHeaderBlock(reader, &block);
  if (status.failed() && status != rc::kMimeSyntax) return status;
  Keep(&status, Parse(block, reading_charset));
  return status;
}

Result CXmHeader::Write(std::string* out, const HeaderWriteOptions& options) const {
  Result status;
  for (const CXmHeaderField& f : fields_) Keep(&status, WriteHeaderField(f, options, out));
  return status;
}

Result CXmHeader::Write(CXmStream& out, const HeaderWriteOptions& options) const {
  std::string text;
  const Result status = Write(&text, options);
  if (Result r = out.Write(text); r.failed()) return r;
  return status;
}

const CXmHeaderField* CXmHeader::Find(WStringView name) const {
  for (const CXmHeaderField& f : fields_) {
    if (EqualsNoCase(f.name(), name)) return &f;
  }
  return nullptr;
}

CXmHeaderField* CXmHeader::Find(WStringView name) {
  return const_cast<CXmHeaderField*>(static_cast<const CXmHeader*>(this)->Find(name));
}

const CXmHeaderField* CXmHeader::FindLast(WStringView name) const {
  for (auto it = fields_.rbegin(); it != fields_.rend(); ++it) {
    if (EqualsNoCase(it->name(), name)) return &*it;
  }
  return nullptr;
}

std::vector<const CXmHeaderField*> CXmHeader::FindAll(WStringView name) const {
  std::vector<const CXmHeaderField*> out;
  for (const CXmHeaderField& f : fields_) {
    if (EqualsNoCase(f.name(), name)) out.push_back(&f);
  }
  return out;
}

WString CXmHeader::GetValue(WStringView name) const {
  const CXmHeaderField* f = Find(name);
  return f ? f->value() : WString();
}

CXmHeaderField& CXmHeader::SetValue(WStringView name, WString value) {
  if (CXmHeaderField* f = Find(name)) {
    f->set_value(std::move(value));
    return *f;
  }
  fields_.push_back(CXmHeaderField(WString(name), std::move(value)));
  return fields_.back();
}

size_t CXmHeader::Remove(WStringView name) {
  return std::erase_if(fields_, [&](const CXmHeaderField& f) { return EqualsNoCase(f.name(), name); });
}

WString CXmHeader::GetParam(WStringView field_name, WStringView param) const {
  const CXmHeaderField* f = Find(field_name);
  return f ? f->GetParam(param) : WString();
}

WString CXmHeader::Boundary() const {
  const CXmHeaderField* f = Find(field::kContentType);
  if (!f) return {};
  WStringView type = f->value();
  type = TrimView(type.substr(0, type.find(u'/')));
  if (!EqualsNoCase(type, u"multipart")) return {};
  WString b = f->GetParam(field::kParamBoundary);
  if (!b.empty() && b[0] == u'"') b = b.size() >= 2 ? b.substr(1, b.size() - 2) : WString();
  return b;
}

WString CXmHeader::UnfoldedText(const CXmHeaderField& f) const {
  if (f.raw().empty()) return f.value();
  const std::string& raw = f.raw();
  const size_t colon = raw.find(':');
  if (colon == std::string::npos) return {};
  std::string text;
  text.reserve(std::min(raw.size() - colon, kMaxFieldSize));
  for (size_t i = colon + 1; i < raw.size() && text.size() < kMaxFieldSize; ++i) {
    if (raw[i] != '\r' && raw[i] != '\n') text.push_back(raw[i]);
  }
  WString wide;
  CXmConverter(reading_charset_, "utf-16").Convert(TrimView(text), &wide);
  return WString(TrimView(wide));
}

WString CXmHeader::DisplayText(WStringView name) const {
  const CXmHeaderField* f = Find(name);
  return f ? DecodeHeaderText(UnfoldedText(*f)) : WString();
}

std::vector<MailAddress> CXmHeader::Addresses(WStringView name) const {
  std::vector<MailAddress> out;
  for (const CXmHeaderField* f : FindAll(name)) {
    std::vector<MailAddress> some = ParseAddressList(UnfoldedText(*f));
    out.insert(out.end(), std::make_move_iterator(some.begin()), std::make_move_iterator(some.end()));
  }
  return out;
}

}  // namespace trv
