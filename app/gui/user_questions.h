// The questions the window's commands ask a person, and the refusals they
// show: message boxes and input dialogs by default. Tests put answers of
// their own here instead of driving a modal loop.
//
// Threads: interface thread.
#pragma once

#include <QString>
#include <QStringList>

class QWidget;

namespace trv::gui {

class UserQuestions {
 public:
  virtual ~UserQuestions() = default;
  // A text typed by the person, starting from *text; false when cancelled.
  virtual bool AskText(QWidget* parent, const QString& caption, const QString& label, QString* text);
  // One of `choices`; *chosen is its index. False when cancelled.
  virtual bool AskChoice(QWidget* parent, const QString& caption, const QString& label, const QStringList& choices,
                         int* chosen);
  // Yes or no; false also when the box is closed.
  virtual bool Confirm(QWidget* parent, const QString& caption, const QString& text);
  // Says why something was not done.
  virtual void Tell(QWidget* parent, const QString& caption, const QString& text);

  // The boxes of the desktop, for every command that has no other.
  static UserQuestions& Boxes();
};

}  // namespace trv::gui
