// The account editor's pages besides the protocol pages: General (the
// account's name, the person, the signature rules and when it is
// synchronized) and Download (the download and deletion rules, the
// character sets and encodings of messages, the network connection). Each
// shows a ServiceSettings' fields and writes them back.
//
// Threads: interface thread.
#pragma once

#include <QWidget>

#include "app/gui/field_check.h"
#include "app/gui/language.h"
#include "services/mail_service.h"

class QCheckBox;
class QComboBox;
class QLineEdit;
class QPlainTextEdit;
class QSpinBox;

namespace trv::gui {

class GeneralPage final : public QWidget {
  Q_OBJECT

 public:
  explicit GeneralPage(const LanguageTable& texts, QWidget* parent = nullptr);

  void Load(const ServiceSettings& s);
  // False with the first field refused: an empty name, an e-mail or reply
  // address the address parser does not read as one plain address.
  bool Store(ServiceSettings* s, FieldError* error) const;

  QLineEdit& name_edit() { return *name_; }
  QLineEdit& email_edit() { return *email_; }
  QLineEdit& reply_edit() { return *reply_; }

 private:
  const LanguageTable& texts_;
  QLineEdit* name_;
  QLineEdit* real_name_;
  QLineEdit* email_;
  QLineEdit* reply_;
  QLineEdit* organization_;
  QPlainTextEdit* signature_;
  QCheckBox* add_signature_;
  QCheckBox* not_to_replies_;
  QCheckBox* synchronize_;
  QCheckBox* at_startup_;
  QSpinBox* minutes_;
};

class DownloadPage final : public QWidget {
  Q_OBJECT

 public:
  explicit DownloadPage(const LanguageTable& texts, QWidget* parent = nullptr);

  void Load(const ServiceSettings& s);
  void Store(ServiceSettings* s) const;

 private:
  QSpinBox* max_size_;
  QSpinBox* last_days_;
  QSpinBox* body_size_;
  QCheckBox* delete_on_server_;
  QSpinBox* delete_after_days_;
  QCheckBox* delete_after_local_;
  QComboBox* reading_charset_;
  QComboBox* sending_charset_;
  QCheckBox* eight_bit_headers_;
  QComboBox* body_encoding_;
  QLineEdit* connection_;
};

}  // namespace trv::gui
