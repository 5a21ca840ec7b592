// The search field: a line edit in a tool bar above the panes that filters
// the message list to the messages of the shown folder that match its query
// (core/search_query.h); an empty field shows them all again. The search
// database follows the folder at each search: new messages are indexed in
// slices of kSlice between events, so the interface stays responsive while
// a big folder is indexed the first time, and the folder file is only ever
// touched on the interface thread. Rows are hidden in the view, not taken
// out of the model, so every command keeps its row numbers.
#pragma once

#include <QObject>

#include <cstdint>
#include <set>

#include "core/search_index.h"

class QLineEdit;
class QTimer;

namespace trv::gui {

class MainWindow;

class SearchField final : public QObject {
  Q_OBJECT

 public:
  static constexpr size_t kSlice = 500;  // new messages indexed per event-loop turn

  explicit SearchField(MainWindow& window);

 private:
  // Starts a search of the shown folder over (after a pause in typing).
  void Restart();
  // One slice of indexing, then the hits when nothing is left to index.
  void Step();
  // Hides the rows that are not hits (none while the field is empty).
  void Apply();

  MainWindow& window_;
  QLineEdit* edit_;
  QTimer* pause_;
  QTimer* slice_;
  SearchIndex index_;
  bool opened_ = false;
  bool filtering_ = false;   // hits_ hold the answer to the field's text
  std::set<uint32_t> hits_;  // keys in the shown folder
};

}  // namespace trv::gui
