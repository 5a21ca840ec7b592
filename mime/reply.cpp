#include "mime/reply.h"

#include <algorithm>
#include <string>

#include "mime/address_list.h"
#include "mime/encoded_word.h"
#include "mime/header_names.h"
#include "mime/html_text.h"
#include "mime/message_facts.h"
#include "mime/stream.h"

namespace trv {

namespace {

bool IsBlank(char16_t c) { return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n'; }
bool IsDigit(char16_t c) { return c >= u'0' && c <= u'9'; }

// The length of one reply ("re") or forward ("fw", "fwd") prefix at the start
// of `s`: the word, an optional "[n]" or "(n)", then ":", then blanks; 0 when
// `s` does not start with one.
size_t PrefixLength(WStringView s, ReplyKind kind) {
  const std::vector<WStringView> words =
      kind == ReplyKind::kForward ? std::vector<WStringView>{u"fwd", u"fw"} : std::vector<WStringView>{u"re"};
  for (WStringView word : words) {
    if (!StartsWithNoCase(s, word)) continue;
    size_t i = word.size();
    if (i < s.size() && (s[i] == u'[' || s[i] == u'(')) {
      const char16_t close = s[i] == u'[' ? u']' : u')';
      size_t j = i + 1;
      while (j < s.size() && IsDigit(s[j])) ++j;
      if (j == i + 1 || j >= s.size() || s[j] != close) continue;
      i = j + 1;
    }
    if (i >= s.size() || s[i] != u':') continue;
    ++i;
    while (i < s.size() && IsBlank(s[i])) ++i;
    return i;
  }
  return 0;
}

bool ContainsNoCase(const std::vector<WString>& list, WStringView address) {
  return std::any_of(list.begin(), list.end(), [&](const WString& a) { return EqualsNoCase(a, address); });
}

// Adds the addresses of `from` that are neither ours nor already `seen` to
// `*list` (", " between them).
void AddAddresses(const std::vector<MailAddress>& from, const std::vector<WString>& own, std::vector<WString>* seen,
                  WString* list) {
  for (const MailAddress& a : from) {
    if (a.address.empty() || ContainsNoCase(own, a.address) || ContainsNoCase(*seen, a.address)) continue;
    seen->push_back(a.address);
    if (!list->empty()) *list += u", ";
    *list += FormatAddress(a);
  }
}

bool AllOwn(const std::vector<MailAddress>& list, const std::vector<WString>& own) {
  return !list.empty() &&
         std::all_of(list.begin(), list.end(), [&](const MailAddress& a) { return ContainsNoCase(own, a.address); });
}

// The "<...>" ids of a References or In-Reply-To value, in order.
std::vector<WString> MessageIds(WStringView value) {
  std::vector<WString> ids;
  size_t pos = 0;
  while ((pos = value.find(u'<', pos)) != WStringView::npos) {
    const size_t end = value.find(u'>', pos);
    if (end == WStringView::npos) break;
    WString id(value.substr(pos, end + 1 - pos));
    // Blanks inside an id come from folding.
    std::erase_if(id, IsBlank);
    if (id.size() > 2) ids.push_back(std::move(id));
    pos = end + 1;
  }
  return ids;
}

WString Replace(WString pattern, WStringView arg1, WStringView arg2) {
  for (auto [mark, arg] : {std::pair<WStringView, WStringView>{u"%1", arg1}, {u"%2", arg2}}) {
    const size_t at = pattern.find(mark);
    if (at != WString::npos) pattern.replace(at, mark.size(), arg);
  }
  return pattern;
}

// The sender's display name, else its address.
WString SenderName(const CXmHeader& header) {
  for (const MailAddress& a : header.Addresses(field::kFrom)) {
    if (!a.name.empty()) return a.name;
    if (!a.address.empty()) return a.address;
  }
  return {};
}

// The original's attachments as items holding their decoded bytes.
Result CarryAttachments(const CXmMimeMessage& original, std::vector<ComposedItem>* items) {
  Result first;
  ForEachPart(original.root(), [&](const CXmMessagePart& part, int) {
    if (!IsOfferedAsAttachment(part)) return;
    CXmMemoryStream bytes;
    const Result r = part.DecodeBody(bytes);
    if (r.failed()) {
      if (first.ok()) first = r;
      return;
    }
    ComposedItem item;
    item.data = bytes.Take();
    item.file_name = part.GetFileName();
    item.content_type = WideToUtf8(ToLowerAscii(part.GetType() + u"/" + part.GetSubtype()));
    // Attachments are sent in base64, which a "message/rfc822" part may not
    // be (RFC 2046 5.2.1): an attached message goes as a file.
    if (part.IsMessage()) {
      item.content_type = "application/octet-stream";
      if (item.file_name.empty()) item.file_name = u"message.eml";
    }
    items->push_back(std::move(item));
  });
  return first;
}

}  // namespace

WString ReplySubject(WStringView subject, ReplyKind kind) {
  WStringView rest = TrimView(subject);
  while (size_t n = PrefixLength(rest, kind)) rest.remove_prefix(n);
  return WString(kind == ReplyKind::kForward ? u"Fwd: " : u"Re: ") + WString(rest);
}

WString ReplyReferences(WStringView references, WStringView in_reply_to, WStringView message_id) {
  std::vector<WString> ids = MessageIds(references);
  if (ids.empty()) ids = MessageIds(in_reply_to);
  for (WString& id : MessageIds(message_id)) {
    std::erase(ids, id);
    ids.push_back(std::move(id));
  }
  // The first id names the thread's start; the last ones its recent past.
  if (ids.size() > kMaxReferences) ids.erase(ids.begin() + 1, ids.end() - (kMaxReferences - 1));
  WString out;
  for (const WString& id : ids) {
    if (!out.empty()) out += u' ';
    out += id;
  }
  return out;
}

WString QuoteText(WStringView text) {
  WString out;
  size_t pos = 0;
  // A final line end ends the last line rather than starting another.
  while (pos < text.size()) {
    size_t end = text.find(u'\n', pos);
    if (end == WStringView::npos) end = text.size();
    WStringView line = text.substr(pos, end - pos);
    if (!line.empty() && line.back() == u'\r') line.remove_suffix(1);
    out += line.empty() || line.front() == u'>' ? u">" : u"> ";
    out += line;
    out += u'\n';
    pos = end + 1;
  }
  return out;
}

bool OriginalText(const CXmMimeMessage& original, WString* text, bool* html) {
  const CXmMessagePart* plain = nullptr;
  const CXmMessagePart* rich = nullptr;
  ForEachPart(original.root(), [&](const CXmMessagePart& part, int) {
    if (part.IsMultipart() || !part.IsText() || IsOfferedAsAttachment(part)) return;
    const WString subtype = ToLowerAscii(part.GetSubtype());
    if (subtype == u"html") {
      if (rich == nullptr) rich = &part;
    } else if (plain == nullptr) {
      plain = &part;
    }
  });
  const CXmMessagePart* chosen = plain != nullptr ? plain : rich;
  text->clear();
  *html = chosen == rich && chosen != nullptr;
  if (chosen == nullptr) return false;
  // A damaged body or an unknown character set still gives its text.
  chosen->GetText(text).Ignore();
  if (*html) *text = HtmlToPlainText(*text);
  return true;
}

Result BuildReply(const CXmMimeMessage& original, ReplyKind kind, const ReplyOptions& options, ComposedMessage* out) {
  *out = ComposedMessage();
  const CXmHeader& header = original.header();
  const WString subject = DecodeHeaderText(header.GetSubject());
  const WString message_id(TrimView(header.GetMessageId()));
  out->subject = ReplySubject(subject, kind);

  WString body;
  Result result;
  if (kind == ReplyKind::kForward) {
    body = u"\n\n" + options.forward_banner + u"\n";
    const std::pair<const char16_t*, WString> lines[] = {
        {u"Subject", subject},
        {u"Date", WString(TrimView(header.GetDate()))},
        {u"From", AddressListText(header, field::kFrom)},
        {u"To", AddressListText(header, field::kTo)},
        {u"Cc", AddressListText(header, field::kCc)},
    };
    for (const auto& [name, value] : lines) {
      if (!value.empty()) body += WString(name) + u": " + value + u"\n";
    }
    body += u"\n" + options.text;
    result = CarryAttachments(original, &out->parts.attachments);
  } else {
    std::vector<MailAddress> to = header.Addresses(field::kReplyTo);
    if (to.empty()) to = header.Addresses(field::kFrom);
    // A reply to our own message goes to its recipients again.
    if (AllOwn(to, options.own_addresses)) to = header.Addresses(field::kTo);
    std::vector<WString> seen;
    // Reply goes to the sender even when that is one of our addresses.
    AddAddresses(to, {}, &seen, &out->to);
    if (kind == ReplyKind::kReplyAll) {
      AddAddresses(header.Addresses(field::kTo), options.own_addresses, &seen, &out->to);
      AddAddresses(header.Addresses(field::kCc), options.own_addresses, &seen, &out->cc);
    }
    out->in_reply_to = message_id;
    out->references = ReplyReferences(header.GetReferences(), header.GetInReplyTo(), message_id);
    body = u"\n\n" + Replace(options.attribution, TrimView(header.GetDate()), SenderName(header)) + u"\n" +
           QuoteText(options.text);
  }
  out->parts.bodies.push_back(ComposedText{std::move(body), false});
  return result;
}

}  // namespace trv
