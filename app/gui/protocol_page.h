// One protocol page of the account editor (SMTP, POP3 or IMAP4): server,
// port, user name and password with "store", the SSL box and its options
// dialog, SASL, the time-out and the SOCKS proxy. The SMTP page also has the
// authentication mode; user name and password are open only for
// "credentials". The IMAP4 page has the root path.
//
// The port follows the port rules (services/port_rules.h) when the SSL box
// is ticked or unticked and when the SSL options dialog is confirmed; a port
// field that holds no number is left alone.
//
// Threads: interface thread.
#pragma once

#include <QWidget>

#include "app/gui/field_check.h"
#include "app/gui/language.h"
#include "app/gui/ssl_options_dialog.h"
#include "services/mail_service.h"
#include "services/port_rules.h"

class QCheckBox;
class QComboBox;
class QGroupBox;
class QLineEdit;
class QPushButton;
class QSpinBox;

namespace trv::gui {

class ProtocolPage final : public QWidget {
  Q_OBJECT

 public:
  ProtocolPage(const LanguageTable& texts, MailProtocol protocol, QWidget* parent = nullptr);

  MailProtocol protocol() const { return protocol_; }
  // The protocol's name as the pages say it: "SMTP", "POP3", "IMAP4".
  QString ProtocolName() const;

  void Load(const ProtocolSettings& p);
  // The fields into *p (fields the page does not show are kept). False with
  // the first field refused in *error.
  bool Store(ProtocolSettings* p, FieldError* error) const;

  // SMTP page only.
  void SetAuthMode(SmtpAuthMode mode);
  SmtpAuthMode auth_mode() const;
  // IMAP4 page only.
  void SetRootPath(const QString& path);
  QString root_path() const;

  // A provider's server: host, SSL on in `explicit_mode` and the port the
  // rules give for it, from the plain port.
  void SetServer(const QString& host, bool ssl, bool explicit_mode);

  // Opens the SSL options dialog (window-modal, not blocking); its OK
  // keeps the options and applies the port rule. The dialog deletes itself
  // when closed.
  SslOptionsDialog* OpenSslOptions();

  QLineEdit& host_edit() { return *host_; }
  QLineEdit& port_edit() { return *port_; }
  QLineEdit& user_edit() { return *user_; }
  QLineEdit& password_edit() { return *password_; }
  QCheckBox& store_box() { return *store_; }
  QCheckBox& ssl_box() { return *ssl_; }
  QComboBox& socks_version_box() { return *socks_version_; }
  QLineEdit& socks_host_edit() { return *socks_host_; }
  QLineEdit& socks_port_edit() { return *socks_port_; }
  const SslOptions& ssl_options() const { return ssl_options_; }

 private:
  QString Text(const char* id) const { return QString::fromStdString(texts_.Text(id)); }
  // The port rules: `rule` maps the number in the port field.
  void ApplyPortRule(const std::function<int32_t(int32_t)>& rule);
  void UpdateEnabled();

  const LanguageTable& texts_;
  const MailProtocol protocol_;
  QComboBox* auth_ = nullptr;       // SMTP
  QLineEdit* root_path_ = nullptr;  // IMAP4
  QLineEdit* host_;
  QLineEdit* port_;
  QLineEdit* user_;
  QLineEdit* password_;
  QCheckBox* store_;
  QCheckBox* ssl_;
  QPushButton* ssl_button_;
  QCheckBox* sasl_;
  QSpinBox* timeout_;
  QComboBox* socks_version_;
  QLineEdit* socks_host_;
  QLineEdit* socks_port_;
  QCheckBox* socks_auth_;
  QLineEdit* socks_user_;
  QLineEdit* socks_password_;
  SslOptions ssl_options_;
};

}  // namespace trv::gui
