// The reading view: the selected message's main header lines, then its
// HTML document of ui/message_show.h, in a text browser. Nothing outside the document is
// loaded: pictures and style sheets it names (remote or local) stay blank,
// and links are not followed.
#pragma once

#include <QTextBrowser>
#include <cstdint>

#include "app/gui/language.h"

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
  void ShowNothing() { clear(); }

  QVariant loadResource(int type, const QUrl& name) override;

 private:
  const LanguageTable& texts_;
};

}  // namespace trv::gui
