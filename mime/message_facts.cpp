#include "mime/message_facts.h"

#include "mime/message_dates.h"

namespace trv {

uint16_t MessageFacts::flags() const {
  uint16_t f = unsent ? kFlagUnsent : 0;
  if (priority == Priority::kLow) f |= kFlagPriorityLow;
  if (priority == Priority::kHigh) f |= kFlagPriorityHigh;
  return f;
}

WString AddressListText(const CXmHeader& header, WStringView name) {
  WString text;
  for (const MailAddress& a : header.Addresses(name)) {
    if (a.name.empty() && a.address.empty()) continue;
    if (!text.empty()) text += u", ";
    text += FormatAddress(a);
  }
  return text;
}

MessageFacts ReadHeaderFacts(const CXmHeader& header) {
  MessageFacts facts;
  facts.subject = header.DisplayText(field::kSubject);
  facts.from = AddressListText(header, field::kFrom);
  facts.to = AddressListText(header, field::kTo);
  facts.cc = AddressListText(header, field::kCc);
  if (const CXmHeaderField* id = header.Find(field::kMessageId)) {
    // The identifier between the first "<" and the ">" after it (comments
    // and blanks around it go); the trimmed text when there are no brackets.
    const WString unfolded = header.UnfoldedText(*id);
    WStringView text(unfolded);
    const size_t open = text.find(u'<');
    if (open != WStringView::npos) {
      text.remove_prefix(open + 1);
      text = text.substr(0, text.find(u'>'));
    }
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
