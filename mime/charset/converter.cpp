#include "mime/charset/converter.h"

#include <algorithm>

#include "mime/charset/text_codec.h"
#include "mime/mime_result.h"

namespace trv {

CXmConverter::CXmConverter() = default;

CXmConverter::CXmConverter(std::string_view src_charset, std::string_view dst_charset)
    : src_(src_charset), dst_(dst_charset) {}

CXmConverter::~CXmConverter() = default;

void CXmConverter::SetSrcCharsetName(std::string_view name) { src_.assign(name); }
void CXmConverter::SetDstCharsetName(std::string_view name) { dst_.assign(name); }

bool CXmConverter::Finish(bool ok) {
  last_error_ = ok ? rc::kOk : rc::kMimeCharset;
  return ok;
}

bool CXmConverter::Convert(std::string_view in, WString* out, uint32_t flags) {
  out->clear();
  return Finish(cnv::DecodeAll(cnv::Resolve(src_), in, flags & kConvertStrict, out));
}

bool CXmConverter::Convert(WStringView in, std::string* out, uint32_t flags) {
  out->clear();
  return Finish(cnv::EncodeAll(cnv::Resolve(dst_), in, flags & kConvertStrict, out));
}

bool CXmConverter::Convert(const char* in, size_t length, std::string* out, uint32_t flags) {
  out->clear();
  const bool strict = flags & kConvertStrict;
  WString text;
  bool ok = cnv::DecodeAll(cnv::Resolve(src_), std::string_view(in, length), strict, &text);
  if (!ok && strict) return Finish(false);
  ok = cnv::EncodeAll(cnv::Resolve(dst_), text, strict, out) && ok;
  return Finish(ok);
}

bool CXmConverter::Convert(CXmStream& in, CXmStream& out, size_t buffer_size, int mode) {
  const bool strict = mode == 1;
  auto decoder = cnv::MakeDecoder(cnv::Resolve(src_), strict);
  auto encoder = cnv::MakeEncoder(cnv::Resolve(dst_), strict);
  std::string buf(std::max<size_t>(buffer_size, 16), '\0');
  WString text;
  std::string bytes;
  bool ok = true;
  for (;;) {
    size_t got = 0;
    if (Result r = in.Read(buf.data(), buf.size(), &got); r.failed()) {
      last_error_ = r;
      return false;
    }
    const bool last = got == 0;
    text.clear();
    bytes.clear();
    ok = decoder->Decode(std::string_view(buf.data(), got), last, &text) && ok;
    if (!ok && strict) return Finish(false);
    ok = encoder->Encode(text, last, &bytes) && ok;
    if (!bytes.empty()) {
      if (Result r = out.Write(bytes); r.failed()) {
        last_error_ = r;
        return false;
      }
    }
    if (!ok && strict) return Finish(false);
    if (last) return Finish(ok);
  }
}

}  // namespace trv
