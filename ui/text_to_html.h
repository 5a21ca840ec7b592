// The reading view's plain-text to HTML conversion and the document it shows.
//
// ConvertTextToHtml goes through the text one UTF-16 unit at a time:
//   "<" ">" "&"  become "&lt;" "&gt;" "&amp;"
//   "\"          becomes "&quot;", while the double quote itself is copied.
//                (This pairing is kept as the display has always done it.)
//   CR LF        becomes "<br>"; a CR alone is dropped; an LF alone is copied.
//   links        at a word start (text start, or after TAB, LF, CR or blank):
//                "http://..." (any case) and "mailto:..." link to themselves,
//                "www...." links to "http://www....". The link runs over
//                address characters: units of 35 and above other than
//                ";" "," "<" ">" (so control characters, the blank, "!" and
//                the double quote end it, and the target can never close the
//                href attribute).
//   "@"          with address characters on both sides becomes a mailto link.
//                The local part is taken back from the output already
//                written: the address characters before the "@", never
//                reaching back past the last ";" or "," of the text.
//                Entities in it ("&amp;", "&quot;") are turned back into
//                "&" and the double quote for the target.
// The visible text of every link is the link converted with links off.
#pragma once

#include <variant>
#include <vector>

#include "base/wide_string.h"

namespace trv {

// Converts `text` in place. With `no_links` only the escaping and the line
// breaks are done.
void ConvertTextToHtml(WString* text, bool no_links);
WString TextToHtml(WStringView text, bool no_links = false);

// A picture shown in the document. `content_id` is the picture part's
// Content-ID ("<id>" or "id"), or empty; a picture without one is named
// "inl:<item>.<number>", which the view resolves back to the part.
struct HtmlPicture {
  WString content_id;
  int item = 0;
  int number = 0;
  int width = 0;
  int height = 0;
};

// Markup placed in the document as it is (the inside of an HTML body). It
// counts as a text item for the separators.
struct HtmlMarkup {
  WString html;
};

// One block of the document: a plain text (converted with links), markup, or
// a picture.
using HtmlBlock = std::variant<WString, HtmlPicture, HtmlMarkup>;

// "cid:" + the content identifier without its angle brackets, or
// "inl:<item>.<number>" (ui/message_view.h FindPictureSource resolves both).
WString PictureSource(const HtmlPicture& picture);

// The whole document: "<HTML><HEAD></HEAD><BODY>\n", the blocks in order, and
// "</BODY></HTML>". Every text or markup block but the first is preceded by the
// separator "\n<br><hr width="100%" size="2"><br>\n"; pictures become
// <img src="..." title="" alt="" width="W" height="H"> (the source escaped
// for the attribute).
WString BuildHtmlDocument(const std::vector<HtmlBlock>& blocks);

}  // namespace trv
