// The compose window's attachment pane: one row per attachment and per
// inline picture (name, size, and for a picture "inline" and its Content-ID),
// files added by the caller (a file dialog, a drop) or taken over from a
// stored message as bytes, removed by the selection.
//
// A file is read when the message is built, not when it is added: the size
// shown is the file's size at adding, and a file that is gone by then is
// named in the build's report.
//
// Threads: interface thread.
#pragma once

#include <QTreeWidget>
#include <filesystem>
#include <vector>

#include "app/gui/language.h"
#include "mime/compose.h"

namespace trv::gui {

class AttachmentEditor final : public QTreeWidget {
  Q_OBJECT

 public:
  explicit AttachmentEditor(const LanguageTable& texts, QWidget* parent = nullptr);

  // Adds the file; false (nothing added) when it is no regular file that
  // can be read. An inline picture gets a new Content-ID.
  bool AddFile(const std::filesystem::path& path, bool inline_item);
  // Adds an item as it stands (bytes or a file).
  void AddItem(const ComposedItem& item, bool inline_item);
  // Removes the selected rows; how many.
  int RemoveSelected();

  const std::vector<ComposedItem>& attachments() const { return attachments_; }
  const std::vector<ComposedItem>& inline_items() const { return inline_items_; }
  int count() const { return static_cast<int>(attachments_.size() + inline_items_.size()); }

 signals:
  void changed();

 private:
  void Rebuild();

  const LanguageTable& texts_;
  std::vector<ComposedItem> attachments_;
  std::vector<ComposedItem> inline_items_;
};

}  // namespace trv::gui
