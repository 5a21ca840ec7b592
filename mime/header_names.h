// The header field and parameter names the system handles, as 16-bit
// literals, and the list that generates the named getters and setters of
// CXmHeader. "Return-path" is written with a lower-case "p" on purpose.
#pragma once

// X(Id, "Name")
#define TRV_KNOWN_HEADER_FIELDS(X)                     \
  X(ContentType, "Content-Type")                       \
  X(ContentTransferEncoding, "Content-Transfer-Encoding") \
  X(ContentId, "Content-ID")                           \
  X(ContentDescription, "Content-Description")         \
  X(ContentDisposition, "Content-Disposition")         \
  X(MimeVersion, "MIME-Version")                       \
  X(XMailer, "X-Mailer")                               \
  X(MessageId, "Message-ID")                           \
  X(ResentMessageId, "Resent-Message-ID")              \
  X(InReplyTo, "In-Reply-To")                          \
  X(References, "References")                          \
  X(Keywords, "Keywords")                              \
  X(Subject, "Subject")                                \
  X(Comments, "Comments")                              \
  X(ReturnPath, "Return-path")                         \
  X(ReplyTo, "Reply-To")                               \
  X(ResentReplyTo, "Resent-Reply-To")                  \
  X(Sender, "Sender")                                  \
  X(ResentSender, "Resent-Sender")                     \
  X(From, "From")                                      \
  X(ResentFrom, "Resent-From")                         \
  X(To, "To")                                          \
  X(ResentTo, "Resent-To")                             \
  X(Cc, "CC")                                          \
  X(ResentCc, "Resent-CC")                             \
  X(Bcc, "BCC")                                        \
  X(ResentBcc, "Resent-BCC")                           \
  X(Date, "Date")                                      \
  X(ResentDate, "Resent-Date")                         \
  X(Received, "Received")

namespace trv::field {
#define TRV_FIELD_CONSTANT(id, text) inline constexpr char16_t k##id[] = u"" text;
TRV_KNOWN_HEADER_FIELDS(TRV_FIELD_CONSTANT)
#undef TRV_FIELD_CONSTANT

inline constexpr char16_t kParamBoundary[] = u"boundary";
inline constexpr char16_t kParamCharset[] = u"charset";
inline constexpr char16_t kParamName[] = u"name";
inline constexpr char16_t kParamFilename[] = u"filename";
inline constexpr char16_t kDispositionAttachment[] = u"attachment";
}  // namespace trv::field
