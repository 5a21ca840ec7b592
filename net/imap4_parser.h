// The IMAP4 response parser: pure functions over one response whose literals
// have been joined to it. No socket: CImap4Client reads the lines and
// literals, the fuzz target feeds wire bytes through Imap4SplitWire.
//
// A response is its text (the lines without CR LF, each literal's "{n}"
// marker kept where it stood) and its literals in order, each with the text
// offset just after its marker. A brace that is not such a marker is a
// syntax error, so a literal's bytes can hold anything (quotes, brackets,
// CR LF) without confusing the reader.
//
// Every parser returns false (or rc::kImap4Malformed) for input that does
// not read: unbalanced parentheses, NIL where a number or string is needed,
// numbers beyond 32 bits, nesting deeper than kImap4MaxDepth. None reads past
// the response or recurses without bound.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "net/imap4_errors.h"
#include "net/imap4_records.h"

namespace trv {

inline constexpr int kImap4MaxDepth = 64;  // parentheses nested deeper do not parse

struct Imap4Literal {
  size_t offset = 0;      // in Imap4Response::text, just after the "}" of its marker
  uint64_t size = 0;      // announced size
  bool streamed = false;  // taken by the literal hook: no bytes here
  std::string bytes;
};

struct Imap4Response {
  std::string text;
  std::vector<Imap4Literal> literals;
  void Clear() { text.clear(), literals.clear(); }
};

// The size n when the line ends with a literal marker "{n}" (also "~{n}"),
// else nullopt. A size beyond 64 bits is nullopt too (the line then fails
// to parse).
std::optional<uint64_t> TrailingLiteral(std::string_view line);

// Splits the next response off wire bytes (lines ending in CR LF, literals
// after their markers) into *out and advances *wire. False when the bytes
// end before the response does.
bool Imap4SplitWire(std::string_view* wire, Imap4Response* out);

enum class Imap4Kind { kUntagged, kNumbered, kContinuation, kTagged };

// The first tokens of a response.
struct Imap4Head {
  Imap4Kind kind = Imap4Kind::kUntagged;
  std::string tag;         // kTagged
  uint32_t number = 0;     // kNumbered: "* <number> <keyword>"
  std::string keyword;     // upper-cased: "OK", "LIST", "FETCH", ...; "" for a continuation
  Imap4Status status = Imap4Status::kNone;  // OK, NO, BAD, BYE, PREAUTH
  size_t rest = 0;         // offset after the keyword (at its blank, or the end)
};

// rc::kImap4Malformed for an empty line, a line without a blank (a lone "+"
// is a continuation), or "* " followed by nothing readable.
Result ParseHead(std::string_view text, Imap4Head* head);

// The response code and text after a status word (rest starts at the blank).
struct Imap4StatusText {
  std::string code;  // upper-cased word in brackets, "" when none
  std::string args;  // what follows the word inside the brackets
  std::string text;  // the human-readable rest
};
Imap4StatusText ParseStatusText(std::string_view rest);

// Applies a response code to the records it concerns. False when a code
// this client reads (COPYUID, APPENDUID, UIDVALIDITY, UIDNEXT, UNSEEN,
// PERMANENTFLAGS) has arguments that do not parse.
bool ApplyResponseCode(const Imap4StatusText& status, Imap4CommandResult* result, Imap4MailboxData* mailbox,
                       Imap4Capabilities* capabilities);

// Capability words (blank-separated) replace *out.
void ParseCapabilities(std::string_view words, Imap4Capabilities* out);
// A flag word's bit (kImap4Flag*, any case), 0 for a keyword.
uint32_t Imap4FlagBit(std::string_view word);
// A mailbox name (raw, modified UTF-7) decoded; false when it is not valid.
bool DecodeMailboxName(std::string_view raw, WString* name);

// Data of untagged responses; pos is Imap4Head::rest.
bool ParseListEntry(const Imap4Response& response, size_t pos, Imap4ListEntry* out);
bool ParseStatusData(const Imap4Response& response, size_t pos, Imap4StatusData* out);
bool ParseFlagsData(const Imap4Response& response, size_t pos, uint32_t* bits, std::vector<std::string>* keywords);
bool ParseFetchData(const Imap4Response& response, size_t pos, Imap4FetchData* out);
bool ParseSearch(std::string_view rest, std::vector<uint32_t>* out);
// "1:3,7,9:*" style sets as COPYUID and APPENDUID give them ("*" refused).
bool ParseUidSet(std::string_view text, Imap4UidSet* out);
// "17-Jul-1996 02:44:25 -0700" (a leading blank for one-digit days too).
bool ParseImapDate(std::string_view text, double* value);

// Where the literal announced at the end of an incomplete response sits: the
// FETCH item it is the value of. False outside a FETCH response.
struct Imap4LiteralPlace {
  uint32_t number = 0;
  std::string item;
  std::string section;
  std::optional<uint32_t> origin;
};
bool FindLiteralPlace(const Imap4Response& so_far, Imap4LiteralPlace* out);

}  // namespace trv
