#include "ui/message_view.h"

#include <algorithm>

#include "mime/message_facts.h"
#include "mime/html_text.h"
#include "ui/image_size.h"

namespace trv {

namespace {

// Keeps the first kImageHeadBytes written to it, then stops the writer.
class HeadSink final : public CXmStream {
 public:
  Result Read(void*, size_t, size_t* got) override {
    *got = 0;
    return rc::kNotImplemented;
  }
  Result Write(const void* buf, size_t size) override {
    const size_t take = std::min(size, kImageHeadBytes - head_.size());
    head_.append(static_cast<const char*>(buf), take);
    return head_.size() < kImageHeadBytes ? rc::kOk : rc::kAbort;
  }
  using CXmStream::Write;
  Result Seek(int64_t, SeekOrigin) override { return rc::kNotImplemented; }
  uint64_t Position() const override { return head_.size(); }
  uint64_t Size() const override { return head_.size(); }
  const std::string& head() const { return head_; }

 private:
  std::string head_;
};

bool IsHtml(const CXmMessagePart& part) { return part.IsText() && part.GetSubtype() == u"html"; }

bool ContainsHtml(const CXmMessagePart& part) {
  if (IsHtml(part)) return true;
  return std::any_of(part.children().begin(), part.children().end(),
                     [](const auto& child) { return ContainsHtml(*child); });
}

// CR LF for bare LF line ends (text stored with Unix line ends).
WString WithCrLf(WString text) {
  if (text.find(u'\n') == WString::npos) return text;
  WString out;
  out.reserve(text.size() + text.size() / 32);
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == u'\n' && (i == 0 || text[i - 1] != u'\r')) out += u'\r';
    out += text[i];
  }
  return out;
}

class ViewBuilder {
 public:
  ViewBuilder(const MessageViewOptions& options, MessageView* view) : options_(options), view_(view) {}

  void Walk(const CXmMessagePart& part) {
    if (part.IsMultipart()) {
      if (part.GetSubtype() == u"alternative") {
        if (const CXmMessagePart* chosen = ChooseAlternative(part)) Walk(*chosen);
        return;
      }
      for (const auto& child : part.children()) Walk(*child);
      return;
    }
    if (IsOfferedAsAttachment(part)) {
      view_->attachments.push_back(&part);
    } else if (part.IsText()) {
      AddText(part);
    } else {
      AddPicture(part);
    }
  }

  // Drops the blocks of pictures that the shown HTML already refers to.
  void Finish() {
    if (html_.empty()) return;
    for (ViewPicture& p : view_->pictures) {
      if (!p.in_document || p.picture.content_id.empty()) continue;
      const WString source = PictureSource(p.picture);
      if (html_.find(source) == WString::npos) continue;
      p.in_document = false;
      std::erase_if(view_->blocks, [&](const HtmlBlock& b) {
        const auto* pic = std::get_if<HtmlPicture>(&b);
        return pic && pic->content_id == p.picture.content_id && pic->number == p.picture.number;
      });
    }
  }

 private:
  const CXmMessagePart* ChooseAlternative(const CXmMessagePart& part) const {
    const CXmMessagePart* plain = nullptr;
    const CXmMessagePart* html = nullptr;
    for (const auto& child : part.children()) {
      if (!plain && child->IsPlainText()) plain = child.get();
      if (ContainsHtml(*child)) html = child.get();
    }
    const CXmMessagePart* first = options_.prefer_html ? html : plain;
    const CXmMessagePart* second = options_.prefer_html ? plain : html;
    if (first) return first;
    if (second) return second;
    return part.children().empty() ? nullptr : part.children().back().get();
  }

  void Keep(Result r) {
    if (view_->status.ok() && r.failed()) view_->status = r;
  }

  void AddText(const CXmMessagePart& part) {
    WString text;
    Keep(part.GetText(&text));
    if (IsHtml(part)) {
      view_->blocks.push_back(HtmlMarkup{WString(HtmlBodyContent(text))});
      html_ += text;
    } else {
      view_->blocks.push_back(WithCrLf(std::move(text)));
    }
    view_->text_parts.push_back(&part);
    ++items_;
  }

  void AddPicture(const CXmMessagePart& part) {
    HeadSink sink;
    const Result r = part.DecodeBody(sink);
    if (r != rc::kAbort) Keep(r);
    HtmlPicture picture;
    if (!ReadImageSize(sink.head(), &picture.width, &picture.height)) {
      view_->attachments.push_back(&part);  // not a picture the view can show
      return;
    }
    picture.content_id = part.GetContentId();
    picture.item = items_;
    picture.number = static_cast<int>(view_->pictures.size());
    view_->blocks.push_back(picture);
    view_->pictures.push_back(ViewPicture{&part, picture, true});
  }

  const MessageViewOptions& options_;
  MessageView* view_;
  int items_ = 0;
  WString html_;  // every HTML text shown, for its "cid:" references
};

}  // namespace

MessageView BuildMessageView(const CXmMimeMessage& message, const MessageViewOptions& options) {
  MessageView view;
  ViewBuilder builder(options, &view);
  builder.Walk(message.root());
  builder.Finish();
  return view;
}

const CXmMessagePart* FindPictureSource(const MessageView& view, WStringView source) {
  for (const ViewPicture& p : view.pictures) {
    if (PictureSource(p.picture) == source) return p.part;
  }
  return nullptr;
}

WString ReadingViewDocument(const CXmMimeMessage& message, const MessageViewOptions& options, Result* status) {
  const MessageView view = BuildMessageView(message, options);
  if (status) *status = view.status;
  return BuildHtmlDocument(view.blocks);
}

}  // namespace trv
