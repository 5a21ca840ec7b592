#include "mime/message_facts.h"

#include "mime/message_dates.h"

namespace trv {

uint16_t MessageFacts::flags() const {
  uint16_t f = unsent ? kFlagUnsent : 0;
  if (priority == Priority::kLow) f |= kFlagPriorityLow;
  if (priority == Priority::kHigh) f |= kFlagPriorityHigh;
  return f;
}

MessageFacts ReadHeaderFacts(const CXmHeader& header) {
  MessageFacts facts;
  facts.subject = header.DisplayText(field::kSubject);
  facts.from = header.DisplayText(field::kFrom);
  facts.to = header.DisplayText(field::kTo);
  facts.cc = header.DisplayText(field::kCc);
  if (const CXmHeaderField* id = header.Find(field::kMessageId)) {
    const WString unfolded = header.UnfoldedText(*id);
    WStringView text = TrimView(WStringView(unfolded));
    if (text.starts_with(u'<')) text.remove_prefix(1);
    if (text.ends_with(u'>')) text.remove_suffix(1);
    facts.message_id = WString(TrimView(text));
  }
  const MessageDates dates = GetMessageDates(header);
  facts.sent_date = dates.sent;
  facts.received_date = dates.received;
  facts.priority = ReadPriority(header);
  facts.unsent = ReadUnsent(header);
  const WString type = ToLowerAscii(TrimView(header.GetContentType()));
  facts.has_attachments = type == u"multipart/mixed";
  return facts;
}

MessageFacts ReadMessageFacts(const CXmMimeMessage& message) {
  MessageFacts facts = ReadHeaderFacts(message.header());
  facts.has_attachments = HasAttachments(message);
  return facts;
}

bool IsOfferedAsAttachment(const CXmMessagePart& part) {
  if (part.IsMultipart()) return false;
  return part.IsAttachment() || (!part.IsText() && !part.IsImage());
}

bool HasAttachments(const CXmMimeMessage& message) {
  bool found = false;
  ForEachPart(message.root(), [&](const CXmMessagePart& p, int) { found = found || IsOfferedAsAttachment(p); });
  return found;
}

WString SenderAddress(const CXmHeader& header) {
  for (const char16_t* name : {field::kSender, field::kFrom}) {
    for (const MailAddress& a : header.Addresses(name)) {
      if (!a.address.empty()) return a.address;
    }
  }
  return {};
}

std::vector<WString> RecipientAddresses(const CXmHeader& header) {
  std::vector<WString> out;
  for (const char16_t* name : {field::kTo, field::kCc, field::kBcc}) {
    for (const MailAddress& a : header.Addresses(name)) {
      if (!a.address.empty()) out.push_back(a.address);
    }
  }
  return out;
}

}  // namespace trv
