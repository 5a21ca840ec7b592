// CXmHeader: the header block of a message or body part as a collection of
// fields, with the parse and write algorithms, lookup by name (names compare
// without regard to case), a getter and a setter per known field, the
// multipart boundary, and the decoded views a message list needs.
//
// Threads: one thread at a time per object.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "base/wide_string.h"
#include "mime/address_list.h"
#include "mime/header_field.h"
#include "mime/header_names.h"
#include "mime/header_writer.h"
#include "mime/line_reader.h"
#include "mime/stream.h"

namespace trv {

// Limits for hostile input, each with its outcome:
// - a header block read from a stream keeps its first kMaxHeaderBlockSize
//   bytes; the rest of the block is read and dropped (status 0xA0003000);
// - a field keeps the first kMaxFieldSize bytes of its unfolded text; its raw
//   text stays whole (0xA0003000);
// - fields past kMaxFieldCount are dropped (0xA0003000);
// - parameters past kMaxParameterCount in one field are dropped (header_split.h).
inline constexpr size_t kMaxHeaderBlockSize = 16 * 1024 * 1024;
inline constexpr size_t kMaxFieldSize = 1024 * 1024;
inline constexpr size_t kMaxFieldCount = 10000;

// Reads a header block line by line until "\r\n\r\n" ends what was read (a
// block that is only "\r\n" is an empty header) or the stream ends; the
// reader is left at the first byte of the body.
Result ReadHeaderBlock(CXmLineReader& reader, std::string* block, size_t max_size = kMaxHeaderBlockSize);

class CXmHeader {
 public:
  // Parses a header block. Fields are taken up to the empty line (or until
  // fewer than 5 bytes are left); a CR LF followed by a blank is a fold and is
  // dropped together with that one blank (so "a", fold, "b" reads "ab"); a CR
  // LF after a backslash is data; a line end that ends the text is not. Each
  // field is decoded with `reading_charset`, split (header_split.h) and its
  // RFC 2231 parameters merged. A field is kept when its line starts a field
  // (mime/field_line.h: "Subject : hi" is "Subject") or, without any ":",
  // when the text has no space (a bare name, 0xA0003000); others are dropped. Parsing goes on after an error; the first error is returned:
  // 0xA0003000 (a line without ":", a limit) or 0xA0003003 (a failed
  // conversion; the text is kept by the fallback). `*end` (optional) is the
  // offset after the block.
  Result Parse(std::string_view block, std::string_view reading_charset, size_t* end = nullptr);
  // ReadHeaderBlock, then Parse. The first error of the two is returned.
  Result Read(CXmLineReader& reader, std::string_view reading_charset);

  // Writes every field (header_writer.h) followed by "\r\n"; the empty line
  // that ends the block is the caller's. Returns the stream's error, else the
  // first field's error (0xA0003003).
  Result Write(CXmStream& out, const HeaderWriteOptions& options) const;
  Result Write(std::string* out, const HeaderWriteOptions& options) const;

  void Clear() { fields_.clear(); }
  bool empty() const { return fields_.empty(); }
  size_t size() const { return fields_.size(); }
  const std::vector<CXmHeaderField>& fields() const { return fields_; }
  const std::string& reading_charset() const { return reading_charset_; }

  const CXmHeaderField* Find(WStringView name) const;  // the first (topmost)
  CXmHeaderField* Find(WStringView name);
  const CXmHeaderField* FindLast(WStringView name) const;
  std::vector<const CXmHeaderField*> FindAll(WStringView name) const;

  // The value of the first field of that name; empty when there is none.
  WString GetValue(WStringView name) const;
  // Replaces the value of the first field of that name (its parameters stay)
  // or appends a new field.
  CXmHeaderField& SetValue(WStringView name, WString value);
  void Append(CXmHeaderField field) { fields_.push_back(std::move(field)); }
  // Removes every field of that name; returns how many.
  size_t Remove(WStringView name);

#define TRV_FIELD_ACCESSORS(id, text)                                        \
  WString Get##id() const { return GetValue(field::k##id); }                 \
  void Set##id(WStringView value) { SetValue(field::k##id, WString(value)); }
  TRV_KNOWN_HEADER_FIELDS(TRV_FIELD_ACCESSORS)
#undef TRV_FIELD_ACCESSORS

  // The parameter of the first field of that name; empty when missing.
  WString GetParam(WStringView field_name, WStringView param) const;

  // The multipart boundary: the "boundary" parameter of "Content-Type" when
  // its media type is "multipart", surrounding double quotes removed; empty
  // otherwise.
  WString Boundary() const;

  // The text after the colon of a field, unfolded the RFC 5322 way (only the
  // line ends vanish), decoded with the reading charset and trimmed. For a
  // field made here: its value.
  WString UnfoldedText(const CXmHeaderField& f) const;
  // UnfoldedText of the first field of that name with encoded words decoded:
  // what a list view shows (Subject, ...).
  WString DisplayText(WStringView name) const;
  // The addresses of every field of that name, in order.
  std::vector<MailAddress> Addresses(WStringView name) const;

 private:
  std::vector<CXmHeaderField> fields_;
  std::string reading_charset_ = "us-ascii";
};

}  // namespace trv
