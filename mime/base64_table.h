// The base64 alphabet and its decoding table for the stream filters
// (internal to trv_mime).
#pragma once

#include <cstdint>

namespace trv::b64 {

inline constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

inline constexpr int8_t kBlank = -1;    // CR, LF, space, TAB: skipped silently
inline constexpr int8_t kPadding = -2;  // "="
inline constexpr int8_t kOther = -3;    // anything else: skipped, input unclean

// Symbol values 0..63, or one of the negative classes above.
struct DecodeTable {
  int8_t v[256];
  constexpr DecodeTable() : v() {
    for (int i = 0; i < 256; ++i) v[i] = kOther;
    for (int i = 0; i < 64; ++i) v[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int8_t>(i);
    for (unsigned char c : {'\r', '\n', ' ', '\t'}) v[c] = kBlank;
    v[static_cast<unsigned char>('=')] = kPadding;
  }
};
inline constexpr DecodeTable kDecode;

}  // namespace trv::b64
