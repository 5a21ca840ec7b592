// CXmPartParser: the state of one streaming parse of a message into its part
// tree. It reads the message once, front to back, through a 1024-byte line
// reader, keeps the stack of the enclosing containers' boundaries, and
// records where each single part's body lies instead of copying it.
//
// Boundary lines (RFC 2046 5.1.1). A line is a boundary line of a container
// when, at the start of a line, it is "--", the boundary byte for byte (case
// matters), then either nothing but blanks (a delimiter) or "--" and nothing
// but blanks (the closing delimiter), then the line end. Any other character
// after the boundary makes the line body text. Every enclosing container's
// boundary is looked for, the innermost first, so a container whose closing
// delimiter is missing ends at its parent's next boundary line instead of
// swallowing the rest of the message.
//
// Line ends. Stored messages use CR LF, but a bare LF is also taken as a line
// end: when boundary lines are looked for, when a header block ends at an
// empty line, and when the line end before a boundary line is removed (CR LF
// or LF). Header blocks are handed to CXmHeader with CR LF line ends.
//
// The line end before a boundary line belongs to the delimiter and is not part
// of the body, except in base64 bodies (where it does not matter) and when the
// body has fewer than two bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "mime/header.h"
#include "mime/line_reader.h"
#include "mime/stream.h"
#include "mime/transfer_encoding.h"

namespace trv {

class CXmMessagePart;
class CXmMultiPartPart;
class CXmMimeMessage;

// Parse option bits.
inline constexpr uint32_t kParseKeepSource = 1;             // bit 0: the message keeps its source open
inline constexpr uint32_t kParseIgnoreDeclaredCharset = 2;  // no second header decode with a declared charset

// Limits against hostile messages. Each has its problem bit and the status
// 0xA0003000.
struct ParseLimits {
  // Containers nested deeper are read as one single part (the nested
  // boundaries then are body text).
  int max_depth = 64;
  // Parts past this many are not made; the rest of the container is skipped.
  size_t max_parts = 10000;
};

// What was wrong with a message. The parse never stops at these: what could
// be read is in the tree.
enum ParseProblem : uint32_t {
  kProblemHeaderSyntax = 1u << 0,      // a header line without ":", a header limit
  kProblemHeaderCharset = 1u << 1,     // a header could not be converted (kept as guessed)
  kProblemNoBoundary = 1u << 2,        // "multipart" without a boundary: read as plain text
  kProblemBoundaryNotFound = 1u << 3,  // the boundary never appears: the body is kept as text
  kProblemUnterminated = 1u << 4,      // the closing delimiter is missing
  kProblemNulBytes = 1u << 5,          // NUL bytes in the text (kept in bodies)
  kProblemLongLines = 1u << 6,         // lines longer than the line reader's limit
  kProblemDepthLimit = 1u << 7,        // containers nested past ParseLimits::max_depth
  kProblemPartLimit = 1u << 8,         // parts past ParseLimits::max_parts
  kProblemNoHeader = 1u << 9,          // a part that starts with text instead of a header
};

// "missing closing boundary; NUL bytes" and the like, in bit order; empty for 0.
std::string DescribeParseProblems(uint32_t problems);

// Where a scan stopped: at a boundary line of the container at `level` of the
// boundary stack (0 is the outermost), or at the end of the message.
struct BoundaryHit {
  int level = -1;
  bool closing = false;
  bool at_end() const { return level < 0; }
};

class CXmPartParser {
 public:
  // REQUIRES: `in` outlives the parser; reading starts at its position 0 and
  // offsets are counted from there.
  CXmPartParser(CXmStream& in, std::string reading_charset, uint32_t options, const ParseLimits& limits);

  // Reads a header block up to the empty line and parses it with the reading
  // character set, then, when "Content-Type" declares another charset (and
  // kParseIgnoreDeclaredCharset is off), again with that one; the second
  // result stands and the first error of the two is returned. The block also
  // ends at a boundary line (a part without body; the next scan then stops
  // at once) and at the end of the message. A first line that cannot start
  // a header field means the part has no header: the line is left for the
  // body.
  Result ReadHeader(CXmHeader* header);

  // Makes the part a header calls for: "multipart" with a boundary gives a
  // container (a single part past the depth limit); "multipart" without one
  // a single part read as "text/plain" (0xA0003000); "text/plain" a
  // CXmPlainTextPart; no "Content-Type" a CXmPlainTextPart, or inside
  // "multipart/digest" a single part of type "message/rfc822"; anything else
  // a single part. `*status` receives 0xA0003000 when the header said
  // "multipart" but a container could not be made.
  std::unique_ptr<CXmMessagePart> MakePart(CXmHeader* header, CXmMultiPartPart* parent, CXmMimeMessage* message,
                                           bool in_digest, Result* status);

  // Reads lines up to the next boundary line of any enclosing container, or
  // the end, and gives the range they cover (the line end before the boundary
  // line removed as described above). hit() tells where it stopped.
  Result Scan(TransferEncoding mode, uint64_t* offset, uint64_t* length);

  // Enters a container with this boundary; returns its level.
  int PushBoundary(std::string boundary);
  void PopBoundary();
  const BoundaryHit& hit() const { return hit_; }

  // Counts a part against ParseLimits::max_parts; false once the limit is
  // reached (the problem is then noted).
  bool CountPart();
  void Note(uint32_t problem) { problems_ |= problem; }
  uint32_t problems() const { return problems_; }
  const std::string& reading_charset() const { return reading_charset_; }

  // The boundary of a "multipart" header as bytes (what the lines are
  // compared with); empty when there is none.
  static std::string BoundaryBytes(const CXmHeader& header);

 private:
  // The next line (or piece of an over-long line) and where it starts; false
  // at the end of the message.
  bool NextLine(std::string_view* line, uint64_t* start, bool* at_line_start, Result* error);
  bool Classify(std::string_view line, BoundaryHit* hit) const;
  uint64_t Position() const;

  CXmLineReader reader_;
  std::string reading_charset_;
  uint32_t options_;
  ParseLimits limits_;
  std::vector<std::string> boundaries_;
  BoundaryHit hit_;
  bool pending_hit_ = false;  // a header block ended at a boundary line
  std::string line_;
  bool at_line_start_ = true;
  // A line read ahead and given back (the first body line of a part without header).
  bool pushed_back_ = false;
  uint64_t pushed_start_ = 0;
  size_t parts_ = 0;
  uint32_t problems_ = 0;
};

}  // namespace trv
