#include "app/gui/protocol_page.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QVBoxLayout>

namespace trv::gui {

namespace {

// SmtpAuthMode values in the order of the mode box.
constexpr const char* kAuthTexts[] = {"AccAuthNone", "AccAuthAfterIncoming", "AccAuthSame", "AccAuthCredentials"};
// SOCKS versions 0 (none) to 3 in the order of the version box.
constexpr const char* kSocksTexts[] = {"AccSocksNone", "AccSocks4", "AccSocks4A", "AccSocks5"};

QLineEdit* PortEdit() {
  auto* edit = new QLineEdit;
  edit->setMaximumWidth(edit->fontMetrics().horizontalAdvance("0000000") + 16);
  return edit;
}

}  // namespace

ProtocolPage::ProtocolPage(const LanguageTable& texts, MailProtocol protocol, QWidget* parent)
    : QWidget(parent), texts_(texts), protocol_(protocol) {
  auto* layout = new QVBoxLayout(this);
  auto* server = new QFormLayout;
  layout->addLayout(server);
  host_ = new QLineEdit;
  server->addRow(Text("AccHost"), host_);
  port_ = PortEdit();
  ssl_ = new QCheckBox(Text("AccUseSsl"));
  ssl_button_ = new QPushButton(Text("AccSslOptions"));
  auto* port_row = new QHBoxLayout;
  port_row->addWidget(port_);
  port_row->addWidget(ssl_);
  port_row->addWidget(ssl_button_);
  port_row->addStretch(1);
  server->addRow(Text("AccPort"), port_row);
  if (protocol == MailProtocol::kImap4) {
    root_path_ = new QLineEdit;
    server->addRow(Text("AccRootPath"), root_path_);
  }
  sasl_ = new QCheckBox(Text("AccUseSasl"));
  server->addRow(QString(), sasl_);
  timeout_ = new QSpinBox;
  timeout_->setRange(1, 3600);
  timeout_->setSuffix(Text("AccSeconds"));
  server->addRow(Text("AccTimeout"), timeout_);

  auto* login = new QGroupBox(Text("AccLogin"));
  auto* login_form = new QFormLayout(login);
  if (protocol == MailProtocol::kSmtp) {
    auth_ = new QComboBox;
    for (const char* id : kAuthTexts) auth_->addItem(Text(id));
    login_form->addRow(Text("AccAuthMode"), auth_);
  }
  user_ = new QLineEdit;
  password_ = new QLineEdit;
  password_->setEchoMode(QLineEdit::Password);
  store_ = new QCheckBox(Text("AccStorePassword"));
  login_form->addRow(Text("AccUser"), user_);
  login_form->addRow(Text("AccPassword"), password_);
  login_form->addRow(QString(), store_);
  layout->addWidget(login);

  auto* socks = new QGroupBox(Text("AccSocks"));
  auto* socks_form = new QFormLayout(socks);
  socks_version_ = new QComboBox;
  for (const char* id : kSocksTexts) socks_version_->addItem(Text(id));
  socks_host_ = new QLineEdit;
  socks_port_ = PortEdit();
  socks_auth_ = new QCheckBox(Text("AccSocksAuth"));
  socks_user_ = new QLineEdit;
  socks_password_ = new QLineEdit;
  socks_password_->setEchoMode(QLineEdit::Password);
  socks_form->addRow(Text("AccSocksVersion"), socks_version_);
  socks_form->addRow(Text("AccHost"), socks_host_);
  socks_form->addRow(Text("AccPort"), socks_port_);
  socks_form->addRow(QString(), socks_auth_);
  socks_form->addRow(Text("AccUser"), socks_user_);
  socks_form->addRow(Text("AccPassword"), socks_password_);
  layout->addWidget(socks);
  layout->addStretch(1);

  connect(ssl_, &QCheckBox::toggled, this, [this](bool on) {
    ApplyPortRule([&](int32_t port) { return PortAfterSslToggle(protocol_, on, ssl_options_.explicit_mode, port); });
    UpdateEnabled();
  });
  connect(ssl_button_, &QPushButton::clicked, this, [this] { OpenSslOptions(); });
  if (auth_ != nullptr) connect(auth_, &QComboBox::currentIndexChanged, this, [this] { UpdateEnabled(); });
  connect(socks_version_, &QComboBox::currentIndexChanged, this, [this] { UpdateEnabled(); });
  connect(socks_auth_, &QCheckBox::toggled, this, [this] { UpdateEnabled(); });

  Load(ProtocolSettings(PlainPort(protocol)));
}

QString ProtocolPage::ProtocolName() const {
  switch (protocol_) {
    case MailProtocol::kSmtp: return "SMTP";
    case MailProtocol::kPop3: return "POP3";
    case MailProtocol::kImap4: return "IMAP4";
  }
  return {};
}

void ProtocolPage::Load(const ProtocolSettings& p) {
  host_->setText(QString::fromStdString(p.host));
  port_->setText(QString::number(p.port));
  user_->setText(QString::fromStdString(p.user_name));
  password_->setText(QString::fromStdString(p.password));
  store_->setChecked(p.store_password);
  {
    const QSignalBlocker quiet(ssl_);  // loading is no ticking: the port stays as stored
    ssl_->setChecked(p.use_ssl);
  }
  ssl_options_ = {p.ssl_explicit, p.ssl_allow_insecure, p.ssl_versions, p.ssl_strong};
  sasl_->setChecked(p.use_sasl);
  timeout_->setValue(p.timeout);
  socks_version_->setCurrentIndex(p.socks_version <= 3 ? static_cast<int>(p.socks_version) : 0);
  socks_host_->setText(QString::fromStdString(p.socks_address));
  socks_port_->setText(QString::number(p.socks_port));
  socks_auth_->setChecked(p.socks_auth);
  socks_user_->setText(QString::fromStdString(p.socks_user));
  socks_password_->setText(QString::fromStdString(p.socks_password));
  UpdateEnabled();
}

bool ProtocolPage::Store(ProtocolSettings* p, FieldError* error) const {
  const QString name = ProtocolName();
  bool ok = ReadHost(texts_, *host_, name, &p->host, error);
  ok = ReadPort(texts_, *port_, name, &p->port, error) && ok;
  // A password is any text; the settings keep its UTF-8 bytes, which the
  // cipher takes as they are.
  p->user_name = user_->text().toStdString();
  p->password = password_->text().toStdString();
  p->store_password = store_->isChecked();
  p->use_ssl = ssl_->isChecked();
  p->ssl_explicit = ssl_options_.explicit_mode;
  p->ssl_allow_insecure = ssl_options_.allow_insecure;
  p->ssl_versions = ssl_options_.versions;
  p->ssl_strong = ssl_options_.strong;
  p->use_sasl = sasl_->isChecked();
  p->timeout = timeout_->value();
  p->socks_version = static_cast<uint32_t>(socks_version_->currentIndex());
  p->socks_auth = socks_auth_->isChecked();
  p->socks_user = socks_user_->text().toStdString();
  p->socks_password = socks_password_->text().toStdString();
  if (p->socks_version != 0) {
    const QString proxy = Text("AccSocksOf").arg(name);
    ok = ReadHost(texts_, *socks_host_, proxy, &p->socks_address, error) && ok;
    ok = ReadPort(texts_, *socks_port_, proxy, &p->socks_port, error) && ok;
  } else {
    // Kept as typed when no proxy is used; a later choice of one finds them.
    p->socks_address = socks_host_->text().trimmed().toStdString();
    bool number = false;
    const int port = socks_port_->text().toInt(&number);
    if (number && port >= 1 && port <= 65535) p->socks_port = port;
  }
  return ok;
}

void ProtocolPage::SetAuthMode(SmtpAuthMode mode) {
  if (auth_ != nullptr) auth_->setCurrentIndex(static_cast<int>(mode));
}

SmtpAuthMode ProtocolPage::auth_mode() const {
  return auth_ == nullptr ? SmtpAuthMode::kNotRequired : static_cast<SmtpAuthMode>(auth_->currentIndex());
}

void ProtocolPage::SetRootPath(const QString& path) {
  if (root_path_ != nullptr) root_path_->setText(path);
}

QString ProtocolPage::root_path() const { return root_path_ == nullptr ? QString() : root_path_->text(); }

void ProtocolPage::SetServer(const QString& host, bool ssl, bool explicit_mode) {
  host_->setText(host);
  ssl_options_.explicit_mode = explicit_mode;
  const QSignalBlocker quiet(ssl_);
  ssl_->setChecked(ssl);
  port_->setText(QString::number(PortAfterSslToggle(protocol_, ssl, explicit_mode, PlainPort(protocol_))));
  UpdateEnabled();
}

SslOptionsDialog* ProtocolPage::OpenSslOptions() {
  auto* dialog = new SslOptionsDialog(texts_, ssl_options_, this);
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  connect(dialog, &QDialog::accepted, this, [this, dialog] {
    ssl_options_ = dialog->options();
    ApplyPortRule([&](int32_t port) { return PortAfterSslOptions(protocol_, ssl_options_.explicit_mode, port); });
  });
  dialog->open();
  return dialog;
}

void ProtocolPage::ApplyPortRule(const std::function<int32_t(int32_t)>& rule) {
  bool number = false;
  const int port = port_->text().trimmed().toInt(&number);
  if (number) port_->setText(QString::number(rule(port)));
}

void ProtocolPage::UpdateEnabled() {
  ssl_button_->setEnabled(ssl_->isChecked());
  const bool login = auth_ == nullptr || auth_mode() == SmtpAuthMode::kCredentials;
  for (QWidget* w : {static_cast<QWidget*>(user_), static_cast<QWidget*>(password_), static_cast<QWidget*>(store_)}) {
    w->setEnabled(login);
  }
  const bool socks = socks_version_->currentIndex() != 0;
  for (QWidget* w : {static_cast<QWidget*>(socks_host_), static_cast<QWidget*>(socks_port_),
                     static_cast<QWidget*>(socks_auth_)}) {
    w->setEnabled(socks);
  }
  socks_user_->setEnabled(socks && socks_auth_->isChecked());
  socks_password_->setEnabled(socks && socks_auth_->isChecked());
}

}  // namespace trv::gui
