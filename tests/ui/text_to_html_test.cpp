#include "ui/text_to_html.h"

#include <gtest/gtest.h>

namespace trv {
namespace {

TEST(TextToHtmlTest, EscapesLineEndsWebLinksAndAddresses) {
  struct Row { const char* name; WString in; WString out; };
  const Row rows[] = {
      {"reserved characters; a backslash becomes &quot;", u"a<b & c>d \"q\" C:\\x", u"a&lt;b &amp; c&gt;d \"q\" C:&quot;x"},
      {"CR LF is a break, CR alone is dropped, LF alone kept", u"1\r\n2\r3\n4", u"1<br>23\n4"},
      // Web links.
      {"target raw, text escaped, comma ends", u"see http://host/p?a=1&b=2, then",
       u"see <a href=\"http://host/p?a=1&b=2\">http://host/p?a=1&amp;b=2</a>, then"},
      {"not links", u"xhttp://a http:// x h w m H https://a", u"xhttp://a http:// x h w m H https://a"},
      {"www gains the scheme in the target only; after LF", u"x\nwww.b", u"x\n<a href=\"http://www.b\">www.b</a>"},
      {"ended by <", u"http://a<b", u"<a href=\"http://a\">http://a</a>&lt;b"},
      {"backslash raw in the target", u"http://a\\b", u"<a href=\"http://a\\b\">http://a&quot;b</a>"},
      // Addresses and mailto: links.
      {"mailto keeps its scheme", u"mailto:me@host", u"<a href=\"mailto:me@host\">mailto:me@host</a>"},
      {"two addresses, the second stops at the comma", u"To: me@host, you@there",
       u"To: <a href=\"mailto:me@host\">me@host</a>, <a href=\"mailto:you@there\">you@there</a>"},
      {"no address: @ at the start, blank after @", u"@host me@ host", u"@host me@ host"},
      {"domain runs to the next separator", u"me@host.com. Bye", u"<a href=\"mailto:me@host.com.\">me@host.com.</a> Bye"},
      {"local part stops at an entity's ;", u"a&b@host", u"a&amp;<a href=\"mailto:b@host\">b@host</a>"},
      {"local part stops at a double quote", u"\"Me\"me@h", u"\"Me\"<a href=\"mailto:me@h\">me@h</a>"},
      {"local part after a link", u"http://a b@c", u"<a href=\"http://a\">http://a</a> <a href=\"mailto:b@c\">b@c</a>"},
      {"mailto not at a word start", u"xmailto:a@b", u"<a href=\"mailto:xmailto:a@b\">xmailto:a@b</a>"},
  };
  for (const Row& r : rows) EXPECT_EQ(WideToUtf8(TextToHtml(r.in)), WideToUtf8(r.out)) << r.name;
}

// Texts and pictures in one document (text items and separators are
// MessageViewTest's). A content identifier cannot break out of the
// attribute; one without brackets, or with only the opening one, is used as
// it is.
TEST(TextToHtmlTest, DocumentPictureSources) {
  EXPECT_EQ(BuildHtmlDocument({}), u"<HTML><HEAD></HEAD><BODY>\n</BODY></HTML>");
  const std::pair<WString, WString> sources[] = {
      {u"<a\"b&c>", u"cid:a&quot;b&amp;c"}, {u"img1@host", u"cid:img1@host"}, {u"<img1@host", u"cid:img1@host"}};
  for (const auto& [id, src] : sources) {
    EXPECT_EQ(BuildHtmlDocument({WString(u"www.a"), HtmlPicture{id, 0, 0, 1, 2}}),
              u"<HTML><HEAD></HEAD><BODY>\n<a href=\"http://www.a\">www.a</a><img src=\"" + src +
                  u"\" title=\"\" alt=\"\" width=\"1\" height=\"2\"></BODY></HTML>") << WideToUtf8(id);
  }
}

}  // namespace
}  // namespace trv
