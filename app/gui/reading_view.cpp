#include "app/gui/reading_view.h"

#include <QDesktopServices>
#include <QHBoxLayout>
#include <QLabel>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPushButton>
#include <QScrollBar>
#include <QTextDocument>
#include <optional>
#include <string>
#include <variant>

#include "app/gui/attachment_list.h"
#include "core/folder_message_source.h"
#include "mime/mime_result.h"
#include "mime/stream.h"
#include "services/full_download.h"
#include "store/mail_folder.h"
#include "ui/message_show.h"

namespace trv::gui {

namespace {

void Add(HtmlSanitizeReport* sum, const HtmlSanitizeReport& r) {
  sum->scripts += r.scripts;
  sum->event_handlers += r.event_handlers;
  sum->embedded += r.embedded;
  sum->remote_pictures += r.remote_pictures;
  sum->remote_styles += r.remote_styles;
  sum->long_attributes += r.long_attributes;
  sum->depth_cut = sum->depth_cut || r.depth_cut;
  sum->cut = sum->cut || r.cut;
  for (const WString& s : r.remote_sources) {
    if (sum->remote_sources.size() < HtmlSanitizeReport::kMaxRemoteSources) sum->remote_sources.push_back(s);
  }
}

// A remote picture source as a URL to fetch; invalid for anything but
// http(s) ("//host/x" is taken as https).
QUrl FetchUrl(const WString& source) {
  QString text = QString::fromStdU16String(source).trimmed();
  if (text.startsWith("//")) text.prepend("https:");
  const QUrl url(text);
  return url.scheme() == "http" || url.scheme() == "https" ? url : QUrl();
}

}  // namespace

ReadingView::ReadingView(const LanguageTable& texts, QWidget* parent) : QTextBrowser(parent), texts_(texts) {
  setOpenLinks(false);
  setOpenExternalLinks(false);
  remote_bar_ = MakeBar("RemoteAllow");
  partial_bar_ = MakeBar("PartialFetch");
  attachments_ = new AttachmentList(texts, this);
  attachments_->hide();
  connect(remote_bar_.button, &QPushButton::clicked, this, [this] { AllowRemoteContent(); });
  // A failed mark is said in the bar itself.
  connect(partial_bar_.button, &QPushButton::clicked, this, [this] { RequestRest().Ignore(); });
  connect(this, &QTextBrowser::anchorClicked, this, [this](const QUrl& url) { LinkClicked(url); });
}

ReadingView::~ReadingView() { delete network_; }

QString ReadingView::Text(const char* id) const { return QString::fromStdString(texts_.Text(id)); }

NoticeBar ReadingView::MakeBar(const char* button_text) {
  NoticeBar bar;
  bar.frame = new QFrame(this);
  bar.frame->setAutoFillBackground(true);
  bar.frame->setStyleSheet("QFrame { background-color: #fff4c2; }");
  bar.label = new QLabel;
  bar.label->setWordWrap(true);
  bar.button = new QPushButton(Text(button_text));
  auto* layout = new QHBoxLayout(bar.frame);
  layout->setContentsMargins(6, 3, 6, 3);
  layout->addWidget(bar.label, 1);
  layout->addWidget(bar.button);
  bar.frame->hide();
  return bar;
}

void ReadingView::ShowNothing() {
  delete network_;  // stops the fetches of the message shown so far
  network_ = nullptr;
  remote_images_.clear();
  remote_pending_ = 0;
  clear();
  attachments_->SetAttachments({});
  view_ = MessageView();
  message_.reset();
  report_ = HtmlSanitizeReport();
  remote_allowed_ = false;
  folder_ = nullptr;
  key_ = 0;
  remote_bar_.frame->hide();
  partial_bar_.frame->hide();
  LayOutBars();
}

void ReadingView::ShowMessage(MailFolder& folder, uint32_t key) {
  ShowNothing();
  std::shared_ptr<FolderMessageSource> source;
  Result r = folder.available() ? FolderMessageSource::Open(*folder.file(), key, &source) : rc::kFileMissing;
  if (r.ok()) {
    message_ = std::make_unique<CXmMimeMessage>();
    r = message_->Parse(source);
    // Broken MIME is still shown as far as it could be read; a failed read
    // of the folder file is not.
    if (r == rc::kMimeSyntax || r == rc::kMimeCharset) r = rc::kOk;
  }
  if (r.failed()) {
    message_.reset();
    setPlainText(Text("MessageUnreadable").arg(QString::fromStdString(ResultText(r))));
    return;
  }
  folder_ = &folder;
  key_ = key;
  Render();
  if (remote_policy_ == RemotePolicy::kAllow && report_.remote()) AllowRemoteContent();
  ShowPartialBar();
}

void ReadingView::ShowSource(std::shared_ptr<CXmMessageSource> source) {
  ShowNothing();
  message_ = std::make_unique<CXmMimeMessage>();
  // What could be read is shown; a read error shows an empty message.
  message_->Parse(std::move(source)).Ignore();
  Render();
  if (remote_policy_ == RemotePolicy::kAllow && report_.remote()) AllowRemoteContent();
}

void ReadingView::Render() {
  MessageViewOptions view_options;
  view_options.prefer_html = true;  // safe to show now that it is sanitised
  view_ = BuildMessageView(*message_, view_options);
  HtmlSanitizeOptions options;
  options.allow_remote = remote_allowed_;
  report_ = HtmlSanitizeReport();
  const WString cut_line = u"<p><i>" + Text("ReadingCut").toHtmlEscaped().toStdU16String() + u"</i></p>";
  for (HtmlBlock& block : view_.blocks) {
    auto* markup = std::get_if<HtmlMarkup>(&block);
    if (markup == nullptr) continue;
    HtmlSanitizeReport r;
    markup->html = SanitizeHtml(markup->html, options, &r);
    if (r.cut || r.depth_cut) markup->html += cut_line;
    Add(&report_, r);
  }
  // The main header lines first, in the document's body.
  QString headers = QString::fromStdString(RenderMainHeaders(*message_)).trimmed().toHtmlEscaped();
  headers.replace("\n", "<br>");
  QString doc = QString::fromStdU16String(BuildHtmlDocument(view_.blocks));
  const qsizetype body = doc.indexOf("<BODY>", 0, Qt::CaseInsensitive);
  doc.insert(body < 0 ? 0 : body + 6, "<P style=\"background-color:#eeeeee\">" + headers + "</P>");
  const int scrolled = verticalScrollBar()->value();
  setHtml(doc);
  verticalScrollBar()->setValue(scrolled);

  attachments_->SetAttachments(view_.attachments);
  remote_bar_.label->setText(Text("RemoteBlocked"));
  remote_bar_.frame->setVisible(report_.remote() && !remote_allowed_ && remote_policy_ == RemotePolicy::kAsk);
  LayOutBars();
}

void ReadingView::ShowPartialBar() {
  const std::optional<MessageRecord> record =
      folder_ != nullptr && folder_->available() ? folder_->file()->FindMessage(key_) : std::nullopt;
  const bool partial = record && (record->flags & msgflag::kPartial);
  partial_bar_.frame->setVisible(partial);
  if (partial) {
    const bool requested = record->flags & msgflag::kFullDownloadRequested;
    partial_bar_.label->setText(requested ? Text("PartialRequested")
                                          : Text("PartialMessage").arg(record->size).arg(record->server_size));
    partial_bar_.button->setVisible(!requested);
  }
  LayOutBars();
}

Result ReadingView::RequestRest() {
  if (folder_ == nullptr || !folder_->available()) return rc::kInvalidArg;
  const Result r = RequestFullDownload(*folder_->file(), key_);
  if (r.failed()) {
    partial_bar_.label->setText(Text("PartialNotMarked").arg(QString::fromStdString(ResultText(r))));
    return r;
  }
  ShowPartialBar();
  emit fetchRequested(folder_, key_);
  return rc::kOk;
}

void ReadingView::AllowRemoteContent() {
  if (message_ == nullptr || remote_allowed_) return;
  remote_allowed_ = true;
  Render();
  FetchRemotePictures();
}

void ReadingView::FetchRemotePictures() {
  if (network_ == nullptr) network_ = new QNetworkAccessManager;
  for (const WString& source : report_.remote_sources) {
    const QUrl url = FetchUrl(source);
    if (!url.isValid() || remote_images_.contains(QString::fromStdU16String(source))) continue;
    remote_images_.insert(QString::fromStdU16String(source), QImage());  // asked once
    QNetworkRequest request(url);
    request.setTransferTimeout(kRemoteTimeoutMs);
    request.setMaximumRedirectsAllowed(3);
    QNetworkReply* reply = network_->get(request);
    reply->setProperty("source", QString::fromStdU16String(source));
    ++remote_pending_;
    connect(reply, &QNetworkReply::downloadProgress, reply, [reply](qint64 received, qint64 total) {
      if (received > kMaxRemoteBytes || total > kMaxRemoteBytes) reply->abort();
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply] { RemoteFinished(reply); });
  }
}

void ReadingView::RemoteFinished(QNetworkReply* reply) {
  reply->deleteLater();
  if (reply->error() == QNetworkReply::NoError) {
    const QImage image = QImage::fromData(reply->read(kMaxRemoteBytes));
    if (!image.isNull()) remote_images_.insert(reply->property("source").toString(), image);
  }
  // One new layout when the last picture is in, not one per picture.
  if (--remote_pending_ == 0 && message_ != nullptr) Render();
}

QVariant ReadingView::loadResource(int type, const QUrl& name) {
  if (type != QTextDocument::ImageResource || message_ == nullptr) return QVariant();
  if (remote_allowed_) {
    const auto it = remote_images_.constFind(name.toString());
    if (it != remote_images_.constEnd() && !it->isNull()) return *it;
  }
  const CXmMessagePart* part = FindPictureSource(view_, Utf8ToWide(name.toString().toStdString()));
  if (part == nullptr) return QVariant();
  CXmMemoryStream bytes;
  // A damaged picture shows what could be decoded, or nothing.
  part->DecodeBody(bytes).Ignore();
  const QImage image = QImage::fromData(QByteArray::fromStdString(bytes.data()));
  return image.isNull() ? QVariant() : QVariant(image);
}

void ReadingView::LinkClicked(const QUrl& url) {
  const QString scheme = url.scheme().toLower();
  if (scheme == "http" || scheme == "https") {
    QDesktopServices::openUrl(url);
  } else if (scheme == "mailto") {
    emit composeRequested(url);
  } else if (scheme.isEmpty() && url.hasFragment()) {
    scrollToAnchor(url.fragment());
  }
}

void ReadingView::resizeEvent(QResizeEvent* event) {
  QTextBrowser::resizeEvent(event);
  LayOutBars();
}

void ReadingView::LayOutBars() {
  const QRect area = contentsRect();
  int top = 0;
  for (const NoticeBar* bar : {&partial_bar_, &remote_bar_}) {
    if (bar->frame->isHidden()) continue;
    const int height = bar->frame->heightForWidth(area.width()) > 0 ? bar->frame->heightForWidth(area.width())
                                                                    : bar->frame->sizeHint().height();
    bar->frame->setGeometry(area.left(), area.top() + top, area.width(), height);
    top += height;
  }
  int bottom = 0;
  if (!attachments_->isHidden()) {
    bottom = std::min(attachments_->sizeHint().height(), attachments_->maximumHeight());
    attachments_->setGeometry(area.left(), area.bottom() + 1 - bottom, area.width(), bottom);
  }
  setViewportMargins(0, top, 0, bottom);
}

}  // namespace trv::gui
