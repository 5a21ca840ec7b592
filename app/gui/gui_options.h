// The person's options for the window program, kept in the registry file
// (core/registry.h) under "CMLGUIParams" subkeys. The main window's, all in
// "CMLGUIParams\MainWnd":
//   "Geometry", "Panes", "ListColumns"  binary, Qt's own encodings of the
//                          place and size, the panes' division, the list's
//                          column widths;
//   "ViewMode"             dword: 0 three panes, 1 tabs, 2 single page;
//   "SortColumn"           dword: the list's sort column, 0xFFFFFFFF none;
//   "SortOrder"            dword: 0 ascending, 1 descending;
//   "LastStorage", "LastFolder"  strings: the storage's name and the path
//                          of the folder shown below its root ("A/B").
// The compose window's, in "CMLGUIParams\Compose":
//   "SendAtOnce"           dword: 1 starts the sending run when a message is queued.
// A value that is missing or of another kind keeps its default.
//
// Created after the engine and finished before it is released; a registry
// file that cannot be opened leaves the defaults and saves nothing.
// Threads: interface thread.
#pragma once

#include <QByteArray>
#include <cstdint>
#include <filesystem>
#include <memory>

#include "base/wide_string.h"
#include "core/registry.h"

namespace trv::gui {

class GuiOptions {
 public:
  // Reads the options from the key file (RegistryKey::DefaultPath() when
  // `file` is empty).
  void Load(const std::filesystem::path& file, LogSink* log);
  // Writes them back.
  void Finish();

  QByteArray main_geometry;  // empty: the window's default place and size
  QByteArray main_panes;
  QByteArray list_columns;
  uint32_t view_mode = 0;
  int sort_column = -1;  // none: the index's order
  bool sort_descending = false;
  WString last_storage;  // empty: none
  WString last_folder;
  bool send_at_once = false;

 private:
  std::unique_ptr<RegistryKey> key_;
};

}  // namespace trv::gui
