#include "mime/base64.h"

#include <cstdint>

#include "mime/base64_table.h"

namespace trv {

using b64::kAlphabet;

std::string Base64Encode(std::string_view bytes, int line_width) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4 + (line_width > 0 ? bytes.size() / 38 + 2 : 0));
  int col = 0;
  auto put = [&](char c) {
    if (line_width > 0 && col == line_width) {
      out += "\r\n";
      col = 0;
    }
    out.push_back(c);
    ++col;
  };
  const auto* p = reinterpret_cast<const uint8_t*>(bytes.data());
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const uint32_t v = uint32_t(p[i]) << 16 | uint32_t(p[i + 1]) << 8 | p[i + 2];
    put(kAlphabet[v >> 18]);
    put(kAlphabet[(v >> 12) & 63]);
    put(kAlphabet[(v >> 6) & 63]);
    put(kAlphabet[v & 63]);
  }
  if (i < bytes.size()) {
    uint32_t v = uint32_t(p[i]) << 16;
    if (i + 1 < bytes.size()) v |= uint32_t(p[i + 1]) << 8;
    put(kAlphabet[v >> 18]);
    put(kAlphabet[(v >> 12) & 63]);
    put(i + 1 < bytes.size() ? kAlphabet[(v >> 6) & 63] : '=');
    put('=');
  }
  return out;
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
