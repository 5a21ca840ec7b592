// The questions a run asks the person, as dialogs of the window:
//
//  - the credentials question: user name, password (any characters; never
//    shown, logged or printed) and "Save the password";
//  - the certificate question: host and port, subject, issuer, validity,
//    SHA-256 and SHA-1 fingerprints, what the check found, and a warning
//    when the host's trusted key changed; "Trust for this host" or
//    "Don't trust";
//  - the size question: the message's size against the server's limit;
//    "No" is the default.
//
// RunQuestions is the seam the window asks through (app/gui/run_prompts.h
// brings the runs' questions here): the dialogs by default; tests answer
// with their own. The dialog classes are public so that they can be shown
// without a modal loop.
//
// Threads: interface thread.
#pragma once

#include <QDialog>
#include <QString>
#include <cstdint>
#include <memory>

#include "app/gui/language.h"
#include "services/certificate_trust.h"
#include "services/credentials_prompt.h"

class QCheckBox;
class QLineEdit;
class QMessageBox;

namespace trv::gui {

class RunQuestions {
 public:
  virtual ~RunQuestions() = default;
  // `answer` holds the current user name (and password) on entry and the
  // person's answer on return; false: cancelled. `account` is the
  // account's display name, `server` says which server asks.
  virtual bool AskCredentials(QWidget* parent, const LanguageTable& texts, const QString& account,
                              const QString& server, Credentials* answer);
  // True: trust the refused certificate for its host and port.
  virtual bool TrustCertificate(QWidget* parent, const LanguageTable& texts, const RefusedCertificate& refused);
  // True: send the message of `size` bytes although the server takes at
  // most `max_size`.
  virtual bool SendOversized(QWidget* parent, const LanguageTable& texts, const QString& account, uint64_t size,
                             uint32_t max_size);

  // The dialogs below, for every window that has no other.
  static RunQuestions& Dialogs();
};

class CredentialsDialog final : public QDialog {
  Q_OBJECT

 public:
  CredentialsDialog(const LanguageTable& texts, const QString& account, const QString& server,
                    const Credentials& current, QWidget* parent = nullptr);
  // The fields' values; the password as UTF-8.
  Credentials answer() const;

  QLineEdit& user_name() const { return *user_; }
  QLineEdit& password() const { return *password_; }
  QCheckBox& save() const { return *save_; }

 private:
  QLineEdit* user_;
  QLineEdit* password_;
  QCheckBox* save_;
};

class CertificateDialog final : public QDialog {
  Q_OBJECT

 public:
  // Accepted: "Trust for this host"; rejected: "Don't trust".
  CertificateDialog(const LanguageTable& texts, const RefusedCertificate& refused, QWidget* parent = nullptr);
};

// The size question as a message box with Yes and No, No the default.
std::unique_ptr<QMessageBox> MakeSizeQuestion(const LanguageTable& texts, const QString& account, uint64_t size,
                                              uint32_t max_size, QWidget* parent = nullptr);

}  // namespace trv::gui
