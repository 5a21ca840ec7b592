// Telling mail from other input, and the stored form of a message: what
// every way in (file import, mbox, POP3 delivery) does to a message before
// the folder file gets it. Whether a line is a header field is
// mime/field_line.h's rule.
//
// Stored messages have CR LF line ends and end with one. Input may have bare
// LF (Unix files, mbox) or CR LF; both become CR LF.
//
// Threads: pure functions; any thread.
#pragma once

#include <string>
#include <string_view>

namespace trv {

enum class InputKind {
  kMbox,     // starts with "From "
  kMessage,  // starts with a plausible header block
  kNotMail,
};

// What a file is, from its first bytes (up to kClassifyBytes). A message's
// header block must start at the first byte with a well-formed field, hold no
// NUL byte, name at least one field every message has (From, To, Date,
// Subject, Message-ID, Received, ...) and have no more malformed lines than
// fields before its end (an empty line, or the end of `head`).
inline constexpr size_t kClassifyBytes = 64 * 1024;
InputKind ClassifyInput(std::string_view head);

enum class HeaderState {
  kHeader,       // starts with a header field
  kEmptyHeader,  // starts with the empty line that ends a header: no fields
  kNoHeader,     // starts with text that is no header field
};
HeaderState HeaderStateOf(std::string_view text);

// The stored form of a message: bare LF and bare CR become CR LF
// (mime/codec_streams.h CXmLineEndFilter), a CR LF ends the text; text that
// starts with no header at all (kNoHeader) gets an empty header first, so
// that the body is not taken for header fields.
std::string ToStoredForm(std::string_view text);

// The value of the first header field named `name` (any case), trimmed, its
// first line only; empty when there is none. The view points into `text`.
std::string_view RawHeaderValue(std::string_view text, std::string_view name);

}  // namespace trv
