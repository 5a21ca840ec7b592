// The Options dialog (File menu, "Options..."): the view mode, the runs
// when the program starts (the accounts with SyncAtStartup), periodic
// synchronisation (the accounts' SyncMinutes apply only when on), the
// confirmations before deleting messages and folders, and the reading
// view's font size and remote-content policy. OK applies them at once and
// writes them to the interface options (app/gui/gui_options.h).
//
// OptionsCommands is made by the main window (it adds the menu command);
// Attach gives it the session's options, applies them and starts the
// automatic runs. A window never attached works on defaults it keeps
// nowhere.
//
// Threads: interface thread. The options given to Attach must outlive the
// window.
#pragma once

#include <QDialog>
#include <QObject>
#include <functional>

#include "app/gui/gui_options.h"
#include "app/gui/language.h"

class QCheckBox;
class QComboBox;
class QSpinBox;

namespace trv::gui {

class MainWindow;

class OptionsDialog final : public QDialog {
  Q_OBJECT

 public:
  OptionsDialog(const LanguageTable& texts, const GuiOptions& options, QWidget* parent = nullptr);
  // The dialog's values into `options` (the others stay).
  void Store(GuiOptions* options) const;

  QComboBox& view_mode() const { return *view_mode_; }
  QCheckBox& sync_at_start() const { return *sync_at_start_; }
  QCheckBox& periodic_sync() const { return *periodic_; }
  QCheckBox& confirm_messages() const { return *confirm_messages_; }
  QCheckBox& confirm_folders() const { return *confirm_folders_; }
  QSpinBox& font_size() const { return *font_size_; }
  QComboBox& remote_content() const { return *remote_; }

 private:
  QComboBox* view_mode_;
  QCheckBox* sync_at_start_;
  QCheckBox* periodic_;
  QCheckBox* confirm_messages_;
  QCheckBox* confirm_folders_;
  QSpinBox* font_size_;
  QComboBox* remote_;
};

class OptionsCommands final : public QObject {
  Q_OBJECT

 public:
  explicit OptionsCommands(MainWindow& window);

  // The window's OptionsCommands with `options`: applied, and the
  // automatic runs started as they say. Null when the window has none.
  static OptionsCommands* Attach(MainWindow& window, GuiOptions* options);

  // Shows the dialog; on OK applies and saves its values. Whether OK.
  bool Open();
  // Applies the options to the window (not the start-up runs).
  void Apply();

  // Runs the dialog: exec() by default; tests set the fields and answer.
  void set_exec(std::function<int(OptionsDialog&)> exec) { exec_ = std::move(exec); }
  const GuiOptions& options() const { return *options_; }

 private:
  MainWindow& window_;
  GuiOptions defaults_;
  GuiOptions* options_ = &defaults_;
  std::function<int(OptionsDialog&)> exec_;
};

}  // namespace trv::gui
