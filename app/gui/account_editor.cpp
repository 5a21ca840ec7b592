#include "app/gui/account_editor.h"

#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QTabWidget>
#include <QVBoxLayout>

#include "app/gui/account_presets.h"
#include "services/imap4_service.h"
#include "services/service_registry.h"

namespace trv::gui {

AccountEditor::AccountEditor(MailEngine& engine, const LanguageTable& texts, MailService* service,
                             std::string service_class, QWidget* parent)
    : QDialog(parent),
      engine_(engine),
      texts_(texts),
      service_(service),
      class_(service != nullptr ? service->ServiceClass() : std::move(service_class)) {
  const bool imap = class_ == "IMAP4";
  const ServiceSettings s = service != nullptr ? service->settings() : ServiceSettings{};
  setWindowTitle(service != nullptr ? Text("AccEditTitle").arg(QString::fromStdU16String(s.service_name))
                                    : Text("AccNewTitle").arg(QString::fromStdString(class_)));
  auto* layout = new QVBoxLayout(this);
  auto* preset_row = new QFormLayout;
  preset_ = new QComboBox;
  preset_->addItem(Text("AccPresetNone"));
  for (const AccountPreset& preset : AccountPresets()) preset_->addItem(QString::fromUtf8(preset.name));
  preset_row->addRow(Text("AccPreset"), preset_);
  layout->addLayout(preset_row);
  connect(preset_, &QComboBox::activated, this, [this](int index) {
    if (index > 0) ApplyPreset(static_cast<size_t>(index - 1));
  });

  tabs_ = new QTabWidget;
  general_ = new GeneralPage(texts);
  incoming_ = new ProtocolPage(texts, imap ? MailProtocol::kImap4 : MailProtocol::kPop3);
  download_ = new DownloadPage(texts);
  outgoing_ = new ProtocolPage(texts, MailProtocol::kSmtp);
  tabs_->addTab(general_, Text("AccPageGeneral"));
  tabs_->addTab(incoming_, Text("AccPageIncoming").arg(incoming_->ProtocolName()));
  tabs_->addTab(download_, Text("AccPageDownload"));
  tabs_->addTab(outgoing_, Text("AccPageOutgoing"));
  if (imap) {
    folders_ = new ImapFoldersPage(texts, dynamic_cast<Imap4Service*>(service));
    tabs_->addTab(folders_, Text("AccPageFolders"));
  }
  layout->addWidget(tabs_, 1);
  error_label_ = new QLabel;
  error_label_->setWordWrap(true);
  error_label_->setStyleSheet("color: #b00020");
  layout->addWidget(error_label_);
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
  connect(buttons, &QDialogButtonBox::accepted, this, [this] {
    if (Save().ok()) accept();
  });
  connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
  layout->addWidget(buttons);

  resize(660, sizeHint().height());
  general_->Load(s);
  download_->Load(s);
  if (service != nullptr) {
    incoming_->Load(s.incoming);
    incoming_->SetRootPath(QString::fromStdU16String(s.imap4_root_path));
    outgoing_->Load(s.smtp);
    outgoing_->SetAuthMode(s.smtp_authentication);
  }
  // A new account starts from the plain ports of its protocols (the pages'
  // own defaults), not from the settings file's IMAP4 default.
}

void AccountEditor::ApplyPreset(size_t index) {
  const AccountPreset& preset = AccountPresets()[index];
  const bool imap = incoming_->protocol() == MailProtocol::kImap4;
  incoming_->SetServer(QString::fromUtf8(imap ? preset.imap4_host : preset.pop3_host), true, false);
  outgoing_->SetServer(QString::fromUtf8(preset.smtp_host), true, false);
  outgoing_->SetAuthMode(preset.smtp_authentication);
}

Result AccountEditor::Refused() {
  for (int i = 0; i < tabs_->count(); ++i) {
    if (tabs_->widget(i)->isAncestorOf(error_.field)) tabs_->setCurrentIndex(i);
  }
  error_.field->setFocus();
  error_label_->setText(error_.message);
  return rc::kInvalidArg;
}

void AccountEditor::Failed(const char* id, Result r) {
  error_label_->setText(Text(id).arg(QString::fromStdString(ResultText(r))));
}

Result AccountEditor::Save() {
  error_ = {};
  error_label_->clear();
  ServiceSettings s = service_ != nullptr ? service_->settings() : ServiceSettings{};
  general_->Store(&s, &error_);
  // Another account of that name would make the name ambiguous to the
  // commands that find accounts by it.
  const QString name = QString::fromStdU16String(s.service_name);
  for (MailService* other : MailServices(engine_)) {
    if (other != service_ && !name.isEmpty() &&
        name.compare(QString::fromStdU16String(other->settings().service_name), Qt::CaseInsensitive) == 0) {
      Refuse(&error_, &general_->name_edit(), Text("AccNameUsed").arg(name));
    }
  }
  incoming_->Store(&s.incoming, &error_);
  s.imap4_root_path = incoming_->root_path().toStdU16String();
  download_->Store(&s);
  outgoing_->Store(&s.smtp, &error_);
  s.smtp_authentication = outgoing_->auth_mode();
  if (error_.field != nullptr) return Refused();

  if (service_ == nullptr) {
    MailService* created = nullptr;
    if (Result r = CreateService(engine_, class_, s, &created); r.failed()) {
      Failed("AccCannotCreate", r);
      return r;
    }
    service_ = created;
    // The file holds user names and passwords only where "store" was
    // ticked; the ones typed otherwise serve this program's runs.
    ServiceSettings made = created->settings();
    for (auto [typed, kept] : {std::pair{&s.incoming, &made.incoming}, std::pair{&s.smtp, &made.smtp}}) {
      if (!typed->store_password) kept->user_name = typed->user_name, kept->password = typed->password;
    }
    created->SetSettings(made);
    return rc::kOk;
  }
  service_->SetSettings(s);
  if (Result r = service_->Save(); r.failed()) {
    Failed("AccCannotSave", r);
    return r;
  }
  if (folders_ != nullptr) {
    if (Result r = folders_->Save(); r.failed()) {
      Failed("AccCannotSaveFolders", r);
      return r;
    }
  }
  return rc::kOk;
}

}  // namespace trv::gui
