#include "mime/base64.h"

#include <cstdint>

#include "mime/base64_table.h"
#include "mime/codec_streams.h"

namespace trv {

std::string Base64Encode(std::string_view bytes, int line_width) {
  // The encoder filter, with a work buffer that holds the whole result.
  CXmMemoryStream out;
  CXmBase64Encoder encoder(out, line_width, (bytes.size() + 2) / 3 * 4 + bytes.size() / 38 + 8);
  encoder.Write(bytes).Ignore();  // a memory stream does not fail
  encoder.Finish().Ignore();
  return out.Take();
}

bool Base64Decode(std::string_view text, std::string& out) {
  out.clear();
  out.reserve(text.size() / 4 * 3 + 3);
  bool clean = true;
  uint32_t acc = 0;
  int n = 0;
  for (unsigned char c : text) {
    const int v = b64::kDecode.v[c];
    if (v < 0) {
      if (v == b64::kPadding) break;
      if (v == b64::kOther) clean = false;
      continue;
    }
    acc = acc << 6 | static_cast<uint32_t>(v);
    if (++n == 4) {
      out.push_back(static_cast<char>(acc >> 16));
      out.push_back(static_cast<char>(acc >> 8));
      out.push_back(static_cast<char>(acc));
      acc = 0;
      n = 0;
    }
  }
  if (n == 2) {
    out.push_back(static_cast<char>(acc >> 4));
  } else if (n == 3) {
    out.push_back(static_cast<char>(acc >> 10));
    out.push_back(static_cast<char>(acc >> 2));
  } else if (n == 1) {
    clean = false;
  }
  return clean;
}

}  // namespace trv
