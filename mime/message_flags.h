// A message's priority and unsent marks: the bits of the composer's flag word
// (kept in the message record) and the header fields "X-Priority" and
// "X-Unsent" that carry them in the message text.
#pragma once

#include <cstdint>

#include "mime/header.h"

namespace trv {

inline constexpr uint16_t kFlagPriorityLow = 2;
inline constexpr uint16_t kFlagPriorityHigh = 4;
inline constexpr uint16_t kFlagUnsent = 32;

inline constexpr char16_t kFieldXPriority[] = u"X-Priority";
inline constexpr char16_t kFieldXUnsent[] = u"X-Unsent";
inline constexpr char16_t kFieldXMailer[] = u"X-Mailer";

enum class Priority : int { kLow = 0, kNormal = 1, kHigh = 2 };

// kLow for the low bit, kHigh for the high bit, else kNormal.
Priority PriorityFromFlags(uint16_t flags);

// Sets the priority (0 low, 1 normal, 2 high; any other value changes
// nothing). Low and high set their bit and "X-Priority" ("5 (lowest)",
// "1 (highest)"); normal clears both bits and leaves "X-Priority" as it is, on
// purpose. Nothing is done when the priority is already the one asked for.
// Returns true when the flags changed (the caller then saves the record).
bool SetPriority(CXmHeader* header, uint16_t* flags, int priority);

// From a stored message: the first character of "X-Priority" after trimming,
// read as a digit (3 when it is none); below 3 is high, above 3 low.
Priority ReadPriority(const CXmHeader& header);

// "X-Unsent" with the value "1".
bool ReadUnsent(const CXmHeader& header);

}  // namespace trv
