// The reading view: the selected message's main header lines, then its
// HTML document of ui/message_show.h, in a text browser. Pictures of the
// message itself ("cid:" and "inl:" sources) are shown; nothing outside the
// message is loaded: remote or local pictures and style sheets stay blank,
// and links are not followed.
#pragma once

#include <QTextBrowser>
#include <cstdint>
#include <memory>

#include "app/gui/language.h"
#include "mime/mime_message.h"
#include "ui/message_view.h"

namespace trv {
class FolderFile;
}

namespace trv::gui {

class ReadingView final : public QTextBrowser {
  Q_OBJECT

 public:
  ReadingView(const LanguageTable& texts, QWidget* parent = nullptr);

  // Shows the message of `key` read whole from `file`; a message that
  // cannot be read shows why instead.
  void ShowMessage(FolderFile& file, uint32_t key);
  void ShowNothing();

  // The message's own pictures; nothing else.
  QVariant loadResource(int type, const QUrl& name) override;

 private:
  const LanguageTable& texts_;
  // The shown message and its view, kept for its pictures.
  std::unique_ptr<CXmMimeMessage> message_;
  MessageView view_;
};

}  // namespace trv::gui
