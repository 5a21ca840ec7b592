#include "app/gui/compose_window.h"

#include <QAction>
#include <QCheckBox>
#include <QCloseEvent>
#include <QComboBox>
#include <QCompleter>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QSplitter>
#include <QTableView>
#include <QToolBar>
#include <QUrl>
#include <QVBoxLayout>

#include "app/gui/address_completer.h"
#include "app/gui/attachment_editor.h"
#include "app/gui/main_window.h"
#include "app/gui/user_questions.h"
#include "core/engine.h"
#include "mime/address_list.h"
#include "mime/compose_text.h"
#include "mime/mailto_url.h"
#include "mime/mime_message.h"
#include "mime/mime_result.h"
#include "services/mail_service.h"
#include "services/outbox.h"
#include "services/service_registry.h"
#include "store/folder_file.h"
#include "store/mail_folder.h"
#include "store/storage.h"

namespace trv::gui {

namespace {

QString Q(WStringView text) { return QString::fromStdU16String(WString(text)); }
WString W16(const QString& text) { return text.toStdU16String(); }

MailService* ServiceOf(MailEngine& engine, const Guid& id) {
  for (MailService* service : MailServices(engine)) {
    if (service->settings().guid == id) return service;
  }
  return nullptr;
}

// Whether the engine still has the folder (folders may be deleted while a
// window refers to one).
bool FolderExists(MailEngine& engine, const MailFolder* folder) {
  bool exists = false;
  for (Storage* storage : engine.storages()) {
    if (storage->is_open()) storage->ForEachFolder([&](MailFolder& f) { exists = exists || &f == folder; });
  }
  return exists;
}

// The first element of an address list that is no address: a name alone, a
// missing local part or domain. Empty when all can be read.
QString UnreadableAddress(const QString& list) {
  for (const MailAddress& a : ParseAddressList(W16(list))) {
    const size_t at = a.address.rfind(u'@');
    if (at == WString::npos || at == 0 || at + 1 == a.address.size()) {
      return a.address.empty() ? Q(a.name) : Q(a.address);
    }
  }
  return QString();
}

}  // namespace

ComposeWindow::ComposeWindow(MainWindow& main, const ComposedMessage& initial, MailService* account,
                             MailFolder* draft_folder, uint32_t draft_key)
    : QMainWindow(&main),
      main_(main),
      questions_(&UserQuestions::Boxes()),
      in_reply_to_(initial.in_reply_to),
      references_(initial.references),
      draft_folder_(draft_folder),
      draft_key_(draft_key) {
  setWindowFlag(Qt::Window);
  setAttribute(Qt::WA_DeleteOnClose);
  // Closing the main window ends the program even while this one is open.
  setAttribute(Qt::WA_QuitOnClose, false);
  setAcceptDrops(true);

  auto* fields = new QFormLayout;
  from_ = new QComboBox;
  to_ = new QLineEdit(Q(initial.to));
  cc_ = new QLineEdit(Q(initial.cc));
  bcc_ = new QLineEdit(Q(initial.bcc));
  subject_ = new QLineEdit(Q(initial.subject));
  priority_ = new QComboBox;
  priority_->addItems({Text("PriorityLow"), Text("PriorityNormal"), Text("PriorityHigh")});
  priority_->setCurrentIndex(static_cast<int>(initial.priority));
  send_at_once_ = new QCheckBox(Text("ComposeSendAtOnce"));
  send_at_once_->setChecked(main.send_at_once());
  auto* priority_row = new QHBoxLayout;
  priority_row->addWidget(priority_);
  priority_row->addStretch(1);
  priority_row->addWidget(send_at_once_);
  fields->addRow(Text("ComposeFrom"), from_);
  fields->addRow(Text("ComposeTo"), to_);
  fields->addRow(Text("ComposeCc"), cc_);
  fields->addRow(Text("ComposeBcc"), bcc_);
  fields->addRow(Text("ComposeSubject"), subject_);
  fields->addRow(Text("ComposePriority"), priority_row);

  note_ = new QLabel;
  note_->setWordWrap(true);
  note_->hide();
  body_ = new QPlainTextEdit;
  body_->setAcceptDrops(false);  // files dropped on the body become attachments
  body_->setLineWrapMode(QPlainTextEdit::WidgetWidth);
  attachments_ = new AttachmentEditor(main.texts());
  attachments_->setMaximumHeight(120);
  for (const ComposedItem& item : initial.parts.attachments) attachments_->AddItem(item, false);
  for (const ComposedItem& item : initial.parts.inline_items) attachments_->AddItem(item, true);
  attachments_->setVisible(attachments_->count() > 0);

  auto* central = new QWidget;
  auto* layout = new QVBoxLayout(central);
  layout->addWidget(note_);
  layout->addLayout(fields);
  layout->addWidget(body_, 1);
  layout->addWidget(attachments_);
  setCentralWidget(central);

  QMenu* file = menuBar()->addMenu(Text("MenuFile"));
  QAction* send = file->addAction(Text("ComposeSend"));
  send->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Return));
  connect(send, &QAction::triggered, this, [this] { Send().Ignore(); });  // refusals are said
  QAction* save = file->addAction(Text("ComposeSaveDraft"));
  save->setShortcut(QKeySequence::Save);
  connect(save, &QAction::triggered, this, [this] { SaveDraft().Ignore(); });  // failures are said
  QToolBar* tools = addToolBar(Text("MenuFile"));
  tools->setMovable(false);
  tools->addAction(send);
  tools->addAction(save);
  file->addSeparator();
  QAction* attach = file->addAction(Text("ComposeAttach"));
  tools->addAction(attach);
  connect(attach, &QAction::triggered, this, [this] {
    AddFiles(QFileDialog::getOpenFileNames(this, Text("ComposeAttachCaption")), false);
  });
  connect(file->addAction(Text("ComposeInsertPicture")), &QAction::triggered, this, [this] {
    AddFiles(QFileDialog::getOpenFileNames(this, Text("ComposePictureCaption"), QString(),
                                           Text("ComposePictureFilter")),
             true);
  });
  QAction* remove = file->addAction(Text("ComposeRemoveAttachment"));
  remove->setShortcut(QKeySequence::Delete);
  remove->setShortcutContext(Qt::WidgetShortcut);
  attachments_->addAction(remove);
  connect(remove, &QAction::triggered, this, [this] { attachments_->RemoveSelected(); });
  file->addSeparator();
  QAction* close_action = file->addAction(Text("ComposeClose"));
  close_action->setShortcut(QKeySequence::Close);
  connect(close_action, &QAction::triggered, this, &QWidget::close);

  WString body = initial.parts.bodies.empty() ? WString() : initial.parts.bodies.front().text;
  body_->setPlainText(Q(body));
  FillAccounts(account);
  // A stored draft has its signature already; a new message gets one.
  if (draft_folder_ == nullptr) AccountChanged();
  connect(from_, &QComboBox::currentIndexChanged, this, [this] {
    AccountChanged();
    modified_ = true;
  });

  const auto changed = [this] { modified_ = true; };
  for (QLineEdit* edit : {to_, cc_, bcc_, subject_}) connect(edit, &QLineEdit::textEdited, this, changed);
  connect(priority_, &QComboBox::currentIndexChanged, this, changed);
  connect(body_, &QPlainTextEdit::textChanged, this, changed);
  connect(attachments_, &AttachmentEditor::changed, this, changed);
  connect(send_at_once_, &QCheckBox::toggled, this, [this](bool on) { main_.set_send_at_once(on); });
  connect(subject_, &QLineEdit::textChanged, this, [this](const QString& text) {
    setWindowTitle((text.trimmed().isEmpty() ? Text("ComposeNewTitle") : text.trimmed()) + " - " +
                   Text("AppTitle"));
  });
  setWindowTitle((subject_->text().trimmed().isEmpty() ? Text("ComposeNewTitle") : subject_->text().trimmed()) +
                 " - " + Text("AppTitle"));
  resize(720, 600);
  if (to_->text().isEmpty()) {
    to_->setFocus();
  } else {
    body_->setFocus();
  }
}

