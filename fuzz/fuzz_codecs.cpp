// Base64 and quoted-printable decoders and the line-end filter over arbitrary
// input, and encode/decode round trips, the input cut at a point taken from
// its first byte.
#include <cstddef>
#include <cstdint>
#include <string>

#include "mime/codec_streams.h"

namespace {
template <typename Filter>
std::string Run(std::string_view in, size_t cut) {
  trv::CXmMemoryStream out;
  Filter f(out);
  cut = cut % (in.size() + 1);
  f.Write(in.substr(0, cut)).Ignore();
  f.Write(in.substr(cut)).Ignore();
  f.Finish().Ignore();
  return out.Take();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace trv;
  const std::string_view in(reinterpret_cast<const char*>(data), size);
  const size_t cut = size ? data[0] : 0;
  Run<CXmBase64Decoder>(in, cut);
  Run<CXmQpDecoder>(in, cut);
  // After the line-end filter every CR is followed by LF and every LF follows CR.
  const std::string crlf = Run<CXmLineEndFilter>(in, cut);
  for (size_t i = 0; i < crlf.size(); ++i) {
    if (crlf[i] == '\r' && (i + 1 == crlf.size() || crlf[i + 1] != '\n')) __builtin_trap();
    if (crlf[i] == '\n' && (i == 0 || crlf[i - 1] != '\r')) __builtin_trap();
  }
  if (Run<CXmBase64Decoder>(Run<CXmBase64Encoder>(in, cut), cut) != in) __builtin_trap();
  if (Run<CXmQpDecoder>(Run<CXmQpEncoder>(in, cut), cut) != in) __builtin_trap();
  return 0;
}
