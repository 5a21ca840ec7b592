// Converts arbitrary UTF-16 text. Checks that nothing crashes, that no text
// character reaches the output as markup, and that a link target never closes
// its attribute early.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "ui/text_to_html.h"

namespace {

// Every "<" of the output starts one of the conversion's own tags, and every
// href value ends at the quote before ">".
void CheckMarkup(std::u16string_view out, bool no_links) {
  static constexpr std::u16string_view kTags[] = {u"<br>", u"<a href=\"", u"</a>"};
  for (size_t i = out.find(u'<'); i != std::u16string_view::npos; i = out.find(u'<', i + 1)) {
    const std::u16string_view rest = out.substr(i);
    bool known = false;
    for (const auto tag : kTags) known = known || rest.starts_with(tag);
    if (!known || (no_links && !rest.starts_with(u"<br>"))) std::abort();
    if (rest.starts_with(u"<a href=\"")) {
      const size_t close = rest.find(u'"', 9);
      if (close == std::u16string_view::npos || close + 1 >= rest.size() || rest[close + 1] != u'>') std::abort();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::u16string text;
  for (size_t i = 0; i + 1 < size; i += 2) text.push_back(static_cast<char16_t>(data[i] | data[i + 1] << 8));
  for (const bool no_links : {false, true}) CheckMarkup(trv::TextToHtml(text, no_links), no_links);
  const trv::WString doc = trv::BuildHtmlDocument({text, trv::HtmlPicture{text, 1, 2, 3, 4}, text});
  if (!doc.ends_with(u"</BODY></HTML>")) std::abort();
  return 0;
}
