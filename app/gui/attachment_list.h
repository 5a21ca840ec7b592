// The attachment list under the reading view: one row per part the message
// offers as an attachment (name, type, decoded size), with "Open" and
// "Save as..." as buttons beside it, in a context menu, and Open on a double
// click or Enter.
//
// Save as writes the decoded content to the chosen file, created 0600 (an
// existing file is truncated and made 0600). Open writes it into a private
// directory of this process (0700, removed at exit) and hands it to the
// desktop's program for its type.
//
// Lifetimes: the parts belong to the message the reading view shows; the
// view calls SetAttachments again (empty) before that message goes.
// Threads: interface thread.
#pragma once

#include <QWidget>
#include <filesystem>
#include <functional>
#include <vector>

#include "app/gui/language.h"
#include "base/result.h"
#include "mime/message_part.h"

class QPushButton;
class QTreeWidget;

namespace trv::gui {

// Writes the decoded content of `part` to `path`, created or truncated with
// mode 0600. On failure the file is removed and the code says why.
Result SaveAttachment(const CXmMessagePart& part, const std::filesystem::path& path);

// A name to save a part under: the last component of its file name, without
// control characters; `fallback` when nothing is left.
QString AttachmentFileName(const CXmMessagePart& part, const QString& fallback);

class AttachmentList final : public QWidget {
  Q_OBJECT

 public:
  explicit AttachmentList(const LanguageTable& texts, QWidget* parent = nullptr);

  void SetAttachments(const std::vector<const CXmMessagePart*>& parts);
  int count() const { return static_cast<int>(parts_.size()); }
  QTreeWidget& list() const { return *list_; }

  // The question "where to save"; empty answer: cancelled. By default a file
  // dialog; tests answer it themselves.
  using AskPath = std::function<QString(const QString& suggested)>;
  void SetSaveQuestion(AskPath ask) { ask_ = std::move(ask); }

  // Save as for the attachment in `row`: asks, then writes; rc::kAbort when
  // cancelled. A failure is also shown in a message box.
  Result SaveAs(int row);
  // Saves into the private directory and opens it with the desktop.
  Result Open(int row);

 private:
  int CurrentRow() const;
  void ShowMenu(const QPoint& at);
  void Problem(const QString& file, Result r);

  const LanguageTable& texts_;
  QTreeWidget* list_;
  QPushButton* open_;
  QPushButton* save_;
  std::vector<const CXmMessagePart*> parts_;
  AskPath ask_;
};

}  // namespace trv::gui
