#include "mime/compose.h"

#include <unistd.h>

#include <cerrno>

#include "mime/charset/charset.h"
#include "mime/rfc822_date.h"

#ifndef TRV_VERSION
#define TRV_VERSION "0"
#endif

namespace trv {

namespace {

// RFC 5322 2.1.1: a line holds at most 998 characters before its line end.
constexpr size_t kMaxLineBytes = 998;

constexpr const char16_t* kCopiedAddressFields[] = {field::kSender, field::kReplyTo, field::kFrom, field::kTo,
                                                    field::kCc};

// CR LF for every line end of the text (a bare LF or a lone CR).
WString WithCrLf(WStringView text) {
  WString out;
  out.reserve(text.size() + text.size() / 32);
  for (size_t i = 0; i < text.size(); ++i) {
    const char16_t c = text[i];
    if (c == u'\r') {
      out += u"\r\n";
      if (i + 1 < text.size() && text[i + 1] == u'\n') ++i;
    } else if (c == u'\n') {
      out += u"\r\n";
    } else {
      out += c;
    }
  }
  return out;
}

bool HasLongLine(std::string_view bytes) {
  size_t start = 0;
  while (start < bytes.size()) {
    size_t end = bytes.find('\n', start);
    if (end == std::string_view::npos) end = bytes.size();
    if (end - start > kMaxLineBytes + 1) return true;
    start = end + 1;
  }
  return false;
}

bool Fits(const CXmCharset& charset, WStringView text) {
  std::string ignored;
  return charset.Encode(text, &ignored, kConvertStrict);
}

// The set everything is written in: the sending set when it holds every
// text, else UTF-8.
std::string ChooseCharset(const ComposeOptions& options, const std::vector<WStringView>& texts, bool* changed) {
  const std::string wanted = options.sending_charset.empty() ? "us-ascii" : options.sending_charset;
  std::unique_ptr<CXmCharset> charset = CreateCharset(wanted);
  bool fits = charset != nullptr;
  for (WStringView t : texts) fits = fits && Fits(*charset, t);
  *changed = !fits;
  return fits ? charset->Name() : std::string("utf-8");
}

std::unique_ptr<CXmMessagePart> MakeTextPart(const ComposedText& body, const std::string& charset,
                                             const ComposeOptions& options) {
  std::unique_ptr<CXmMessagePart> part;
  if (body.html) {
    part = std::make_unique<CXmMessagePart>(nullptr, nullptr);
    part->header().SetContentType(u"text/html");
  } else {
    part = std::make_unique<CXmPlainTextPart>(nullptr, nullptr);
  }
  part->header().Find(field::kContentType)->SetParam(field::kParamCharset, W(charset));
  std::string bytes;
  CreateCharset(charset)->Encode(WithCrLf(body.text), &bytes);
  bool named = false;
  TransferEncodingFromName(options.body_encoding, &named);
  if (named) {
    part->set_encoding_name(options.body_encoding);
  } else if (HasLongLine(bytes)) {
    part->set_encoding_name("quoted-printable");
  }
  part->SetBody(std::move(bytes));
  return part;
}

Result MakeItemPart(const ComposedItem& item, bool inline_item, const ComposeOptions& options, size_t number,
                    std::unique_ptr<CXmMessagePart>* out, ComposeReport* report) {
  if (!item.path.empty() && ::access(item.path.c_str(), R_OK) != 0) {
    report->failed_file = item.path;
    return ResultFromErrno(errno);
  }
  WString name = item.file_name;
  if (name.empty() && !item.path.empty()) name = PathToWide(item.path.filename());
  const MimeTypes& types = options.types ? *options.types : MimeTypes::System();
  const std::string type = item.content_type.empty() ? types.ForFileName(name) : item.content_type;

  std::unique_ptr<CXmMessagePart> part;
  if (EqualsNoCase(type, "text/plain")) {
    part = std::make_unique<CXmPlainTextPart>(nullptr, nullptr);
  } else {
    part = std::make_unique<CXmMessagePart>(nullptr, nullptr);
    part->header().SetContentType(W(type));
  }
  if (!name.empty()) {
    part->header().Find(field::kContentType)->SetParam(field::kParamName, name);
    part->SetFileName(name);
  }
  if (inline_item) {
    part->header().SetContentDisposition(u"inline");
    WString id = item.content_id;
    if (id.empty()) {
      StampSource& stamp = options.stamp ? *options.stamp : SystemStamp();
      const WString unique = MakeMessageId(stamp);
      id = u"<part" + W(std::to_string(number + 1)) + u"." + unique.substr(1);
    } else if (id.front() != u'<') {
      id = u"<" + id + u">";
    }
    part->header().SetContentId(id);
    report->content_ids.push_back(id);
  }
  if (item.path.empty()) {
    part->SetBody(item.data);
  } else {
    part->SetBodyFile(item.path);
  }
  part->set_encoding_name("base64");
  *out = std::move(part);
  return rc::kOk;
}

void CopyFields(const CXmHeader& from, CXmHeader* to, WStringView name) {
  for (const CXmHeaderField* f : from.FindAll(name)) to->Append(*f);
}

std::unique_ptr<CXmMultiPartPart> Container(WStringView subtype) {
  auto part = std::make_unique<CXmMultiPartPart>(nullptr, nullptr);
  part->SetSubtype(subtype);
  return part;
}

}  // namespace

HeaderWriteOptions ComposeReport::header_options() const {
  HeaderWriteOptions o;
  o.sending_charset = charset.empty() ? "us-ascii" : charset;
  return o;
}

WString MailerName() { return u"Tarvo Mail " + W(TRV_VERSION); }

void MoveContentFieldsLast(CXmHeader* header) {
  std::vector<CXmHeaderField> content;
  std::vector<CXmHeaderField> others;
  for (const CXmHeaderField& f : header->fields()) {
    const bool is_content = StartsWithNoCase(f.name(), u"Content-") || EqualsNoCase(f.name(), field::kMimeVersion);
    (is_content ? content : others).push_back(f);
  }
  header->Clear();
  for (auto& f : others) header->Append(std::move(f));
  for (auto& f : content) header->Append(std::move(f));
}

Result RebuildMessage(CXmMimeMessage* message, const ComposedParts& parts, const ComposeOptions& options,
                      ComposeReport* report) {
  const CXmHeader& old = message->header();
  std::vector<WStringView> texts;
  for (const ComposedText& body : parts.bodies) texts.push_back(body.text);
  std::vector<WString> field_texts;
  for (const CXmHeaderField& f : old.fields()) field_texts.push_back(old.UnfoldedText(f));
  for (const WString& t : field_texts) texts.push_back(t);
  report->charset = ChooseCharset(options, texts, &report->charset_changed);
  report->content_ids.clear();

  std::unique_ptr<CXmMessagePart> root;
  CXmMultiPartPart* mixed = nullptr;
  CXmMultiPartPart* related = nullptr;
  CXmMultiPartPart* alternative = nullptr;
  // Puts a new container into `parent`, or makes it the root.
  auto place = [&](CXmMultiPartPart* parent, std::unique_ptr<CXmMultiPartPart> c) -> CXmMultiPartPart* {
    CXmMultiPartPart* raw = c.get();
    if (parent) {
      parent->AddChild(std::move(c));
    } else {
      root = std::move(c);
    }
    return raw;
  };
  if (!parts.attachments.empty()) mixed = place(nullptr, Container(u"mixed"));
  if (!parts.inline_items.empty()) related = place(mixed, Container(u"related"));
  if (parts.bodies.size() > 1) alternative = place(related ? related : mixed, Container(u"alternative"));

  CXmMultiPartPart* innermost = alternative ? alternative : related ? related : mixed;
  for (const ComposedText& body : parts.bodies) {
    std::unique_ptr<CXmMessagePart> part = MakeTextPart(body, report->charset, options);
    if (innermost) {
      innermost->AddChild(std::move(part));
    } else {
      root = std::move(part);
    }
  }
  if (!root) root = MakeTextPart(ComposedText(), report->charset, options);  // nothing composed at all

  for (size_t i = 0; i < parts.inline_items.size(); ++i) {
    std::unique_ptr<CXmMessagePart> part;
    if (Result r = MakeItemPart(parts.inline_items[i], true, options, i, &part, report); r.failed()) return r;
    related->AddChild(std::move(part));
  }
  for (size_t i = 0; i < parts.attachments.size(); ++i) {
    std::unique_ptr<CXmMessagePart> part;
    if (Result r = MakeItemPart(parts.attachments[i], false, options, i, &part, report); r.failed()) return r;
    mixed->AddChild(std::move(part));
  }

  CXmHeader& header = root->header();
  for (const char16_t* name : kCopiedAddressFields) CopyFields(old, &header, name);
  if (options.save_unsent) CopyFields(old, &header, field::kBcc);
  CopyFields(old, &header, field::kSubject);
  if (options.save_unsent) CopyFields(old, &header, kFieldXUnsent);
  CopyFields(old, &header, kFieldXPriority);
  CopyFields(old, &header, field::kInReplyTo);
  CopyFields(old, &header, field::kReferences);
  if (const CXmHeaderField* date = old.Find(field::kDate)) {
    header.Append(*date);
  } else {
    StampSource& stamp = options.stamp ? *options.stamp : SystemStamp();
    header.SetDate(W(WriteDate(stamp.Now())));
  }
  MoveContentFieldsLast(&header);
  message->SetRoot(std::move(root));
  return rc::kOk;
}

Result ComposeMessage(const ComposedMessage& composed, const ComposeOptions& options, CXmMimeMessage* message,
                      uint16_t* flags, ComposeReport* report) {
  message->SetRoot(std::make_unique<CXmPlainTextPart>(nullptr, nullptr));
  message->set_source(nullptr);
  CXmHeader& h = message->header();
  h.Clear();
  const std::pair<const char16_t*, const WString*> fields[] = {
      {field::kFrom, &composed.from},         {field::kSender, &composed.sender},
      {field::kReplyTo, &composed.reply_to},  {field::kTo, &composed.to},
      {field::kCc, &composed.cc},             {field::kBcc, &composed.bcc},
      {field::kSubject, &composed.subject},   {field::kInReplyTo, &composed.in_reply_to},
      {field::kReferences, &composed.references},
  };
  for (const auto& [name, value] : fields) {
    if (!TrimView(*value).empty()) h.SetValue(name, WString(TrimView(*value)));
  }
  if (composed.unsent) h.SetValue(kFieldXUnsent, u"1");

  ComposeOptions rebuild = options;
  rebuild.save_unsent = composed.unsent;
  if (Result r = RebuildMessage(message, composed.parts, rebuild, report); r.failed()) return r;

  CXmHeader& header = message->header();
  *flags = composed.unsent ? kFlagUnsent : 0;
  SetPriority(&header, flags, static_cast<int>(composed.priority));
  StampSource& stamp = options.stamp ? *options.stamp : SystemStamp();
  StampNewMessage(&header, stamp);
  if (composed.date != kNoDate) header.SetDate(W(WriteDate(composed.date)));
  header.SetValue(kFieldXMailer, MailerName());
  MoveContentFieldsLast(&header);
  return rc::kOk;
}

}  // namespace trv
