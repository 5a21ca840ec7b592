#include "mime/transfer_encoding.h"

#include <algorithm>
#include <string>

namespace trv {

namespace {
constexpr const char* kNames[] = {"Binary", "7bit", "8bit", "base64", "quoted-printable"};
constexpr size_t kCopyBlock = 4096;

// Copies `in` from its start through a filter, which is finished.
Result EncodeThrough(CXmStream& in, CXmFilterStream& filter) {
  if (Result r = in.Rewind(); r.failed()) return r;
  if (Result r = CopyStream(in, filter, kCopyBlock); r.failed()) return r;
  return filter.Finish();
}
}  // namespace

const char* TransferEncodingName(TransferEncoding code) {
  return code >= 0 && code <= 4 ? kNames[code] : kNames[kEncoding8bit];
}

WString TransferEncodingNameW(TransferEncoding code) { return W(TransferEncodingName(code)); }

TransferEncoding TransferEncodingFromName(std::string_view name, bool* known) {
  name = TrimView(name);
  for (int i = 0; i <= 4; ++i) {
    if (EqualsNoCase(name, kNames[i])) {
      if (known) *known = true;
      return static_cast<TransferEncoding>(i);
    }
  }
  if (known) *known = false;
  return kEncoding8bit;
}

TransferEncoding TransferEncodingFromName(WStringView name, bool* known) {
  name = TrimView(name);
  for (char16_t c : name) {
    if (c > 0x7F) {
      if (known) *known = false;
      return kEncoding8bit;
    }
  }
  return TransferEncodingFromName(WideToLatin1(name), known);
}

std::unique_ptr<CXmFilterStream> MakeTransferEncoder(TransferEncoding code, CXmStream& next) {
  if (code == kEncodingBase64) return std::make_unique<CXmBase64Encoder>(next);
  if (code == kEncodingQuotedPrintable) return std::make_unique<CXmQpEncoder>(next);
  return std::make_unique<CXmCopyFilter>(next);
}

std::unique_ptr<CXmFilterStream> MakeTransferDecoder(TransferEncoding code, CXmStream& next) {
  if (code == kEncodingBase64) return std::make_unique<CXmBase64Decoder>(next);
  if (code == kEncodingQuotedPrintable) return std::make_unique<CXmQpDecoder>(next);
  return std::make_unique<CXmCopyFilter>(next);
}

Result ChooseTransferEncoding(CXmStream& body, int64_t limit, TransferEncoding* chosen) {
  *chosen = kEncoding7bit;
  if (Result r = body.Rewind(); r.failed()) return r;
  uint64_t left = limit > 0 ? static_cast<uint64_t>(limit) : UINT64_MAX;
  char buf[kCopyBlock];
  bool eight_bit = false;
  while (left > 0 && !eight_bit) {
    size_t got = 0;
    if (Result r = body.Read(buf, static_cast<size_t>(std::min<uint64_t>(left, sizeof buf)), &got);
        r.failed()) {
      return r;
    }
    if (got == 0) break;
    left -= got;
    eight_bit = std::any_of(buf, buf + got, [](char c) { return static_cast<unsigned char>(c) >= 128; });
  }
  if (!eight_bit) return rc::kOk;

  CXmCountingStream qp_size;
  CXmCountingStream b64_size;
  CXmQpEncoder qp(qp_size);
  CXmBase64Encoder b64(b64_size);
  if (Result r = EncodeThrough(body, qp); r.failed()) return r;
  if (Result r = EncodeThrough(body, b64); r.failed()) return r;
  *chosen = qp_size.Size() >= b64_size.Size() ? kEncodingBase64 : kEncodingQuotedPrintable;
  return rc::kOk;
}

Result WriteEncodedBody(CXmStream& body, std::string_view name, int64_t limit, CXmStream& out,
                        TransferEncoding* used) {
  bool known = false;
  TransferEncoding code = TransferEncodingFromName(name, &known);
  if (!known) {
    if (Result r = ChooseTransferEncoding(body, limit, &code); r.failed()) return r;
  }
  *used = code;
  auto encoder = MakeTransferEncoder(code, out);
  return EncodeThrough(body, *encoder);
}

}  // namespace trv
