#include "mime/charset/charset.h"

#include "mime/charset/charset_table.h"
#include "mime/charset/text_codec.h"

namespace trv {

namespace {

class Charset final : public CXmCharset {
 public:
  explicit Charset(cnv::CharsetId id) : id_(std::move(id)) {}

  const std::string& Name() const override { return id_.mime_name; }
  WString DisplayName() const override {
    const cnv::TableEntry* e = cnv::FindTableEntry(id_.mime_name);
    return Utf8ToWide(e ? e->display : id_.mime_name);
  }
  bool Decode(std::string_view bytes, WString* out, uint32_t flags) const override {
    return cnv::DecodeAll(id_, bytes, flags & kConvertStrict, out);
  }
  bool Encode(WStringView text, std::string* out, uint32_t flags) const override {
    return cnv::EncodeAll(id_, text, flags & kConvertStrict, out);
  }

 private:
  cnv::CharsetId id_;
};

}  // namespace

std::unique_ptr<CXmCharset> CreateCharset(std::string_view name) {
  cnv::CharsetId id = cnv::Resolve(name);
  if (id.kind == cnv::CodecKind::kUnknown) return nullptr;
  return std::make_unique<Charset>(std::move(id));
}

bool IsKnownCharset(std::string_view name) {
  return cnv::Resolve(name).kind != cnv::CodecKind::kUnknown;
}

void EnumCharsets(const std::function<bool(const CharsetListing&)>& visit) {
  if (!visit) return;
  const cnv::TableEntry* e = cnv::TableBegin();
  for (size_t i = 0; i < cnv::TableSize(); ++i, ++e) {
    if (!e->listed) continue;
    if (!visit({Utf8ToWide(e->display), Latin1ToWide(e->mime_name), e->mime_name, e->system_name})) return;
  }
}

void DeInitCharsets() { cnv::ClearResolveCache(); }

}  // namespace trv
