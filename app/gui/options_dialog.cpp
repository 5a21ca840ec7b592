#include "app/gui/options_dialog.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QMenu>
#include <QSpinBox>
#include <QVBoxLayout>

#include "app/gui/folder_commands.h"
#include "app/gui/main_window.h"
#include "app/gui/message_commands.h"
#include "app/gui/reading_view.h"
#include "app/gui/run_commands.h"
#include "app/gui/view_modes.h"

namespace trv::gui {

namespace {

QString Text(const LanguageTable& texts, const char* id) { return QString::fromStdString(texts.Text(id)); }

// A menu text without its "&" marks, for a list entry.
QString Plain(const LanguageTable& texts, const char* id) { return Text(texts, id).remove('&'); }

constexpr int kMaxFontSize = 72;

}  // namespace

OptionsDialog::OptionsDialog(const LanguageTable& texts, const GuiOptions& options, QWidget* parent)
    : QDialog(parent) {
  setWindowTitle(Text(texts, "OptionsTitle"));
  auto* layout = new QVBoxLayout(this);

  auto* look = new QGroupBox(Text(texts, "OptionsLook"));
  auto* look_form = new QFormLayout(look);
  view_mode_ = new QComboBox;
  view_mode_->addItems({Plain(texts, "ViewThreePanes"), Plain(texts, "ViewTabs"), Plain(texts, "ViewSinglePage")});
  view_mode_->setCurrentIndex(options.view_mode < kViewModeCount ? static_cast<int>(options.view_mode) : 0);
  look_form->addRow(Text(texts, "OptionsViewMode"), view_mode_);
  font_size_ = new QSpinBox;
  font_size_->setRange(0, kMaxFontSize);
  font_size_->setSpecialValueText(Text(texts, "OptionsFontDefault"));  // shown for 0
  font_size_->setValue(static_cast<int>(options.font_size));
  look_form->addRow(Text(texts, "OptionsFontSize"), font_size_);
  remote_ = new QComboBox;
  remote_->addItems({Text(texts, "OptionsRemoteBlock"), Text(texts, "OptionsRemoteAsk"),
                     Text(texts, "OptionsRemoteAllow")});
  remote_->setCurrentIndex(options.remote_content <= 2 ? static_cast<int>(options.remote_content) : 1);
  look_form->addRow(Text(texts, "OptionsRemote"), remote_);
  layout->addWidget(look);

  auto* runs = new QGroupBox(Text(texts, "OptionsRuns"));
  auto* runs_layout = new QVBoxLayout(runs);
  sync_at_start_ = new QCheckBox(Text(texts, "OptionsSyncAtStart"));
  sync_at_start_->setChecked(options.sync_at_start);
  periodic_ = new QCheckBox(Text(texts, "OptionsPeriodic"));
  periodic_->setChecked(options.periodic_sync);
  runs_layout->addWidget(sync_at_start_);
  runs_layout->addWidget(periodic_);
  layout->addWidget(runs);

  auto* confirm = new QGroupBox(Text(texts, "OptionsConfirm"));
  auto* confirm_layout = new QVBoxLayout(confirm);
  confirm_messages_ = new QCheckBox(Text(texts, "OptionsConfirmMessages"));
  confirm_messages_->setChecked(options.confirm_delete_messages);
  confirm_folders_ = new QCheckBox(Text(texts, "OptionsConfirmFolders"));
  confirm_folders_->setChecked(options.confirm_delete_folders);
  confirm_layout->addWidget(confirm_messages_);
  confirm_layout->addWidget(confirm_folders_);
  layout->addWidget(confirm);

  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
  connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
  connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
  layout->addWidget(buttons);
}

void OptionsDialog::Store(GuiOptions* options) const {
  options->view_mode = static_cast<uint32_t>(view_mode_->currentIndex());
  options->font_size = static_cast<uint32_t>(font_size_->value());
  options->remote_content = static_cast<uint32_t>(remote_->currentIndex());
  options->sync_at_start = sync_at_start_->isChecked();
  options->periodic_sync = periodic_->isChecked();
  options->confirm_delete_messages = confirm_messages_->isChecked();
  options->confirm_delete_folders = confirm_folders_->isChecked();
}

OptionsCommands::OptionsCommands(MainWindow& window)
    : QObject(&window), window_(window), exec_([](OptionsDialog& dialog) { return dialog.exec(); }) {
  QAction* open = window.menu(MainWindow::Menu::kFile)->addAction(Text(window.texts(), "CommandOptions"));
  connect(open, &QAction::triggered, this, [this] { Open(); });
}

OptionsCommands* OptionsCommands::Attach(MainWindow& window, GuiOptions* options) {
  auto* commands = window.findChild<OptionsCommands*>(QString(), Qt::FindDirectChildrenOnly);
  if (commands == nullptr) return nullptr;
  commands->options_ = options;
  commands->Apply();
  if (auto* runs = window.findChild<RunCommands*>(QString(), Qt::FindDirectChildrenOnly)) {
    runs->StartSchedule(options->sync_at_start, options->periodic_sync);
  }
  return commands;
}

bool OptionsCommands::Open() {
  // The View menu may have changed the mode since the options were read.
  options_->view_mode = static_cast<uint32_t>(window_.view_modes().mode());
  OptionsDialog dialog(window_.texts(), *options_, &window_);
  if (exec_(dialog) != QDialog::Accepted) return false;
  dialog.Store(options_);
  Apply();
  options_->Save();
  return true;
}

void OptionsCommands::Apply() {
  const GuiOptions& o = *options_;
  if (o.view_mode < kViewModeCount) window_.view_modes().SetMode(static_cast<ViewMode>(o.view_mode));
  if (auto* folders = window_.findChild<FolderCommands*>()) folders->set_confirm(o.confirm_delete_folders);
  if (auto* messages = window_.findChild<MessageCommands*>()) messages->set_confirm(o.confirm_delete_messages);
  // Every reading view of the window: the main one and open reading windows.
  for (ReadingView* view : window_.findChildren<ReadingView*>()) {
    QFont font = view->font();
    font.setPointSize(o.font_size > 0 ? static_cast<int>(o.font_size) : QApplication::font().pointSize());
    view->setFont(font);
    view->SetRemotePolicy(o.remote_content <= 2 ? static_cast<RemotePolicy>(o.remote_content) : RemotePolicy::kAsk);
  }
  // The start-up runs happened (or not) when the window opened.
  if (auto* runs = window_.findChild<RunCommands*>(QString(), Qt::FindDirectChildrenOnly)) {
    if (runs->periodic() != o.periodic_sync) runs->SetPeriodic(o.periodic_sync);
  }
}

}  // namespace trv::gui
