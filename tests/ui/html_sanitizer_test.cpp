#include "ui/html_sanitizer.h"

#include <gtest/gtest.h>

namespace trv {
namespace {

TEST(HtmlSanitizerTest, RemovesWhatCouldRunOrLoadAndKeepsTheRestWellFormed) {
  struct Row { const char* name; WString in; WString out; bool remote; };
  const Row rows[] = {
      {"script with content, handler, any case", u"<P OnClick=x()>a<SCRIPT>b</script >c", u"<p>ac</p>", false},
      {"script scheme hidden by a reference", u"<a href=\"java&#x0A;script:x\">l</a><a href=\"#t\">m</a>",
       u"<a>l</a><a href=\"#t\">m</a>", false},
      {"remote picture, own picture, quotes kept out", u"<img src='http://h/x\"y'><img src=cid:p1>",
       u"<img><img src=\"cid:p1\">", true},
      {"allowed: remote stays, escaped", u"<img src='http://h/x\"y'>", u"<img src=\"http://h/x&quot;y\">", true},
      {"css url and @import", u"<style>@import 'http://h/s.css'; b{background:url(//h/b)}</style><i style=\"color:red\">",
       u"<style> b{background:none}</style><i style=\"color:red\"></i>", true},
      {"css expression and escapes dropped", u"<b style=\"width:expression(x)\">1</b><b style=\"u\\72l(x)\">2</b>",
       u"<b>1</b><b>2</b>", false},
      {"frames and forms", u"<iframe src=x>in</iframe><form action=http://h><input value=v>t</form><embed src=a>",
       u"t", false},
      {"comments, doctype, stray end tags, bare <", u"<!DOCTYPE x><!-- <b> -->a</i>< b<br>", u"a&lt; b<br>", false},
      {"open cells close each other, not the table", u"<table><tr><td>1<td>2<tr><td>3</table>x",
       u"<table><tr><td>1</td><td>2</td></tr><tr><td>3</td></tr></table>x", false},
      {"end tag closes what it encloses", u"<div><b><i>x</div>y", u"<div><b><i>x</i></b></div>y", false},
      {"tag cut off by the end", u"a<img src=\"x", u"a", false},
  };
  for (const Row& r : rows) {
    HtmlSanitizeOptions options;
    options.allow_remote = std::string_view(r.name).starts_with("allowed");
    HtmlSanitizeReport report;
    EXPECT_EQ(WideToUtf8(SanitizeHtml(r.in, options, &report)), WideToUtf8(r.out)) << r.name;
    EXPECT_EQ(report.remote(), r.remote) << r.name;
  }
}

}  // namespace
}  // namespace trv
