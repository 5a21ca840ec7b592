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
// The options the person sets in the Options dialog, in
// "CMLGUIParams\Options" (dwords):
//   "SyncAtStart"          1: the accounts with SyncAtStartup synchronise
//                          when the window opens;
//   "PeriodicSync"         1: the accounts' SyncMinutes apply;
//   "ConfirmDeleteMessages", "ConfirmDeleteFolders"  1: ask before deleting;
//   "FontSize"             the reading view's points; 0 the desktop's;
//   "RemoteContent"        0 always block, 1 ask per message, 2 always allow.
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
  // Writes them back and lets the file go; Save keeps it for later saves.
  void Finish();
  void Save();

  QByteArray main_geometry;  // empty: the window's default place and size
  QByteArray main_panes;
  QByteArray list_columns;
  uint32_t view_mode = 0;
  int sort_column = -1;  // none: the index's order
  bool sort_descending = false;
  WString last_storage;  // empty: none
  WString last_folder;
  bool send_at_once = false;

  bool sync_at_start = true;
  bool periodic_sync = true;
  bool confirm_delete_messages = true;
  bool confirm_delete_folders = true;
  uint32_t font_size = 0;  // points; 0: the desktop's
  uint32_t remote_content = 1;  // 0 block, 1 ask, 2 allow (RemotePolicy)

 private:
  std::unique_ptr<RegistryKey> key_;
};

}  // namespace trv::gui
