// The POP3 reply readers as pure functions (bytes in, values out, no I/O):
// status lines, the APOP time stamp of the greeting, CAPA lines, and the
// number-and-size and number-and-uid answers and listing lines. The client
// (net/pop3_client.h) and the fuzz target drive them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace trv {

// Capability bits from CAPA lines. "user" sets kPop3CapUser and kPop3CapApop.
inline constexpr uint32_t kPop3CapUser = 1;
inline constexpr uint32_t kPop3CapApop = 2;
inline constexpr uint32_t kPop3CapSasl = 4;
inline constexpr uint32_t kPop3CapTop = 8;
inline constexpr uint32_t kPop3CapUidl = 16;
inline constexpr uint32_t kPop3CapPipelining = 32;
inline constexpr uint32_t kPop3CapStls = 64;
inline constexpr uint32_t kPop3CapLast = 128;
// Assumed until CAPA answers: USER, UIDL and STLS.
inline constexpr uint32_t kPop3InitialCapabilities = kPop3CapUser | kPop3CapUidl | kPop3CapStls;

// A status line is judged by its first character only.
enum class Pop3Status { kOk, kErr, kMalformed };
Pop3Status JudgeStatus(std::string_view line);

// What follows the status word: "+OK 2 320" gives "2 320"; "" when nothing.
std::string_view StatusText(std::string_view line);

// The APOP time stamp: from the first "<" (index i), j characters where j is
// the index of the first ">", cut at the end of the line; "" unless both
// exist with j > i. When text follows the ">", part of it is taken too.
std::string ApopTimestamp(std::string_view greeting);

// Applies one CAPA line (compared lower-cased and whole, except "sasl ",
// whose words replace *sasl_mechanisms) to *capabilities.
void ApplyCapaLine(std::string_view line, uint32_t* capabilities, uint32_t* sasl_mechanisms);

// "n size" with anything after a further blank (STAT, LIST n, LIST lines).
// False unless both are decimal numbers that fit; the outputs are written
// only on success (as for ParseNumberAndUid).
bool ParseNumberAndSize(std::string_view text, uint32_t* number, uint64_t* size);

// "n uid" (UIDL n, UIDL lines): the uid is the word after the number, cut at
// a following blank. False unless the number fits and the uid is not empty.
bool ParseNumberAndUid(std::string_view text, uint32_t* number, std::string_view* uid);

}  // namespace trv
