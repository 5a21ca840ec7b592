// The account editor: a dialog with the pages of one POP3 or IMAP4 account.
// General, the incoming protocol, Download, Outgoing (SMTP) and, for IMAP4,
// Folders (app/gui/imap_folders_page.h). A provider preset
// (app/gui/account_presets.h) fills in the three servers.
//
// OK (Save) checks every field first: an empty account name or one another
// account has, an address the parser does not read, an empty host, a port
// outside 1..65535. The first field refused gets its page shown, the cursor
// and its reason below the pages, and nothing is saved. Then a new account
// is made (services/service_registry.h CreateService, which makes its
// storage: the folder tree shows it) or the edited settings are set and
// saved, with the folder options. Cancel changes nothing.
//
// Passwords are kept in the settings file only when "store" is ticked;
// otherwise the typed ones last until the program ends, and a run asks for
// them after that.
//
// Threads: interface thread. The service edited must outlive the dialog
// (the dialog is window-modal, so the menu cannot delete it meanwhile).
#pragma once

#include <QDialog>
#include <string>

#include "app/gui/account_pages.h"
#include "app/gui/field_check.h"
#include "app/gui/imap_folders_page.h"
#include "app/gui/language.h"
#include "app/gui/protocol_page.h"
#include "base/result.h"

class QComboBox;
class QLabel;
class QTabWidget;

namespace trv {
class MailEngine;
class MailService;
}  // namespace trv

namespace trv::gui {

class AccountEditor final : public QDialog {
  Q_OBJECT

 public:
  // Edits `service`; when it is null, makes a new account of
  // `service_class` ("POP3" or "IMAP4").
  AccountEditor(MailEngine& engine, const LanguageTable& texts, MailService* service, std::string service_class,
                QWidget* parent = nullptr);

  // What OK does, without closing: checks, then creates or saves. The
  // field's refusal is rc::kInvalidArg; otherwise the error of
  // CreateService, MailService::Save or the folders' save (said below the
  // pages too).
  Result Save();

  // The account edited, or made by Save; null before a new one is made.
  MailService* service() const { return service_; }
  const FieldError& error() const { return error_; }
  QLabel& error_label() { return *error_label_; }

  // Fills the servers from AccountPresets()[index].
  void ApplyPreset(size_t index);

  QTabWidget& tabs() { return *tabs_; }
  QComboBox& preset_box() { return *preset_; }
  GeneralPage& general() { return *general_; }
  ProtocolPage& incoming() { return *incoming_; }
  DownloadPage& download() { return *download_; }
  ProtocolPage& outgoing() { return *outgoing_; }
  ImapFoldersPage* folders() { return folders_; }  // IMAP4 only

 private:
  QString Text(const char* id) const { return QString::fromStdString(texts_.Text(id)); }
  // The page's reason, shown; rc::kInvalidArg.
  Result Refused();
  void Failed(const char* id, Result r);

  MailEngine& engine_;
  const LanguageTable& texts_;
  MailService* service_;
  const std::string class_;
  FieldError error_;
  QComboBox* preset_;
  QTabWidget* tabs_;
  GeneralPage* general_;
  ProtocolPage* incoming_;
  DownloadPage* download_;
  ProtocolPage* outgoing_;
  ImapFoldersPage* folders_ = nullptr;
  QLabel* error_label_;
};

}  // namespace trv::gui
