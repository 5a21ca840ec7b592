// mbox files in the mboxrd form: each message starts with a "From " line
// (the envelope: sender address and date) at the start of the file or after
// an empty line; a message line that starts with ">"s and "From " has one
// more ">" than the message has.
//
// Reading splits at every "From " line that starts the file or follows an
// empty line. The empty line before it belongs to the file, not to the
// message. An envelope without a sender and a date ("broken") still starts a
// new message; the reader marks it so the caller can say so. Nothing of the
// input is dropped but the envelope lines, those separating empty lines and
// one ">" of each quoted line.
//
// Threads: the functions are pure (any thread); a reader is used by one
// thread at a time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "mime/line_source.h"
#include "base/result.h"

namespace trv {

struct MboxMessage {
  std::string text;        // line ends as in the file, ">From " unquoted
  std::string envelope;    // the "From " line without its line end
  uint64_t line = 0;       // its line number in the file
  bool broken_envelope = false;
};

// Whether a "From " line carries a sender and a date ("From addr Mon Mar  4
// 10:00:00 2024"): a sender word, then text holding a time (h:mm) and a
// year (four digits).
bool IsWellFormedEnvelope(std::string_view line);

class MboxReader {
 public:
  // REQUIRES: the source's next line is the first "From " line.
  explicit MboxReader(LineSource& source) : source_(source) {}

  // The next message; `*got` false at the end of the input.
  Result Next(MboxMessage* message, bool* got);

 private:
  LineSource& source_;
  std::string next_envelope_;
  uint64_t next_line_ = 0;
  bool started_ = false;
  bool ended_ = false;
};

// The envelope line of a message for an mbox file, with its "\n":
// "From <sender> <date in the asctime form, UTC>". An empty sender, or one
// holding blanks, is written "MAILER-DAEMON".
std::string MboxEnvelope(std::string_view sender, double date);

// Appends a stored message (CR LF line ends) as the body of an mbox entry:
// CR LF becomes LF, lines that start with ">"s and "From " get one more ">",
// the last line gets a line end when it has none, and an empty line follows.
// Reading the entry back and storing it again gives the same bytes for every
// message whose lines all end in CR LF.
void AppendMboxEntry(std::string_view stored, std::string* out);

// A whole entry for a stored message: MboxEnvelope with the address of the
// message's first "From" field and `date` (kNoDate: now), then
// AppendMboxEntry.
void AppendMboxMessage(std::string_view stored, double date, std::string* out);

}  // namespace trv
