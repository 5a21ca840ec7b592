// The parts of a message's tree: CXmMessagePart (a single body part),
// CXmMultiPartPart (a container with an ordered list of children) and
// CXmPlainTextPart (a "text/plain" part; it derives from the container but is
// parsed and written as a single part).
//
// Bodies. A parsed single part records its body as a range of the message's
// source (mime/message_source.h), still transfer-encoded; DecodeBody reads the
// range again and decodes it in pieces, so memory stays bounded whatever the
// size of the body. A composed part holds its content (not encoded) in memory
// or names a file that is read when the part is written or decoded.
//
// Ownership: a container owns its children; a part knows its parent and its
// message without owning them. The tree is used by one thread at a time.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "base/result.h"
#include "base/wide_string.h"
#include "mime/header.h"
#include "mime/message_source.h"
#include "mime/stream.h"
#include "mime/transfer_encoding.h"

namespace trv {

class CXmMimeMessage;
class CXmMultiPartPart;
class CXmPartParser;
struct StampSource;

// Where a single part's body is.
struct PartBody {
  enum Kind { kNone, kSource, kBytes, kFile };
  Kind kind = kNone;
  uint64_t offset = 0;         // kSource: the range in the source, transfer-encoded
  uint64_t length = 0;
  std::string bytes;           // kBytes: the content itself
  std::filesystem::path path;  // kFile: a file with the content
};

struct MimeWriteOptions {
  HeaderWriteOptions header;
  // Leave out "BCC", "Resent-BCC" and "X-Unsent" from the message header: the
  // text handed to an SMTP server. Drafts and the outbox keep them.
  bool for_transport = false;
  // The encoding of text bodies given as content ("base64", "quoted-printable",
  // "8bit", "7bit", "Binary"); empty or unknown chooses automatically. A part's
  // own encoding name comes first.
  std::string body_encoding;
  // Clock and random numbers for new boundaries; nullptr takes the system's.
  StampSource* stamp = nullptr;
};

class CXmMessagePart {
 public:
  using Children = std::vector<std::unique_ptr<CXmMessagePart>>;

  CXmMessagePart(CXmMultiPartPart* parent, CXmMimeMessage* message);
  CXmMessagePart(const CXmMessagePart&) = delete;
  CXmMessagePart& operator=(const CXmMessagePart&) = delete;

  // The virtual operations, in their slot order.

  // Takes over `header` (already read) and reads the body from the parser's
  // stream up to the next boundary line. Returns the part's status.
  virtual Result Parse(CXmHeader header, CXmPartParser& parser);
  // Writes header, empty line and body. A body given as content is encoded
  // first and "Content-Transfer-Encoding" is set to the encoding used.
  virtual Result Write(CXmStream& out, const MimeWriteOptions& options);
  // The media type: the lower-case part of "Content-Type" before "/" (the
  // class's default type when the part has no "Content-Type").
  virtual WString GetType() const;
  virtual ~CXmMessagePart();
  virtual const char* GetClassName() const { return "CXmMessagePart"; }
  // Clears header, body, children and status.
  virtual void Reset();
  // Bytes of the body as stored (transfer-encoded for a parsed part, the
  // content for a composed one).
  virtual uint64_t GetBodySize() const;
  // Writes the body with its transfer encoding undone to `out`. A parsed body
  // is read from the message's source (kInvalidArg when the message no
  // longer holds one: pass it explicitly with the overload below). Damaged
  // base64 or quoted-printable gives 0xA0003000 after everything readable was
  // written.
  virtual Result DecodeBody(CXmStream& out) const;
  // The body as text: decoded, then converted from its character set (the
  // override, else the "charset" parameter, else "us-ascii"). U+0000 becomes
  // U+FFFD. 0xA0003003 when the conversion had to replace or guess (the text
  // is kept); 0xA0003000 for a damaged transfer encoding.
  virtual Result GetText(WString* text) const;
  // Makes the body this content (not yet encoded).
  virtual void SetBody(std::string content);
  virtual bool IsText() const;
  virtual bool IsPlainText() const;
  virtual bool IsMessage() const;
  virtual bool IsImage() const;
  virtual bool IsAudio() const;
  virtual bool IsVideo() const;
  virtual bool IsMultipart() const { return false; }
  // A "Content-Disposition" of "attachment" is an attachment, and so is an
  // unknown disposition type (RFC 2183 2.8); "inline" and no disposition are
  // not.
  virtual bool IsAttachment() const;
  virtual bool IsBody() const { return !IsAttachment(); }
  // The lower-case part of the media type after "/".
  virtual WString GetSubtype() const;
  // The "filename" parameter of "Content-Disposition", else the "name"
  // parameter of "Content-Type"; encoded words in it are decoded.
  virtual WString GetFileName() const;
  // Sets "Content-Disposition" to "attachment" with the "filename" parameter.
  virtual void SetFileName(WStringView name);

  // --- Non-virtual helpers

  CXmHeader& header() { return header_; }
  const CXmHeader& header() const { return header_; }
  CXmMultiPartPart* parent() const { return parent_; }
  CXmMimeMessage* message() const { return message_; }
  Result status() const { return status_; }
  const PartBody& body() const { return body_; }

