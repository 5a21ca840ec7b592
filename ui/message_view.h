// What a message contributes to the reading view, in document order: its text
// items, its pictures and the parts offered as attachments; and the document
// the view shows (ui/text_to_html.h wraps it).
//
// The walk over the part tree:
//  - "multipart/alternative": one child is shown: the plain-text one (the
//    HTML one with prefer_html), else the other kind of text, else the last
//    child (the richest by RFC 2046 5.1.4);
//  - every other container ("mixed", "related", "digest", "signed", ...):
//    each child in order;
//  - a single part offered as attachment (mime/message_facts.h) goes to the
//    attachment list;
//  - text: "text/html" is shown as it is (the markup inside its <body>),
//    every other text subtype as plain text through the conversion;
//  - a picture whose size can be read from its first bytes is shown with
//    that size; one whose format is unknown is offered as an attachment
//    instead. Pictures that the shown HTML refers to by "cid:" are not shown
//    again after it, but stay in `pictures` so that the view can resolve them.
// Plain text with bare LF line ends gets CR LF first so that its lines break
// in the document.
#pragma once

#include <string>
#include <vector>

#include "base/result.h"
#include "base/wide_string.h"
#include "mime/mime_message.h"
#include "ui/text_to_html.h"

namespace trv {

struct MessageViewOptions {
  bool prefer_html = false;  // in "multipart/alternative" show the HTML body
};

struct ViewPicture {
  const CXmMessagePart* part = nullptr;
  HtmlPicture picture;  // its source name is PictureSource(picture)
  bool in_document = false;  // shown as a block of its own (not only through the HTML)
};

struct MessageView {
  std::vector<HtmlBlock> blocks;                 // the document's blocks in order
  std::vector<const CXmMessagePart*> text_parts;  // the parts of the text blocks, in order
  std::vector<ViewPicture> pictures;
  std::vector<const CXmMessagePart*> attachments;
  // The first problem met while decoding a shown part (0xA0003000 damaged
  // encoding, 0xA0003003 character set, or a read error); what could be read
  // is shown either way.
  Result status;
};

// REQUIRES: the message can still read its bodies (it keeps its source, or
// holds composed content). The view points into the message's parts.
MessageView BuildMessageView(const CXmMimeMessage& message, const MessageViewOptions& options = {});

// The part a picture source name ("cid:..." or "inl:<item>.<number>") stands
// for, or nullptr.
const CXmMessagePart* FindPictureSource(const MessageView& view, WStringView source);

// The reading view's document of a message (BuildHtmlDocument of its blocks).
WString ReadingViewDocument(const CXmMimeMessage& message, const MessageViewOptions& options = {},
                            Result* status = nullptr);

}  // namespace trv
