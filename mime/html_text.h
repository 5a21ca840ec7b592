// A plain-text reading of an HTML body, for a terminal: tags dropped, block
// tags and <br> as line breaks, list items with a bullet, the contents of
// <head>, <script> and <style> left out, character references decoded, and
// white space collapsed the way a browser does (kept inside <pre>).
#pragma once

#include "base/wide_string.h"

namespace trv {

// Lines end in "\n". Runs of empty lines are reduced to one.
WString HtmlToPlainText(WStringView html);

// The markup between <body ...> and </body> (any case), or all of it when
// there is no <body> tag: what goes inside the reading view's own document.
WStringView HtmlBodyContent(WStringView html);

}  // namespace trv