ComposeWindow::~ComposeWindow() = default;

QString ComposeWindow::Text(const char* id) const { return QString::fromStdString(main_.texts().Text(id)); }

void ComposeWindow::Tell(const QString& text) { questions_->Tell(this, Text("AppTitle"), text); }

void ComposeWindow::FillAccounts(MailService* chosen) {
  std::vector<MailService*> services = MailServices(main_.engine());
  std::vector<MailService*> senders;
  for (MailService* service : services) {
    if (!service->settings().smtp.host.empty()) senders.push_back(service);
  }
  if (!senders.empty()) services = senders;
  if (chosen == nullptr) {
    // The account of the folder shown, else the first.
    const MailFolder* shown = main_.message_model().folder();
    for (MailService* service : services) {
      if (shown != nullptr && &service->storage() == &shown->storage()) chosen = service;
    }
  }
  const QSignalBlocker quiet(from_);
  for (MailService* service : services) {
    const ServiceSettings s = service->settings();
    QString shown = QString::fromStdString(service->DisplayName());
    if (!s.email_address.empty()) shown += " <" + Q(s.email_address) + ">";
    if (!s.user_real_name.empty()) shown = Q(s.user_real_name) + " <" + Q(s.email_address) + "> (" +
                                           QString::fromStdString(service->DisplayName()) + ")";
    from_->addItem(shown);
    account_ids_.push_back(s.guid);
    if (service == chosen) from_->setCurrentIndex(from_->count() - 1);
  }
}

