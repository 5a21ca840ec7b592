#include "app/gui/user_questions.h"

#include <QInputDialog>
#include <QMessageBox>

namespace trv::gui {

bool UserQuestions::AskText(QWidget* parent, const QString& caption, const QString& label, QString* text) {
  bool ok = false;
  const QString answer = QInputDialog::getText(parent, caption, label, QLineEdit::Normal, *text, &ok);
  if (ok) *text = answer;
  return ok;
}

bool UserQuestions::AskChoice(QWidget* parent, const QString& caption, const QString& label,
                              const QStringList& choices, int* chosen) {
  bool ok = false;
  const QString answer = QInputDialog::getItem(parent, caption, label, choices, 0, false, &ok);
  *chosen = static_cast<int>(choices.indexOf(answer));
  return ok && *chosen >= 0;
}

bool UserQuestions::Confirm(QWidget* parent, const QString& caption, const QString& text) {
  return QMessageBox::question(parent, caption, text, QMessageBox::Yes | QMessageBox::No, QMessageBox::No) ==
         QMessageBox::Yes;
}

void UserQuestions::Tell(QWidget* parent, const QString& caption, const QString& text) {
  QMessageBox::warning(parent, caption, text);
}

UserQuestions& UserQuestions::Boxes() {
  static UserQuestions boxes;
  return boxes;
}

}  // namespace trv::gui
