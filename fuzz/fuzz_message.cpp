// Whole messages: the part tree, every body decoded, the reading view and the
// show renderings, the list facts, and the tree written out and parsed again.
// The same text read in pieces of 7 bytes must give the same tree, and every
// body range must lie inside the text.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "mime/message_facts.h"
#include "mime/mime_message.h"
#include "ui/message_show.h"

namespace {

using namespace trv;

class PieceSource final : public CXmMessageSource {
 public:
  explicit PieceSource(std::string_view text) : text_(text) {}
  uint64_t Size() const override { return text_.size(); }
  Result ReadAt(uint64_t offset, void* buf, size_t size, size_t* got) override {
    *got = offset < text_.size() ? std::min<size_t>({size, 7, static_cast<size_t>(text_.size() - offset)}) : 0;
    std::memcpy(buf, text_.data() + offset, *got);
    return rc::kOk;
  }

 private:
  std::string_view text_;
};

std::string Ranges(const CXmMimeMessage& m, size_t size) {
  std::string out;
  for (const CXmMessagePart* p : m.Parts()) {
    const PartBody& b = p->body();
    if (b.kind == PartBody::kSource && b.offset + b.length > size) std::abort();
    out += std::string(p->GetClassName()) + WideToUtf8(p->GetContentType()) + std::to_string(b.offset) + "+" +
           std::to_string(b.length) + ";";
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  ParseLimits limits;
  limits.max_depth = 16;
  limits.max_parts = 300;
  CXmMimeMessage m;
  const Result status = m.ParseText(text, "us-ascii", kParseKeepSource, limits);
  CXmMimeMessage pieces;
  if (pieces.Parse(std::make_shared<PieceSource>(text), "us-ascii", kParseKeepSource, limits) != status ||
      Ranges(pieces, size) != Ranges(m, size) || pieces.problems() != m.problems()) {
    std::abort();
  }

  for (const CXmMessagePart* p : m.Parts()) {
    CXmCountingStream sink;
    p->DecodeBody(sink).Ignore();
    WString body;
    p->GetText(&body).Ignore();
    p->GetFileName();
    p->IsAttachment();
  }
  ReadMessageFacts(m);
  RenderPartTree(m);
  RenderMessageText(m);
  MessageViewOptions html;
  html.prefer_html = true;
  RenderMessageHtml(m, html);

  std::string written;
  m.Write(&written).Ignore();
  CXmMimeMessage again;
  again.ParseText(written, "us-ascii", kParseKeepSource, limits).Ignore();
  return 0;
}
