// Checking what a person typed into the account editor's fields: the first
// field refused and why, so the editor can show its page, put the cursor in
// it and say the reason beside it.
//
// Threads: interface thread.
#pragma once

#include <QString>
#include <cstdint>

#include "app/gui/language.h"

class QLineEdit;
class QWidget;

namespace trv::gui {

struct FieldError {
  QWidget* field = nullptr;  // null: nothing refused
  QString message;
};

// The port in `edit`: a whole number from 1 to 65535. Otherwise false, with
// the field and "AccBadPort" naming `what`.
bool ReadPort(const LanguageTable& texts, QLineEdit& edit, const QString& what, int32_t* port, FieldError* error);
// A host name: not empty and without blanks. Otherwise false with "AccNoHost".
bool ReadHost(const LanguageTable& texts, QLineEdit& edit, const QString& what, std::string* host,
              FieldError* error);
// Sets *error (when none is set yet) and returns false.
bool Refuse(FieldError* error, QWidget* field, const QString& message);

}  // namespace trv::gui