MailService* ComposeWindow::account() const {
  const int row = from_->currentIndex();
  return row < 0 ? nullptr : ServiceOf(main_.engine(), account_ids_[row]);
}

QString ComposeWindow::SignatureBlock(MailService* service) const {
  if (service == nullptr) return QString();
  const ServiceSettings s = service->settings();
  const bool reply = !in_reply_to_.empty();
  if (!s.add_signature || s.signature.empty() || (reply && s.dont_add_signature_to_replies)) return QString();
  return "\n-- \n" + Q(s.signature);
}

void ComposeWindow::AccountChanged() {
  QString body = body_->toPlainText();
  // The signature of the account chosen before goes, if it is still there
  // as it was added.
  if (!signature_.isEmpty() && body.endsWith(signature_)) body.chop(signature_.size());
  signature_ = SignatureBlock(account());
  if (signature_.isEmpty() && body == body_->toPlainText()) return;
  body += signature_;
  body_->setPlainText(body);
}

void ComposeWindow::SetAddressCompleter(QCompleter* completer) {
  for (QLineEdit* edit : {to_, cc_, bcc_}) edit->setCompleter(completer);
}

bool ComposeWindow::AddFiles(const QStringList& paths, bool inline_pictures) {
  QStringList refused;
  for (const QString& path : paths) {
    if (!attachments_->AddFile(path.toStdString(), inline_pictures)) refused << path;
  }
  if (!refused.isEmpty()) Tell(Text("ComposeNotAFile").arg(refused.join(", ")));
  return refused.isEmpty();
}

ComposedMessage ComposeWindow::Composed() const {
  ComposedMessage c;
  if (MailService* service = account()) {
    const ServiceSettings s = service->settings();
    c.from = AccountFromField(s);
    c.reply_to = s.reply_address;
  }
  c.to = W16(to_->text().trimmed());
  c.cc = W16(cc_->text().trimmed());
  c.bcc = W16(bcc_->text().trimmed());
  c.subject = W16(subject_->text().trimmed());
  c.in_reply_to = in_reply_to_;
  c.references = references_;
  c.priority = static_cast<Priority>(std::clamp(priority_->currentIndex(), 0, 2));
  c.unsent = true;
  c.parts.bodies.push_back({W16(body_->toPlainText()), false});
  c.parts.attachments = attachments_->attachments();
  c.parts.inline_items = attachments_->inline_items();
  return c;
}

bool ComposeWindow::CheckAddresses() {
  const std::pair<QLineEdit*, const char*> fields[] = {
      {to_, "ComposeFieldTo"}, {cc_, "ComposeFieldCc"}, {bcc_, "ComposeFieldBcc"}};
  for (auto [edit, name] : fields) {
    const QString bad = UnreadableAddress(edit->text());
    if (bad.isEmpty()) continue;
    edit->setFocus();
    const qsizetype at = edit->text().indexOf(bad);
    if (at >= 0) edit->setSelection(static_cast<int>(at), static_cast<int>(bad.size()));
    Tell(Text("ComposeBadAddress").arg(Text(name), bad));
    return false;
  }
  return true;
}

