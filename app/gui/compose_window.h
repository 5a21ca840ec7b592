// The compose window: From (the account), To, Cc and Bcc with address
// completion, Subject, a plain-text body, attachments and inline pictures,
// priority; saved to "Drafts" or put into "Outbox" (and sent at once when
// asked). Built with mime/compose.h in the account's sending character set
// and body encoding.
//
// Threads: interface thread. The window deletes itself when closed; it
// follows the engine's services and closes without saving if its account
// is removed.
#pragma once

#include <QMainWindow>
#include <cstdint>

#include "mime/compose.h"

namespace trv {
class MailFolder;
class MailService;
}  // namespace trv

namespace trv::gui {

class MainWindow;

class ComposeWindow;

// Opens a compose window filled from `initial` (a new message, a reply, a
// forward, a mailto: address) for `account`; null: the account of the
// folder shown in the main window, else the first account. `draft`, when
// given, is the stored draft this window edits (saving replaces it, sending
// removes it). Returns the window, shown.
ComposeWindow* OpenCompose(MainWindow& main, const ComposedMessage& initial, MailService* account = nullptr,
                           MailFolder* draft_folder = nullptr, uint32_t draft_key = 0);

}  // namespace trv::gui
