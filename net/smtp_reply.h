// The pure parts of the SMTP client: the reply reader, the reply error codes
// and their texts, the EHLO line parser and the DATA dot transformation. No
// I/O here, so the fuzz target drives them directly.
//
// Reply errors: a failed reply becomes
//   0x80C30000 | class << 14 | ((d + 10) & 127) << 7 | (d & 127)
// where d is the number of the code's second and third digits and class is
// 1 for 2xx, 2 for 4xx, 3 for 5xx and the first digit itself otherwise (so
// 3xx also gives 3). Digits that do not read as a number make the middle
// field 1. The fixed codes below did not come from a reply;
// class 2 is a transient failure and class 3 a permanent one.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"

namespace trv {

namespace rc {
// A reply line empty, shorter than 3 characters, or longer than 3 with a
// fourth character that is neither blank nor "-".
inline constexpr Result kSmtpBadReply{0x80C30001};
// The message is larger than the server's SIZE and the confirmation hook said no.
inline constexpr Result kSmtpTooLarge{0x80C30002};
// No AUTH mechanism could be started (none allowed and offered, or refused).
inline constexpr Result kSmtpNoMechanism{0x80C30217};
}  // namespace rc

// "The SMTP server refused the command (reply 550)." for a reply error; ""
// for any other code (the fixed codes have texts of their own).
std::string DescribeSmtpResult(Result r);

inline constexpr ResultTextEntry kSmtpTexts[] = {
    {0x80C30001, "The SMTP server sent a malformed reply."},
    {0x80C30002, "The message is larger than the SMTP server accepts."},
    {0x80C30217, "No authentication mechanism offered by the SMTP server could be used."},
};
inline constexpr ResultFamilyEntry kSmtpFamilies[] = {{0x80C3, "SMTP error", DescribeSmtpResult}};
inline constexpr ResultTextTable kSmtpTextTable{kSmtpTexts, std::size(kSmtpTexts), kSmtpFamilies,
                                                std::size(kSmtpFamilies)};
inline const bool kSmtpTextsRegistered = RegisterResultTexts(kSmtpTextTable);

// The error code of a failed reply whose first line is `line` (formula above).
Result SmtpReplyError(std::string_view line);
// Whether r was made by SmtpReplyError: family 0x80C3 with a middle field
// of 1 (and d 0) or d + 10. (0x80C30217 has a middle field of 4.)
bool IsSmtpReplyError(Result r);
// The class field of a reply error: 2 transient, 3 permanent (or 3xx), 1 for
// a 2xx the command did not expect; 0 for any other code.
uint32_t SmtpReplyClass(Result r);

// Extension bits from the EHLO reply.
inline constexpr uint32_t kSmtpExpn = 1;
inline constexpr uint32_t kSmtpVrfy = 2;
inline constexpr uint32_t kSmtpAuth = 4;
inline constexpr uint32_t kSmtpSize = 8;
inline constexpr uint32_t kSmtpDsn = 16;
inline constexpr uint32_t kSmtpEnhancedStatusCodes = 32;
inline constexpr uint32_t kSmtpStartTls = 64;

// Adds what one EHLO reply line (code and separator included) offers: its
// extension bit, the SASL bits of an AUTH line (PLAIN, LOGIN, CRAM-MD5 only)
// and the number of a SIZE line (0 when there is none). Lines of 4
// characters or fewer, and unknown keywords, add nothing.
void ParseEhloLine(std::string_view line, uint32_t* extensions, uint32_t* mechanisms, uint32_t* max_size);

// The lines of one reply as they are read. A reply ends after a line shorter
// than 3 characters or longer than 3 whose fourth character is not "-"; a
// bare code ("250") does not end it. Only the first kMaxKeptLines lines are
// kept; after kMaxLines lines the reader gives up (Add returns true and
// overlong() is set), so a reply that never ends costs bounded memory.
class SmtpReply {
 public:
  static constexpr size_t kMaxKeptLines = 1000;
  static constexpr size_t kMaxLines = 100000;

  void Clear();
  // Adds a line read (without CR LF); true when the reply is complete.
  bool Add(std::string_view line);

  const std::vector<std::string>& lines() const { return lines_; }
  size_t count() const { return count_; }  // lines read, kept or not
  bool overlong() const { return count_ >= kMaxLines && !ended_; }
  // The first line, "" before any.
  std::string_view first() const;
  // Whether the reply is well formed and its code is `code` ("250").
  bool Is(std::string_view code) const;
  // 0 when Is(code) for one of the codes; rc::kSmtpBadReply when the line
  // that ended the reply is malformed; else SmtpReplyError(first()).
  Result Expect(std::initializer_list<std::string_view> codes) const;

 private:
  bool WellFormed() const;

  std::vector<std::string> lines_;
  std::string last_;  // the line that ended the reply
  size_t count_ = 0;
  bool ended_ = false;
};

// The one change DATA makes to a message: every line that is a lone "."
// after a CR LF (the bytes CR LF "." CR LF) goes out as "..". A dot in the
// first line of the stream, and lines that hold more than the dot, are left
// alone. The pattern is found across pieces: up to two bytes are held back
// until the next piece shows whether they complete it.
class SmtpDotStuffer {
 public:
  // Appends the transformed bytes of the next piece to *out.
  void Add(std::string_view piece, std::string* out);
  // Source bytes given to Add whose output has been produced so far.
  uint64_t consumed() const { return added_ - held(); }
  // Bytes held back (0 to 2) that the next Add or Flush will write.
  size_t held() const;
  // Writes the held bytes.
  void Flush(std::string* out);

 private:
  // 0 none, 1 CR, 2 CR LF, 3 CR LF "." (held), 4 CR LF "." CR (held).
  int state_ = 0;
  uint64_t added_ = 0;
};

}  // namespace trv
