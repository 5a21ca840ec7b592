#include "app/gui/field_check.h"

#include <QLineEdit>
#include <QUrl>

namespace trv::gui {

bool Refuse(FieldError* error, QWidget* field, const QString& message) {
  if (error->field == nullptr) *error = {field, message};
  return false;
}

bool ReadPort(const LanguageTable& texts, QLineEdit& edit, const QString& what, int32_t* port, FieldError* error) {
  bool ok = false;
  const int value = edit.text().trimmed().toInt(&ok);
  if (!ok || value < 1 || value > 65535) {
    return Refuse(error, &edit, QString::fromStdString(texts.Text("AccBadPort")).arg(what, edit.text()));
  }
  *port = value;
  return true;
}

bool ReadHost(const LanguageTable& texts, QLineEdit& edit, const QString& what, std::string* host,
              FieldError* error) {
  const QString text = edit.text().trimmed();
  if (text.isEmpty() || text.contains(' ')) {
    return Refuse(error, &edit, QString::fromStdString(texts.Text("AccNoHost")).arg(what));
  }
  // Host names are 8-bit text in the settings file: an internationalized
  // name goes in its ASCII form.
  const QByteArray ace = QUrl::toAce(text);
  *host = ace.isEmpty() ? text.toStdString() : ace.toStdString();
  return true;
}

}  // namespace trv::gui
