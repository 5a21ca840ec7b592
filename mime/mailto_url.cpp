#include "mime/mailto_url.h"

#include <string>

#include "base/hex_digits.h"

namespace trv {

namespace {

// Percent escapes decoded to bytes, then read as UTF-8.
WString Unescape(std::string_view text, bool* odd) {
  std::string bytes;
  bytes.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      bytes.push_back(text[i]);
      continue;
    }
    const int high = i + 1 < text.size() ? HexDigitValue(static_cast<unsigned char>(text[i + 1])) : -1;
    const int low = i + 2 < text.size() ? HexDigitValue(static_cast<unsigned char>(text[i + 2])) : -1;
    if (high < 0 || low < 0) {
      *odd = true;
      bytes.push_back('%');
      continue;
    }
    i += 2;
    const char byte = static_cast<char>(high * 16 + low);
    if (byte == '\0') {
      *odd = true;
      continue;
    }
    bytes.push_back(byte);
  }
  return Utf8ToWide(bytes);
}

void AddToList(WString* list, WStringView addresses) {
  const WStringView trimmed = TrimView(addresses);
  if (trimmed.empty()) return;
  if (!list->empty()) *list += u", ";
  *list += trimmed;
}

// CR LF and lone CR become "\n".
WString LineEnds(const WString& text) {
  WString out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == u'\r') {
      out.push_back(u'\n');
      if (i + 1 < text.size() && text[i + 1] == u'\n') ++i;
    } else {
      out.push_back(text[i]);
    }
  }
  return out;
}

}  // namespace

Result ParseMailtoUrl(std::string_view url, MailtoFields* fields) {
  *fields = MailtoFields();
  constexpr std::string_view kScheme = "mailto:";
  if (!StartsWithNoCase(url, kScheme)) return rc::kInvalidArg;
  url.remove_prefix(kScheme.size());
  // A fragment is no part of the address.
  url = url.substr(0, url.find('#'));
  const size_t question = url.find('?');
  AddToList(&fields->to, Unescape(url.substr(0, question), &fields->odd_escapes));
  if (question == std::string_view::npos) return rc::kOk;
  std::string_view query = url.substr(question + 1);
  while (!query.empty()) {
    const size_t amp = query.find('&');
    const std::string_view pair = query.substr(0, amp);
    query = amp == std::string_view::npos ? std::string_view() : query.substr(amp + 1);
    const size_t equals = pair.find('=');
    if (equals == std::string_view::npos) continue;  // no value: nothing to take
    bool odd = false;
    const std::string name = WideToUtf8(Unescape(pair.substr(0, equals), &odd));
    const WString value = Unescape(pair.substr(equals + 1), &odd);
    fields->odd_escapes = fields->odd_escapes || odd;
    if (EqualsNoCase(name, "to")) {
      AddToList(&fields->to, value);
    } else if (EqualsNoCase(name, "cc")) {
      AddToList(&fields->cc, value);
    } else if (EqualsNoCase(name, "bcc")) {
      AddToList(&fields->bcc, value);
    } else if (EqualsNoCase(name, "subject")) {
      fields->subject = value;
    } else if (EqualsNoCase(name, "body")) {
      fields->body = LineEnds(value);
    }
  }
  return rc::kOk;
}

}  // namespace trv