Result ComposeWindow::Build(MailService& service, std::string* text, uint16_t* flags) {
  const ServiceSettings s = service.settings();
  ComposeOptions options;
  options.sending_charset = s.sending_charset;
  options.body_encoding = s.body_encoding;
  options.save_unsent = true;
  ComposeReport report;
  const Result r = ComposeMessageText(Composed(), options, text, flags, &report);
  if (r.failed()) {
    Tell(report.failed_file.empty()
             ? Text("ComposeBuildFailed").arg(QString::fromStdString(ResultText(r)))
             : Text("ComposeFileGone").arg(QString::fromStdString(report.failed_file.string()),
                                           QString::fromStdString(ResultText(r))));
  }
  return r;
}

Result ComposeWindow::Send() {
  MailService* service = account();
  if (service == nullptr) {
    Tell(Text("ComposeNoAccount"));
    return rc::kInvalidArg;
  }
  if (service->settings().smtp.host.empty()) {
    from_->setFocus();
    Tell(Text("ComposeNoSmtp").arg(QString::fromStdString(service->DisplayName())));
    return rc::kInvalidArg;
  }
  if (!CheckAddresses()) return rc::kInvalidArg;
  const ComposedMessage c = Composed();
  if (ParseAddressList(c.to).empty() && ParseAddressList(c.cc).empty() && ParseAddressList(c.bcc).empty()) {
    to_->setFocus();
    Tell(Text("ComposeNoRecipient"));
    return rc::kInvalidArg;
  }
  if (c.subject.empty() && !questions_->Confirm(this, Text("AppTitle"), Text("ComposeEmptySubject"))) {
    subject_->setFocus();
    return rc::kAbort;
  }
  std::string text;
  uint16_t flags = 0;
  if (Result r = Build(*service, &text, &flags); r.failed()) return r;
  if (Result r = QueueForSending(*service, text); r.failed()) {
    Tell(Text("ComposeStoreFailed").arg(Q(SpecialFolderName(kFolderOutbox)), QString::fromStdString(ResultText(r))));
    return r;
  }
  RemoveDraft();
  if (send_at_once_->isChecked()) {
    if (Result r = service->Start(true, false); r.failed()) {
      Tell(Text("ComposeCannotStart").arg(QString::fromStdString(ResultText(r))));
    }
  }
  closing_ = true;
  close();
  return rc::kOk;
}

Result ComposeWindow::SaveDraft() {
  MailService* service = account();
  if (service == nullptr) {
    Tell(Text("ComposeNoAccount"));
    return rc::kInvalidArg;
  }
  std::string text;
  uint16_t flags = 0;
  if (Result r = Build(*service, &text, &flags); r.failed()) return r;
  uint32_t key = 0;
  if (Result r = StoreDraft(*service, text, flags, &key); r.failed()) {
    Tell(Text("ComposeStoreFailed").arg(Q(SpecialFolderName(kFolderDrafts)), QString::fromStdString(ResultText(r))));
    return r;
  }
  // The new draft is stored: the old one can go.
  RemoveDraft();
  draft_folder_ = service->storage().SpecialFolder(kFolderDrafts);
  draft_key_ = key;
  modified_ = false;
  return rc::kOk;
}

void ComposeWindow::RemoveDraft() {
  if (draft_folder_ == nullptr || !FolderExists(main_.engine(), draft_folder_) || !draft_folder_->available()) return;
  // A draft that cannot be removed stays in "Drafts" beside the new one:
  // nothing is lost, the person can delete it.
  draft_folder_->file()->Delete({draft_key_}).Ignore();
  draft_folder_ = nullptr;
  draft_key_ = 0;
}

void ComposeWindow::closeEvent(QCloseEvent* event) {
  if (closing_ || !modified_) return QMainWindow::closeEvent(event);
  if (account() == nullptr) return QMainWindow::closeEvent(event);  // nowhere to save it
  int chosen = -1;
  const QStringList choices{Text("ComposeSaveChoice"), Text("ComposeDiscardChoice")};
  if (!questions_->AskChoice(this, Text("AppTitle"), Text("ComposeAskSave"), choices, &chosen) ||
      (chosen == 0 && SaveDraft().failed())) {
    event->ignore();
    return;
  }
  QMainWindow::closeEvent(event);
}