  // "type/subtype" in lower case.
  WString GetContentType() const;
  // The transfer encoding of a parsed body, from "Content-Transfer-Encoding".
  TransferEncoding encoding() const { return encoding_; }
  // The "Content-ID" without blanks (angle brackets kept), or empty.
  WString GetContentId() const;
  // The character set GetText uses: the override of the part, else of the
  // message, else the "charset" parameter, else "us-ascii".
  std::string GetCharset() const;
  void set_charset_override(std::string charset) { charset_override_ = std::move(charset); }

  // The children of a container, empty for single parts.
  virtual const Children& children() const;

  // DecodeBody and GetText reading a parsed body from `source`.
  Result DecodeBody(CXmMessageSource* source, CXmStream& out) const;
  Result GetText(CXmMessageSource* source, WString* text) const;

  // Composed bodies: content read from a file when written, and the name of
  // the encoding to write it with (empty: the options', else automatic).
  void SetBodyFile(std::filesystem::path path);
  void set_encoding_name(std::string name) { encoding_name_ = std::move(name); }
  const std::string& encoding_name() const { return encoding_name_; }
  // The body as a range of the source (set by the parser).
  void SetBodyRange(uint64_t offset, uint64_t length, TransferEncoding encoding);
  // The media type reported when there is no "Content-Type".
  void set_default_type(WString type) { default_type_ = std::move(type); }

 protected:
  friend class CXmMultiPartPart;
  friend class CXmMimeMessage;

  // Writes the header block and the empty line after it; the message root
  // leaves out the fields a transport must not see.
  Result WriteHeaderBlock(CXmStream& out, const MimeWriteOptions& options) const;
  // The part and its subtree now belong to `parent` and `message`.
  void Adopt(CXmMultiPartPart* parent, CXmMimeMessage* message);
  // Type and subtype from "Content-Type", or from the default type.
  void SplitType(WString* type, WString* subtype) const;

  CXmHeader header_;
  PartBody body_;
  TransferEncoding encoding_ = kEncoding8bit;
  CXmMultiPartPart* parent_ = nullptr;
  CXmMimeMessage* message_ = nullptr;
  Result status_;
  WString default_type_ = u"application/octet-stream";
  std::string charset_override_;
  std::string encoding_name_;
};

class CXmMultiPartPart : public CXmMessagePart {
 public:
  CXmMultiPartPart(CXmMultiPartPart* parent, CXmMimeMessage* message);

  // Reads the preamble up to the first boundary line, then each child up to
  // the closing delimiter, then (inside another container) the epilogue up to
  // the parent's next boundary line.
  Result Parse(CXmHeader header, CXmPartParser& parser) override;
  // Header, empty line, the preamble text at the root only, then each child
  // between boundary lines and the closing delimiter after the last. A
  // container without boundary gets a new one first (StampSource), different
  // from those of its ancestors.
  Result Write(CXmStream& out, const MimeWriteOptions& options) override;
  const char* GetClassName() const override { return "CXmMultiPartPart"; }
  void Reset() override;
  uint64_t GetBodySize() const override;
  bool IsText() const override { return false; }
  bool IsPlainText() const override { return false; }
  bool IsMessage() const override { return false; }
  bool IsImage() const override { return false; }
  bool IsAudio() const override { return false; }
  bool IsVideo() const override { return false; }
  bool IsMultipart() const override { return true; }

  const Children& children() const override { return children_; }
  // Appends a child; it and its subtree now belong to this container.
  CXmMessagePart* AddChild(std::unique_ptr<CXmMessagePart> child);
  // Sets the subtype of "Content-Type" ("mixed", "related", "alternative").
  void SetSubtype(WStringView subtype);

  // Where the preamble and the epilogue lay in the source (length 0: none).
  uint64_t preamble_offset() const { return preamble_offset_; }
  uint64_t preamble_length() const { return preamble_length_; }
  uint64_t epilogue_length() const { return epilogue_length_; }

 protected:
  Children children_;
  uint64_t preamble_offset_ = 0;
  uint64_t preamble_length_ = 0;
  uint64_t epilogue_length_ = 0;
};

class CXmPlainTextPart : public CXmMultiPartPart {
 public:
  CXmPlainTextPart(CXmMultiPartPart* parent, CXmMimeMessage* message);

  // Resets itself, then parses as a single part.
  Result Parse(CXmHeader header, CXmPartParser& parser) override;
  Result Write(CXmStream& out, const MimeWriteOptions& options) override;
  WString GetType() const override { return u"text"; }
  const char* GetClassName() const override { return "CXmPlainTextPart"; }
  uint64_t GetBodySize() const override { return CXmMessagePart::GetBodySize(); }
  bool IsText() const override { return true; }
  bool IsPlainText() const override { return true; }
  bool IsMultipart() const override { return false; }
  WString GetSubtype() const override { return u"plain"; }
  const Children& children() const override;
};

// Visits `root` and every part below it, depth first in document order, with
// the depth (0 for `root`).
template <typename Fn>
void ForEachPart(const CXmMessagePart& root, Fn&& fn, int depth = 0) {
  fn(root, depth);
  for (const auto& child : root.children()) ForEachPart(*child, fn, depth + 1);
}

}  // namespace trv
