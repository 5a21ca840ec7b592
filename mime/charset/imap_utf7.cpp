#include "mime/charset/imap_utf7.h"

#include <cstdint>

namespace trv::cnv {

namespace {
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+,";

int Value(unsigned char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == ',') return 63;
  return -1;
}

bool Printable(char16_t c) { return c >= 0x20 && c <= 0x7E; }
}  // namespace

std::string ImapUtf7Encode(WStringView text) {
  std::string out;
  size_t i = 0;
  while (i < text.size()) {
    const char16_t c = text[i];
    if (c == u'&') {
      out += "&-";
      ++i;
      continue;
    }
    if (Printable(c)) {
      out.push_back(static_cast<char>(c));
      ++i;
      continue;
    }
    out.push_back('&');
    uint32_t acc = 0;
    int bits = 0;
    for (; i < text.size() && !Printable(text[i]); ++i) {
      acc = acc << 16 | text[i];
      bits += 16;
      while (bits >= 6) {
        bits -= 6;
        out.push_back(kAlphabet[(acc >> bits) & 63]);
      }
      acc &= (1u << bits) - 1;
    }
    if (bits > 0) out.push_back(kAlphabet[(acc << (6 - bits)) & 63]);
    out.push_back('-');
  }
  return out;
}

bool ImapUtf7Decode(std::string_view bytes, bool strict, WString* out) {
  bool ok = true;
  size_t i = 0;
  while (i < bytes.size()) {
    const unsigned char c = static_cast<unsigned char>(bytes[i]);
    if (c != '&') {
      if (c >= 0x80) {
        ok = false;
        if (strict) return false;
        out->push_back(0xFFFD);
      } else {
        out->push_back(c);
      }
      ++i;
      continue;
    }
    ++i;
    if (i < bytes.size() && bytes[i] == '-') {
      out->push_back(u'&');
      ++i;
      continue;
    }
    uint32_t acc = 0;
    int bits = 0;
    bool bad = false;
    size_t units = 0;
    for (; i < bytes.size() && bytes[i] != '-'; ++i) {
      const int v = Value(static_cast<unsigned char>(bytes[i]));
      if (v < 0) break;
      acc = acc << 6 | static_cast<uint32_t>(v);
      bits += 6;
      if (bits >= 16) {
        bits -= 16;
        out->push_back(static_cast<char16_t>(acc >> bits));
        acc &= (1u << bits) - 1;
        ++units;
      }
    }
    // The run must end in "-", hold at least one unit and leave only zero bits.
    if (i < bytes.size() && bytes[i] == '-') {
      ++i;
    } else {
      bad = true;
    }
    if (units == 0 || acc != 0 || bits >= 6) bad = true;
    if (bad) {
      ok = false;
      if (strict) return false;
      out->push_back(0xFFFD);
    }
  }
  return ok;
}

}  // namespace trv::cnv
