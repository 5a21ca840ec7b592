#include "app/gui/address_completer.h"

#include <QAbstractItemView>
#include <QLineEdit>
#include <QStringListModel>

#include "app/gui/compose_window.h"
#include "app/gui/main_window.h"
#include "mime/address_list.h"
#include "services/address_book.h"

namespace trv::gui {

namespace {

// Keeps the book with the window, found again by its type.
class AddressBookHolder final : public QObject {
 public:
  explicit AddressBookHolder(MainWindow& main) : QObject(&main), book(main.engine()) {}
  AddressBook book;
};

WString ToWide(const QString& s) { return WString(reinterpret_cast<const char16_t*>(s.utf16()), s.size()); }
QString ToQ(WStringView s) { return QString::fromUtf16(s.data(), static_cast<qsizetype>(s.size())); }

}  // namespace

AddressBook& MainAddressBook(MainWindow& main) {
  for (QObject* child : main.children()) {
    if (auto* holder = dynamic_cast<AddressBookHolder*>(child)) return holder->book;
  }
  return (new AddressBookHolder(main))->book;
}

AddressCompleter::AddressCompleter(AddressBook& book, QObject* parent)
    : QCompleter(parent), book_(book), model_(new QStringListModel(this)) {
  setModel(model_);
  // The rows are matched here, by words, not by the completer's prefix.
  setCompletionMode(QCompleter::UnfilteredPopupCompletion);
  setCaseSensitivity(Qt::CaseInsensitive);
  setMaxVisibleItems(kMaxOffered);
}

void AddressCompleter::Attach(QLineEdit* field) {
  field->setCompleter(this);
  Follow(field);
}

void AddressCompleter::Follow(QLineEdit* field) {
  // Offers are made before the field asks the completer to show them.
  connect(field, &QLineEdit::textEdited, this, [this](const QString& text) {
    if (Offer(text) == 0) popup()->hide();
  });
}

int AddressCompleter::Offer(const QString& text) {
  const qsizetype comma = text.lastIndexOf(QLatin1Char(','));
  head_ = comma < 0 ? QString() : text.left(comma + 1) + QLatin1Char(' ');
  const QString typed = text.mid(comma + 1).trimmed();
  QStringList rows;
  for (const BookEntry& e : book_.Complete(ToWide(typed), kMaxOffered)) {
    rows << ToQ(FormatAddress(MailAddress{e.name, e.address, {}}));
  }
  model_->setStringList(rows);
  return static_cast<int>(rows.size());
}

QStringList AddressCompleter::offered() const { return model_->stringList(); }

QString AddressCompleter::pathFromIndex(const QModelIndex& index) const {
  return head_ + index.data(Qt::DisplayRole).toString() + QStringLiteral(", ");
}

QStringList AddressCompleter::splitPath(const QString& path) const {
  return {path.mid(path.lastIndexOf(QLatin1Char(',')) + 1).trimmed()};
}

void AddAddressCompletion(MainWindow& main, ComposeWindow& window) {
  auto* completer = new AddressCompleter(MainAddressBook(main), &window);
  window.SetAddressCompleter(completer);
  for (QLineEdit* field : {&window.to(), &window.cc(), &window.bcc()}) completer->Follow(field);
}

}  // namespace trv::gui
