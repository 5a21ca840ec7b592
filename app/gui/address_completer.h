// Address completion for the To, Cc and Bcc fields: the address being typed
// (the text after the field's last comma) is matched against the address
// book (services/address_book.h) by the start of any word of a name or an
// address, best ranked first, and the chosen "Name <address>" replaces it,
// followed by ", " for the next one.
//
// Threads: interface thread. The address book belongs to the main window
// (MainAddressBook) and outlives every completer made over it.
#pragma once

#include <QCompleter>
#include <QString>

class QLineEdit;
class QStringListModel;

namespace trv {
class AddressBook;
}

namespace trv::gui {

class ComposeWindow;
class MainWindow;

class AddressCompleter final : public QCompleter {
  Q_OBJECT

 public:
  static constexpr int kMaxOffered = 12;

  AddressCompleter(AddressBook& book, QObject* parent = nullptr);

  // Completes in `field` from now on (the field's own completer).
  void Attach(QLineEdit* field);
  // Makes the offers as `field` is typed into (a field that already has
  // this completer, given by another hand).
  void Follow(QLineEdit* field);
  // Offers the addresses for the field text `text`; returns how many.
  int Offer(const QString& text);
  QStringList offered() const;

  // The field's text with the chosen entry in place of the address being typed.
  QString pathFromIndex(const QModelIndex& index) const override;
  QStringList splitPath(const QString& path) const override;

 private:
  AddressBook& book_;
  QStringListModel* model_;
  QString head_;  // the field text before the address being typed
};

// The main window's address book, made on first use.
AddressBook& MainAddressBook(MainWindow& main);

// Gives the compose window's To, Cc and Bcc one completer over the main
// window's address book (a child of the compose window).
void AddAddressCompletion(MainWindow& main, ComposeWindow& window);

}  // namespace trv::gui
