// What a message list needs to know about a stored message, read from its
// header or its part tree, as a plain struct (the store's record is filled
// from it by the caller), and the addresses the sending run needs.
#pragma once

#include <cstdint>
#include <vector>

#include "base/date_value.h"
#include "base/wide_string.h"
#include "mime/header.h"
#include "mime/message_flags.h"
#include "mime/mime_message.h"

namespace trv {

struct MessageFacts {
  WString subject;     // encoded words decoded
  WString from;        // the address lists as "Name <addr>", decoded (AddressListText)
  WString to;
  WString cc;
  WString message_id;  // without angle brackets
  double sent_date = kNoDate;      // UTC date values (mime/message_dates.h)
  double received_date = kNoDate;
  Priority priority = Priority::kNormal;  // from "X-Priority"
  bool unsent = false;                    // "X-Unsent: 1"
  bool has_attachments = false;

  // kFlagPriorityLow / kFlagPriorityHigh / kFlagUnsent as they apply.
  uint16_t flags() const;
};

// The addresses of every field `name` of the header as "Name <addr>"
// (mime/address_list.h FormatAddress), joined by ", ".
WString AddressListText(const CXmHeader& header, WStringView name);

// From the header alone (a message of which only the head was fetched):
// has_attachments is a guess, true for a "multipart/mixed" message.
MessageFacts ReadHeaderFacts(const CXmHeader& header);
// From a parsed message: has_attachments from its parts (HasAttachments).
MessageFacts ReadMessageFacts(const CXmMimeMessage& message);

// A part the user is offered to open or save rather than shown as the
// message's text or pictures: an attachment by its disposition, or any single
// part that is neither text nor a picture (a PDF sent "inline", an attached
// message, a signature).
bool IsOfferedAsAttachment(const CXmMessagePart& part);
bool HasAttachments(const CXmMimeMessage& message);

// The address the sending run gives in MAIL FROM: the first address of
// "Sender", else of "From"; empty when there is none.
WString SenderAddress(const CXmHeader& header);
// Every address of "To", then "CC", then "BCC", in header order.
std::vector<WString> RecipientAddresses(const CXmHeader& header);

}  // namespace trv
