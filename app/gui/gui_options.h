// The person's options for the window program, kept in the registry file
// (core/registry.h) under "CMLGUIParams" subkeys. For now the main window's
// place and size and its panes' division ("CMLGUIParams\MainWnd", values
// "Geometry" and "Panes", Qt's own encodings as binary values).
//
// Created after the engine and finished before it is released; a registry
// file that cannot be opened leaves the defaults and saves nothing.
// Threads: interface thread.
#pragma once

#include <QByteArray>
#include <filesystem>
#include <memory>

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

 private:
  std::unique_ptr<RegistryKey> key_;
};

}  // namespace trv::gui
