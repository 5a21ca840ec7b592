#include "app/gui/account_pages.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QSpinBox>
#include <QVBoxLayout>
#include <limits>

#include "mime/address_list.h"

namespace trv::gui {

namespace {

constexpr int32_t kNoLimit = std::numeric_limits<int32_t>::max();

QString Wide(const WString& text) { return QString::fromStdU16String(text); }
WString Wide(const QString& text) { return text.toStdU16String(); }

// A count whose largest value means "no limit" (LoadMaxSize, LoadLastDays,
// DeleteAfterDays): the box shows the stated default as a number.
QSpinBox* CountBox(const QString& suffix) {
  auto* box = new QSpinBox;
  box->setRange(0, kNoLimit);
  box->setSuffix(suffix);
  return box;
}

// One plain address ("ann@example.org"): what the parser reads as exactly
// one address with a local part and a domain, without a display name.
bool PlainAddress(const QString& text) {
  const std::vector<MailAddress> list = ParseAddressList(Wide(text.trimmed()));
  if (list.size() != 1 || !list[0].name.empty() || !list[0].group.empty()) return false;
  const WString& a = list[0].address;
  const size_t at = a.rfind(u'@');
  return at != WString::npos && at > 0 && at + 1 < a.size();
}

QComboBox* EditableBox(const QStringList& items) {
  auto* box = new QComboBox;
  box->setEditable(true);
  box->addItems(items);
  return box;
}

}  // namespace

GeneralPage::GeneralPage(const LanguageTable& texts, QWidget* parent) : QWidget(parent), texts_(texts) {
  const auto text = [&](const char* id) { return QString::fromStdString(texts.Text(id)); };
  auto* layout = new QVBoxLayout(this);
  auto* form = new QFormLayout;
  layout->addLayout(form);
  name_ = new QLineEdit;
  real_name_ = new QLineEdit;
  email_ = new QLineEdit;
  reply_ = new QLineEdit;
  organization_ = new QLineEdit;
  form->addRow(text("AccName"), name_);
  form->addRow(text("AccRealName"), real_name_);
  form->addRow(text("AccEmail"), email_);
  form->addRow(text("AccReplyTo"), reply_);
  form->addRow(text("AccOrganization"), organization_);

  auto* signature = new QGroupBox(text("AccSignature"));
  auto* signature_layout = new QVBoxLayout(signature);
  signature_ = new QPlainTextEdit;
  signature_->setMaximumHeight(signature_->fontMetrics().height() * 5);
  add_signature_ = new QCheckBox(text("AccAddSignature"));
  not_to_replies_ = new QCheckBox(text("AccNoSignatureInReplies"));
  signature_layout->addWidget(signature_);
  signature_layout->addWidget(add_signature_);
  signature_layout->addWidget(not_to_replies_);
  layout->addWidget(signature);

  auto* sync = new QGroupBox(text("AccSynchronization"));
  auto* sync_form = new QFormLayout(sync);
  synchronize_ = new QCheckBox(text("AccSynchronize"));
  at_startup_ = new QCheckBox(text("AccSyncAtStartup"));
  minutes_ = new QSpinBox;
  minutes_->setRange(0, kNoLimit);
  minutes_->setSpecialValueText(text("AccSyncOff"));
  minutes_->setSuffix(text("AccMinutes"));
  sync_form->addRow(synchronize_);
  sync_form->addRow(at_startup_);
  sync_form->addRow(text("AccSyncMinutes"), minutes_);
  layout->addWidget(sync);
  layout->addStretch(1);
  Load(ServiceSettings{});
}

void GeneralPage::Load(const ServiceSettings& s) {
  name_->setText(Wide(s.service_name));
  real_name_->setText(Wide(s.user_real_name));
  email_->setText(Wide(s.email_address));
  reply_->setText(Wide(s.reply_address));
  organization_->setText(Wide(s.organization));
  signature_->setPlainText(Wide(s.signature));
  add_signature_->setChecked(s.add_signature);
  not_to_replies_->setChecked(s.dont_add_signature_to_replies);
  synchronize_->setChecked(s.synchronize);
  at_startup_->setChecked(s.sync_at_startup);
  minutes_->setValue(s.sync_minutes);
}

bool GeneralPage::Store(ServiceSettings* s, FieldError* error) const {
  const auto text = [&](const char* id) { return QString::fromStdString(texts_.Text(id)); };
  bool ok = true;
  if (name_->text().trimmed().isEmpty()) ok = Refuse(error, name_, text("AccNoName"));
  if (!PlainAddress(email_->text())) ok = Refuse(error, email_, text("AccBadAddress").arg(email_->text()));
  if (!reply_->text().trimmed().isEmpty() && !PlainAddress(reply_->text())) {
    ok = Refuse(error, reply_, text("AccBadAddress").arg(reply_->text()));
  }
  s->service_name = Wide(name_->text().trimmed());
  s->user_real_name = Wide(real_name_->text());
  s->email_address = Wide(email_->text().trimmed());
  s->reply_address = Wide(reply_->text().trimmed());
  s->organization = Wide(organization_->text());
  s->signature = Wide(signature_->toPlainText());
  s->add_signature = add_signature_->isChecked();
  s->dont_add_signature_to_replies = not_to_replies_->isChecked();
  s->synchronize = synchronize_->isChecked();
  s->sync_at_startup = at_startup_->isChecked();
  s->sync_minutes = minutes_->value();
  return ok;
}

DownloadPage::DownloadPage(const LanguageTable& texts, QWidget* parent) : QWidget(parent) {
  const auto text = [&](const char* id) { return QString::fromStdString(texts.Text(id)); };
  auto* layout = new QVBoxLayout(this);
  auto* download = new QGroupBox(text("AccDownload"));
  auto* download_form = new QFormLayout(download);
  max_size_ = CountBox(text("AccBytes"));
  last_days_ = CountBox(text("AccDays"));
  body_size_ = CountBox(text("AccBytes"));
  download_form->addRow(text("AccLoadMaxSize"), max_size_);
  download_form->addRow(text("AccLoadLastDays"), last_days_);
  download_form->addRow(text("AccLoadBodySize"), body_size_);
  layout->addWidget(download);

  auto* deletion = new QGroupBox(text("AccDeletion"));
  auto* deletion_form = new QFormLayout(deletion);
  delete_on_server_ = new QCheckBox(text("AccDeleteOnServer"));
  delete_after_days_ = CountBox(text("AccDays"));
  delete_after_local_ = new QCheckBox(text("AccDeleteAfterLocal"));
  deletion_form->addRow(delete_on_server_);
  deletion_form->addRow(text("AccDeleteAfterDays"), delete_after_days_);
  deletion_form->addRow(delete_after_local_);
  layout->addWidget(deletion);
  auto* limits = new QLabel(text("AccNoLimitNote"));
  limits->setWordWrap(true);
  layout->addWidget(limits);

  auto* format = new QGroupBox(text("AccFormat"));
  auto* format_form = new QFormLayout(format);
  const QStringList charsets = {"", "us-ascii", "utf-8", "iso-8859-1", "iso-8859-15", "windows-1252"};
  reading_charset_ = EditableBox(charsets);
  sending_charset_ = EditableBox(charsets);
  eight_bit_headers_ = new QCheckBox(text("AccEightBitHeaders"));
  body_encoding_ = EditableBox({"", "7bit", "8bit", "quoted-printable", "base64"});
  connection_ = new QLineEdit;
  format_form->addRow(text("AccReadingCharset"), reading_charset_);
  format_form->addRow(text("AccSendingCharset"), sending_charset_);
  format_form->addRow(eight_bit_headers_);
  format_form->addRow(text("AccBodyEncoding"), body_encoding_);
  format_form->addRow(text("AccConnection"), connection_);
  layout->addWidget(format);
  layout->addStretch(1);
  Load(ServiceSettings{});
}

void DownloadPage::Load(const ServiceSettings& s) {
  max_size_->setValue(s.load_max_size);
  last_days_->setValue(s.load_last_days);
  body_size_->setValue(s.load_body_size);
  delete_on_server_->setChecked(s.delete_on_server);
  delete_after_days_->setValue(s.delete_after_days);
  delete_after_local_->setChecked(s.delete_after_local_deletion);
  reading_charset_->setCurrentText(QString::fromStdString(s.reading_charset));
  sending_charset_->setCurrentText(QString::fromStdString(s.sending_charset));
  eight_bit_headers_->setChecked(s.eight_bit_in_headers);
  body_encoding_->setCurrentText(QString::fromStdString(s.body_encoding));
  connection_->setText(Wide(s.connection));
}

void DownloadPage::Store(ServiceSettings* s) const {
  s->load_max_size = max_size_->value();
  s->load_last_days = last_days_->value();
  s->load_body_size = body_size_->value();
  s->delete_on_server = delete_on_server_->isChecked();
  s->delete_after_days = delete_after_days_->value();
  s->delete_after_local_deletion = delete_after_local_->isChecked();
  s->reading_charset = reading_charset_->currentText().trimmed().toStdString();
  s->sending_charset = sending_charset_->currentText().trimmed().toStdString();
  s->eight_bit_in_headers = eight_bit_headers_->isChecked();
  s->body_encoding = body_encoding_->currentText().trimmed().toStdString();
  s->connection = Wide(connection_->text());
}

}  // namespace trv::gui
