// The one UTF-8 decoder and encoder (RFC 3629). Every UTF-8 reading in the
// code base goes through ReadUtf8Sequence, so that the file names, the log,
// the settings and message text in "utf-8" all agree byte for byte.
//
// Replacement rule for ill-formed input: each maximal subpart becomes one
// U+FFFD, as Unicode recommends (chapter 3, "U+FFFD Substitution of Maximal
// Subparts"). A maximal subpart is the longest start of a well-formed
// sequence (the byte ranges of RFC 3629 section 4) that the input holds at
// that point, or one byte when even the first byte cannot start one. So:
//   E2 82 41        -> U+FFFD 'A'           (E2 82 is the start of a 3-byte form)
//   C0 AF           -> U+FFFD U+FFFD        (C0 never starts a sequence: overlong)
//   ED A0 80        -> U+FFFD x3            (ED A0 would be a surrogate)
//   F4 90 80 80     -> U+FFFD x4            (beyond U+10FFFF)
//   F0 9F 98 <end>  -> U+FFFD               (truncated: one replacement)
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace trv {

inline constexpr char32_t kReplacementCharacter = 0xFFFD;

enum class Utf8Status {
  kValid,      // a whole well-formed sequence: code_point is set
  kIllFormed,  // a maximal subpart that cannot be completed: one U+FFFD
  kTruncated,  // a well-formed start cut off by the end of the input
};

struct Utf8Sequence {
  Utf8Status status = Utf8Status::kIllFormed;
  char32_t code_point = kReplacementCharacter;
  size_t length = 1;  // bytes taken; at least 1
};

// The sequence at the start of `bytes`. REQUIRES: !bytes.empty(). A
// streaming reader holds a kTruncated sequence back until more input comes
// (or the input ends, when it is one U+FFFD).
Utf8Sequence ReadUtf8Sequence(std::string_view bytes);

// Appends the code point as one UTF-16 unit or a surrogate pair.
void AppendUtf16(char32_t cp, std::u16string* out);
// Appends the code point as 1 to 4 bytes. REQUIRES: a scalar value.
void AppendUtf8(char32_t cp, std::string* out);

// Whole-text forms. Both append, never fail, and return false when anything
// had to be replaced (an ill-formed byte sequence, an unpaired surrogate).
bool DecodeUtf8(std::string_view bytes, std::u16string* out);
bool EncodeUtf8(std::u16string_view text, std::string* out);

}  // namespace trv
