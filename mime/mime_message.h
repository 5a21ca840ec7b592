// CXmMimeMessage: a message as a tree of parts. The root part's header block
// is the message header. A message is parsed from a CXmMessageSource in one
// pass front to back; single parts keep their bodies as ranges of that source
// and read them again when they are decoded (mime/message_part.h).
//
// Parse status. Real mail is often broken; the parse never gives up on it.
// The result is 0 when the message was read cleanly, else the first problem
// as a status (0xA0003000 syntax, 0xA0003003 character set, or a read error of
// the source); problems() tells what was wrong in detail and the tree holds
// everything that could be read either way.
//
// Threads: one thread at a time. Not copyable or movable: parts point back to
// their message.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "base/wide_string.h"
#include "mime/header.h"
#include "mime/message_part.h"
#include "mime/message_source.h"
#include "mime/part_parser.h"

namespace trv {

class CXmMimeMessage {
 public:
  // An empty message: a "text/plain" root without body.
  CXmMimeMessage();
  ~CXmMimeMessage();
  CXmMimeMessage(const CXmMimeMessage&) = delete;
  CXmMimeMessage& operator=(const CXmMimeMessage&) = delete;

  // Parses the message in `source`. Header text is decoded with
  // `reading_charset` (and again with a charset its "Content-Type" declares,
  // unless kParseIgnoreDeclaredCharset). Without kParseKeepSource the message
  // lets go of the source after the parse; bodies are then decoded from a
  // source given to the part explicitly, or after set_source().
  Result Parse(std::shared_ptr<CXmMessageSource> source, std::string_view reading_charset = "us-ascii",
               uint32_t options = kParseKeepSource, const ParseLimits& limits = {});
  // Parses text held in memory (kept by the message).
  Result ParseText(std::string text, std::string_view reading_charset = "us-ascii",
                   uint32_t options = kParseKeepSource, const ParseLimits& limits = {});

  // Serializes the tree by the Write rules of message_part.h.
  Result Write(CXmStream& out, const MimeWriteOptions& options = {});
  Result Write(std::string* out, const MimeWriteOptions& options = {});

  CXmMessagePart& root() { return *root_; }
  const CXmMessagePart& root() const { return *root_; }
  // Replaces the tree; the old one is deleted.
  void SetRoot(std::unique_ptr<CXmMessagePart> root);
  CXmHeader& header() { return root_->header(); }
  const CXmHeader& header() const { return root_->header(); }

  const std::shared_ptr<CXmMessageSource>& source() const { return source_; }
  void set_source(std::shared_ptr<CXmMessageSource> source) { source_ = std::move(source); }

  Result status() const { return status_; }
  uint32_t problems() const { return problems_; }
  const std::string& reading_charset() const { return reading_charset_; }

  // A character set that every text body is read with instead of its own
  // (the reading view's explicit choice); empty for none.
  const std::string& charset_override() const { return charset_override_; }
  void set_charset_override(std::string charset) { charset_override_ = std::move(charset); }

  // Every part, depth first in document order (the root first).
  std::vector<const CXmMessagePart*> Parts() const;

#define TRV_MESSAGE_FIELD_ACCESSORS(id, text)                  \
  WString Get##id() const { return header().Get##id(); }       \
  void Set##id(WStringView value) { header().Set##id(value); }
  TRV_KNOWN_HEADER_FIELDS(TRV_MESSAGE_FIELD_ACCESSORS)
#undef TRV_MESSAGE_FIELD_ACCESSORS

 private:
  std::unique_ptr<CXmMessagePart> root_;
  std::shared_ptr<CXmMessageSource> source_;
  Result status_;
  uint32_t problems_ = 0;
  std::string reading_charset_ = "us-ascii";
  std::string charset_override_;
};

// Parses the message carried by a "message/rfc822" part into `out`. An
// unencoded body is read in place through a window of the outer source; an
// encoded one is decoded into memory first.
Result ParseAttachedMessage(const CXmMessagePart& part, CXmMimeMessage* out);

}  // namespace trv
