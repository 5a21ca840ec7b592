// What a drag carries inside the program: messages of a folder (the
// folder and their keys) or a folder. The folder travels as its address
// with this process's id, so a drop from another process is not taken;
// the receiver checks that the folder is still one it shows before use.
#pragma once

#include <QMimeData>
#include <cstdint>
#include <vector>

namespace trv {
class MailFolder;
}

namespace trv::gui {

inline constexpr const char* kMessagesMimeType = "application/x-tarvomail-messages";
inline constexpr const char* kFolderMimeType = "application/x-tarvomail-folder";

// New data for a drag; the caller (Qt's drag) owns it.
QMimeData* MessagesMimeData(const MailFolder* folder, const std::vector<uint32_t>& keys);
QMimeData* FolderMimeData(const MailFolder* folder);

// The folder and keys of messages data of this process; false when the
// data holds none or came from elsewhere.
bool ReadMessagesMimeData(const QMimeData& data, MailFolder** folder, std::vector<uint32_t>* keys);
bool ReadFolderMimeData(const QMimeData& data, MailFolder** folder);

}  // namespace trv::gui
