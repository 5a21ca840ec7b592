#include "app/gui/run_questions.h"

#include <QCheckBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QMessageBox>
#include <QPushButton>
#include <QVBoxLayout>
#include <memory>

namespace trv::gui {

namespace {

QString Text(const LanguageTable& texts, const char* id) { return QString::fromStdString(texts.Text(id)); }

QString Utf8(const std::string& text) { return QString::fromStdString(text); }

// A value the person may want to copy (fingerprints): selectable, and
// whole (a fingerprint is compared digit by digit).
QLabel* ValueLabel(const QString& text) {
  auto* label = new QLabel(text);
  label->setTextInteractionFlags(Qt::TextSelectableByMouse);
  return label;
}

}  // namespace

CredentialsDialog::CredentialsDialog(const LanguageTable& texts, const QString& account, const QString& server,
                                     const Credentials& current, QWidget* parent)
    : QDialog(parent) {
  setWindowTitle(Text(texts, "QuestionCredentialsTitle").arg(account));
  auto* layout = new QVBoxLayout(this);
  auto* intro = new QLabel(Text(texts, "QuestionCredentialsText").arg(server));
  intro->setWordWrap(true);
  layout->addWidget(intro);
  auto* form = new QFormLayout;
  user_ = new QLineEdit(Utf8(current.user_name));
  password_ = new QLineEdit(Utf8(current.password));
  password_->setEchoMode(QLineEdit::Password);
  form->addRow(Text(texts, "QuestionUserName"), user_);
  form->addRow(Text(texts, "QuestionPassword"), password_);
  layout->addLayout(form);
  save_ = new QCheckBox(Text(texts, "QuestionSavePassword"));
  save_->setChecked(current.save);
  layout->addWidget(save_);
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
  connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
  connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
  layout->addWidget(buttons);
  (current.user_name.empty() ? user_ : password_)->setFocus();
}

Credentials CredentialsDialog::answer() const {
  Credentials answer;
  answer.user_name = user_->text().trimmed().toStdString();
  answer.password = password_->text().toStdString();
  answer.save = save_->isChecked();
  return answer;
}

CertificateDialog::CertificateDialog(const LanguageTable& texts, const RefusedCertificate& refused, QWidget* parent)
    : QDialog(parent) {
  const QString where = Utf8(refused.host) + ":" + QString::number(refused.port);
  setWindowTitle(Text(texts, "QuestionCertificateTitle").arg(where));
  auto* layout = new QVBoxLayout(this);
  if (refused.key_changed()) {
    auto* warning = new QLabel(Text(texts, "QuestionKeyChanged").arg(where, Utf8(refused.trusted_key_sha256)));
    warning->setWordWrap(true);
    warning->setStyleSheet("QLabel { color: #b00000; font-weight: bold; }");
    layout->addWidget(warning);
  }
  auto* intro = new QLabel(Text(texts, "QuestionCertificateText").arg(where));
  intro->setWordWrap(true);
  layout->addWidget(intro);
  const CertificateFacts& c = refused.cert;
  auto* form = new QFormLayout;
  form->addRow(Text(texts, "QuestionCertSubject"), ValueLabel(Utf8(c.subject)));
  form->addRow(Text(texts, "QuestionCertIssuer"), ValueLabel(Utf8(c.issuer)));
  form->addRow(Text(texts, "QuestionCertValidFrom"), ValueLabel(Utf8(c.not_before)));
  form->addRow(Text(texts, "QuestionCertValidUntil"), ValueLabel(Utf8(c.not_after)));
  form->addRow(Text(texts, "QuestionCertSha256"), ValueLabel(Utf8(c.sha256)));
  form->addRow(Text(texts, "QuestionCertSha1"), ValueLabel(Utf8(c.sha1)));
  form->addRow(Text(texts, "QuestionCertKey"), ValueLabel(Utf8(c.key_sha256)));
  form->addRow(Text(texts, "QuestionCertProblems"), ValueLabel(Utf8(CertificateFlagsText(refused.flags))));
  layout->addLayout(form);
  auto* buttons = new QDialogButtonBox;
  QPushButton* trust = buttons->addButton(Text(texts, "QuestionTrustHost"), QDialogButtonBox::AcceptRole);
  QPushButton* refuse = buttons->addButton(Text(texts, "QuestionDontTrust"), QDialogButtonBox::RejectRole);
  refuse->setDefault(true);  // Enter does not trust by accident
  trust->setAutoDefault(false);
  connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
  connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
  layout->addWidget(buttons);
}

std::unique_ptr<QMessageBox> MakeSizeQuestion(const LanguageTable& texts, const QString& account, uint64_t size,
                                              uint32_t max_size, QWidget* parent) {
  const QLocale locale;
  const QString text = Text(texts, "QuestionSizeText")
                           .arg(locale.formattedDataSize(static_cast<qint64>(size)),
                                locale.formattedDataSize(static_cast<qint64>(max_size)));
  auto box = std::make_unique<QMessageBox>(QMessageBox::Question, Text(texts, "QuestionSizeTitle").arg(account), text,
                                           QMessageBox::Yes | QMessageBox::No, parent);
  box->setDefaultButton(QMessageBox::No);
  return box;
}

bool RunQuestions::AskCredentials(QWidget* parent, const LanguageTable& texts, const QString& account,
                                  const QString& server, Credentials* answer) {
  CredentialsDialog dialog(texts, account, server, *answer, parent);
  if (dialog.exec() != QDialog::Accepted) return false;
  *answer = dialog.answer();
  return true;
}

bool RunQuestions::TrustCertificate(QWidget* parent, const LanguageTable& texts, const RefusedCertificate& refused) {
  CertificateDialog dialog(texts, refused, parent);
  return dialog.exec() == QDialog::Accepted;
}

bool RunQuestions::SendOversized(QWidget* parent, const LanguageTable& texts, const QString& account, uint64_t size,
                                 uint32_t max_size) {
  return MakeSizeQuestion(texts, account, size, max_size, parent)->exec() == QMessageBox::Yes;
}

RunQuestions& RunQuestions::Dialogs() {
  static RunQuestions dialogs;
  return dialogs;
}

}  // namespace trv::gui
