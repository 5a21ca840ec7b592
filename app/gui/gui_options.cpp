#include "app/gui/gui_options.h"

#include <vector>

namespace trv::gui {

namespace {

constexpr const char* kMainWindowKey = "CMLGUIParams\\MainWnd";
constexpr const char* kComposeKey = "CMLGUIParams\\Compose";
constexpr const char* kOptionsKey = "CMLGUIParams\\Options";

// The switches of the Options key; the numbers follow below.
struct Switch {
  const char* name;
  bool GuiOptions::*value;
};
constexpr Switch kSwitches[] = {
    {"SyncAtStart", &GuiOptions::sync_at_start},
    {"PeriodicSync", &GuiOptions::periodic_sync},
    {"ConfirmDeleteMessages", &GuiOptions::confirm_delete_messages},
    {"ConfirmDeleteFolders", &GuiOptions::confirm_delete_folders},
};
constexpr uint32_t kMaxFontSize = 72;

QByteArray ReadBytes(const RegistryKey& key, const char* name) {
  std::vector<uint8_t> bytes;
  if (key.ReadBinary(kMainWindowKey, name, &bytes).failed()) return QByteArray();  // not saved yet
  return QByteArray(reinterpret_cast<const char*>(bytes.data()), static_cast<qsizetype>(bytes.size()));
}

void WriteBytes(RegistryKey& key, const char* name, const QByteArray& value) {
  if (value.isEmpty()) return;
  const auto* data = reinterpret_cast<const uint8_t*>(value.constData());
  // A value that cannot be written keeps the last one: the window then opens
  // where it was before.
  key.WriteBinary(kMainWindowKey, name, std::span<const uint8_t>(data, static_cast<size_t>(value.size()))).Ignore();
}

}  // namespace

void GuiOptions::Load(const std::filesystem::path& file, LogSink* log) {
  // Without the key file the options keep their defaults (Open logs why).
  if (RegistryKey::Open(file.empty() ? RegistryKey::DefaultPath() : file, &key_, log).failed()) return;
  main_geometry = ReadBytes(*key_, "Geometry");
  main_panes = ReadBytes(*key_, "Panes");
  list_columns = ReadBytes(*key_, "ListColumns");
  // Values not saved yet keep their defaults.
  key_->ReadDword(kMainWindowKey, "ViewMode", &view_mode).Ignore();
  uint32_t number = 0;
  if (key_->ReadDword(kMainWindowKey, "SortColumn", &number).ok()) sort_column = static_cast<int32_t>(number);
  if (key_->ReadDword(kMainWindowKey, "SortOrder", &number).ok()) sort_descending = number != 0;
  key_->ReadString(kMainWindowKey, "LastStorage", &last_storage).Ignore();
  key_->ReadString(kMainWindowKey, "LastFolder", &last_folder).Ignore();
  if (key_->ReadDword(kComposeKey, "SendAtOnce", &number).ok()) send_at_once = number != 0;
  for (const Switch& s : kSwitches) {
    if (key_->ReadDword(kOptionsKey, s.name, &number).ok()) this->*s.value = number != 0;
  }
  // Out-of-range numbers (a hand-edited file) keep the defaults.
  if (key_->ReadDword(kOptionsKey, "FontSize", &number).ok() && number <= kMaxFontSize) font_size = number;
  if (key_->ReadDword(kOptionsKey, "RemoteContent", &number).ok() && number <= 2) remote_content = number;
}

void GuiOptions::Finish() {
  Save();
  key_.reset();
}

void GuiOptions::Save() {
  if (key_ == nullptr) return;
  WriteBytes(*key_, "Geometry", main_geometry);
  WriteBytes(*key_, "Panes", main_panes);
  WriteBytes(*key_, "ListColumns", list_columns);
  // Values that cannot be written keep the last ones, as above.
  key_->WriteDword(kMainWindowKey, "ViewMode", view_mode).Ignore();
  key_->WriteDword(kMainWindowKey, "SortColumn", static_cast<uint32_t>(sort_column)).Ignore();
  key_->WriteDword(kMainWindowKey, "SortOrder", sort_descending ? 1 : 0).Ignore();
  key_->WriteDword(kComposeKey, "SendAtOnce", send_at_once ? 1 : 0).Ignore();
  if (!last_storage.empty()) {
    key_->WriteString(kMainWindowKey, "LastStorage", last_storage).Ignore();
    key_->WriteString(kMainWindowKey, "LastFolder", last_folder).Ignore();
  }
  for (const Switch& s : kSwitches) key_->WriteDword(kOptionsKey, s.name, this->*s.value ? 1 : 0).Ignore();
  key_->WriteDword(kOptionsKey, "FontSize", font_size).Ignore();
  key_->WriteDword(kOptionsKey, "RemoteContent", remote_content).Ignore();
  key_->Flush().Ignore();  // logged by the key; nothing else to do at exit
}

}  // namespace trv::gui
