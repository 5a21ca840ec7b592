#include "app/gui/reading_view.h"

#include <QImage>
#include <QTextDocument>
#include <memory>
#include <string>

#include "mime/message_source.h"
#include "mime/mime_message.h"
#include "mime/stream.h"
#include "store/folder_file.h"
#include "ui/message_show.h"

namespace trv::gui {

ReadingView::ReadingView(const LanguageTable& texts, QWidget* parent) : QTextBrowser(parent), texts_(texts) {
  setOpenLinks(false);
  setOpenExternalLinks(false);
}

void ReadingView::ShowNothing() {
  clear();
  view_ = MessageView();
  message_.reset();
}

QVariant ReadingView::loadResource(int type, const QUrl& name) {
  if (type != QTextDocument::ImageResource || message_ == nullptr) return QVariant();
  const CXmMessagePart* part = FindPictureSource(view_, Utf8ToWide(name.toString().toStdString()));
  if (part == nullptr) return QVariant();
  CXmMemoryStream bytes;
  // A damaged picture shows what could be decoded, or nothing.
  part->DecodeBody(bytes).Ignore();
  const QImage image = QImage::fromData(QByteArray::fromStdString(bytes.data()));
  return image.isNull() ? QVariant() : QVariant(image);
}

void ReadingView::ShowMessage(FolderFile& file, uint32_t key) {
  ShowNothing();
  std::string text;
  if (Result r = file.ReadMessage(key, &text); r.failed()) {
    setPlainText(QString::fromStdString(texts_.Text("MessageUnreadable")).arg(QString::fromStdString(ResultText(r))));
    return;
  }
  message_ = std::make_unique<CXmMimeMessage>();
  CXmMimeMessage& message = *message_;
  // Broken MIME is still shown as far as it could be read.
  message.Parse(std::make_shared<CXmMemorySource>(std::move(text))).Ignore();
  view_ = BuildMessageView(message);
  // The main header lines above the text, in the document's body.
  QString headers = QString::fromStdString(RenderMainHeaders(message)).trimmed().toHtmlEscaped();
  headers.replace("\n", "<br>");
  QString doc = QString::fromStdString(RenderMessageHtml(message));
  const qsizetype body = doc.indexOf("<BODY>", 0, Qt::CaseInsensitive);
  const QString block = "<P style=\"background-color:#eeeeee\">" + headers + "</P>";
  doc.insert(body < 0 ? 0 : body + 6, block);
  setHtml(doc);
}

}  // namespace trv::gui
