#include "app/gui/reading_view.h"

#include <memory>
#include <string>

#include "mime/message_source.h"
#include "mime/mime_message.h"
#include "store/folder_file.h"
#include "ui/message_show.h"

namespace trv::gui {

ReadingView::ReadingView(const LanguageTable& texts, QWidget* parent) : QTextBrowser(parent), texts_(texts) {
  setOpenLinks(false);
  setOpenExternalLinks(false);
}

QVariant ReadingView::loadResource(int, const QUrl&) { return QVariant(); }

void ReadingView::ShowMessage(FolderFile& file, uint32_t key) {
  std::string text;
  if (Result r = file.ReadMessage(key, &text); r.failed()) {
    setPlainText(QString::fromStdString(texts_.Text("MessageUnreadable")).arg(QString::fromStdString(ResultText(r))));
    return;
  }
  CXmMimeMessage message;
  // Broken MIME is still shown as far as it could be read.
  message.Parse(std::make_shared<CXmMemorySource>(std::move(text))).Ignore();
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