void ComposeWindow::dragEnterEvent(QDragEnterEvent* event) {
  for (const QUrl& url : event->mimeData()->urls()) {
    if (url.isLocalFile()) return event->acceptProposedAction();
  }
}

void ComposeWindow::dropEvent(QDropEvent* event) {
  QStringList files;
  for (const QUrl& url : event->mimeData()->urls()) {
    if (url.isLocalFile()) files << url.toLocalFile();
  }
  if (files.isEmpty()) return;
  event->acceptProposedAction();
  AddFiles(files, false);
}

ComposeWindow* OpenCompose(MainWindow& main, const ComposedMessage& initial, MailService* account,
                           MailFolder* draft_folder, uint32_t draft_key) {
  auto* window = new ComposeWindow(main, initial, account, draft_folder, draft_key);
  AddAddressCompletion(main, *window);
  window->show();
  window->raise();
  window->activateWindow();
  return window;
}

ComposeWindow* OpenDraft(MainWindow& main, MailFolder& folder, uint32_t key) {
  const auto text = [&](const char* id) { return QString::fromStdString(main.texts().Text(id)); };
  std::string stored;
  std::optional<MessageRecord> record;
  Result r = folder.available() ? folder.file()->ReadMessage(key, &stored) : rc::kFileMissing;
  if (r.ok()) record = folder.file()->FindMessage(key);
  ComposedMessage composed;
  if (r.ok()) {
    CXmMimeMessage message;
    r = message.ParseText(std::move(stored));
    // Broken MIME is taken as far as it could be read.
    if (r == rc::kMimeSyntax || r == rc::kMimeCharset) r = rc::kOk;
    if (r.ok()) r = ComposedFromMessage(message, &composed);
  }
  if (r.ok() && !record) r = rc::kInvalidArg;  // deleted meanwhile
  if (r.failed()) {
    const QString why = QString::fromStdString(ResultText(r));
    QMessageBox::warning(&main, text("AppTitle"), text("ComposeDraftUnreadable").arg(why));
    return nullptr;
  }
  MailService* account = nullptr;
  for (MailService* service : MailServices(main.engine())) {
    if (&service->storage() != &folder.storage()) continue;
    if (account == nullptr || service->settings().guid == SendingService(*record)) account = service;
  }
  return OpenCompose(main, composed, account, &folder, key);
}

ComposeWindow* OpenMailtoCompose(MainWindow& main, const QString& url) {
  MailtoFields fields;
  if (ParseMailtoUrl(url.trimmed().toStdString(), &fields).failed()) return nullptr;
  ComposedMessage composed;
  composed.to = fields.to;
  composed.cc = fields.cc;
  composed.bcc = fields.bcc;
  composed.subject = fields.subject;
  composed.parts.bodies.push_back({fields.body, false});
  ComposeWindow* window = OpenCompose(main, composed);
  if (fields.odd_escapes) {
    window->note().setText(QString::fromStdString(main.texts().Text("ComposeMailtoOdd")));
    window->note().show();
  }
  return window;
}

void InstallComposeCommands(MainWindow& main) {
  QMenu* menu = main.menu(MainWindow::Menu::kMessage);
  menu->addSeparator();
  const auto text = [&](const char* id) { return QString::fromStdString(main.texts().Text(id)); };
  QAction* compose = menu->addAction(text("CommandNewMessage"));
  compose->setShortcut(QKeySequence::New);
  QObject::connect(compose, &QAction::triggered, &main, [&main] { OpenCompose(main, ComposedMessage()); });
  // The message of the list's current row, when the folder is a "Drafts".
  const auto edit_draft = [&main] {
    MailFolder* folder = main.message_model().folder();
    const MessageRecord* record = main.message_model().RecordAt(main.message_list().currentIndex().row());
    if (folder == nullptr || record == nullptr || folder->kind() != kFolderDrafts) return;
    OpenDraft(main, *folder, record->key);
  };
  QObject::connect(menu->addAction(text("CommandEditDraft")), &QAction::triggered, &main, edit_draft);
  QObject::connect(&main.message_list(), &QAbstractItemView::activated, &main, edit_draft);
}

}  // namespace trv::gui
