// The compose window: From (the account), To, Cc and Bcc with address
// completion, Subject, a plain-text body, attachments and inline pictures,
// priority; saved to "Drafts" or put into "Outbox" (and sent at once when
// asked). Built with mime/compose.h in the account's sending character set
// and body encoding.
//
// From lists the accounts that can send (an SMTP server is set), shown as
// "Name <address>"; when none can, every account is listed, so that drafts
// can still be saved. Inline pictures are listed in the attachment pane with
// their Content-ID (the body stays plain text). The account's signature goes
// under "-- " at the end of a new body when "AddSignature" is on, except for
// a reply (In-Reply-To set) when "DontAddSignatureToReplies" is on;
// choosing another account swaps a signature that is still there.
//
// Send refuses, naming the field and the address: an address the parser
// cannot read, a message without recipient; it asks before sending without a
// subject, and a file that cannot be read when the message is built is named
// with nothing queued. A refusal keeps the window open with its content.
//
// The "send at once" box starts the account's sending run after queuing; its
// state is kept in the main window's options ("CMLGUIParams\Compose",
// "SendAtOnce").
//
// Threads: interface thread. The window deletes itself when closed. It
// keeps its account's GUID, not the service, and finds the service again at
// each use: when the account has been removed, sending and saving say so,
// and closing closes without asking to save.
#pragma once

#include <QMainWindow>
#include <QString>
#include <cstdint>
#include <string>
#include <vector>

#include "base/guid.h"
#include "base/result.h"
#include "mime/compose.h"

class QAction;
class QCheckBox;
class QComboBox;
class QCompleter;
class QLabel;
class QLineEdit;
class QPlainTextEdit;

namespace trv {
class MailFolder;
class MailService;
}  // namespace trv

namespace trv::gui {

class AttachmentEditor;
class MainWindow;
class UserQuestions;

class ComposeWindow final : public QMainWindow {
  Q_OBJECT

 public:
  ComposeWindow(MainWindow& main, const ComposedMessage& initial, MailService* account, MailFolder* draft_folder,
                uint32_t draft_key);
  ~ComposeWindow() override;

  // Checks, builds and queues the message, starts the sending run when
  // "send at once" is ticked, removes the draft it edits and closes.
  // rc::kInvalidArg: a field was refused (and said); rc::kAbort: the person
  // did not want to send without a subject; otherwise the build's or the
  // store's code (said too). Nothing is queued unless rc::kOk.
  Result Send();
  // Stores the message in the account's "Drafts" and then removes the draft
  // it replaces; the window stays open and edits the new draft.
  Result SaveDraft();
  // The message as the fields say now, From filled from the account.
  ComposedMessage Composed() const;

  // Where the window asks and tells (UserQuestions::Boxes() by default).
  void SetQuestions(UserQuestions* questions) { questions_ = questions; }
  // Address completion on To, Cc and Bcc (the completer is not taken over).
  void SetAddressCompleter(QCompleter* completer);
  // Adds files as attachments (or inline pictures); false when one is no
  // readable file (said, the others are added).
  bool AddFiles(const QStringList& paths, bool inline_pictures);

  // The account chosen in From, while the engine still has it.
  MailService* account() const;
  MailFolder* draft_folder() const { return draft_folder_; }
  uint32_t draft_key() const { return draft_key_; }
  bool modified() const { return modified_; }

  QComboBox& from() const { return *from_; }
  QLineEdit& to() const { return *to_; }
  QLineEdit& cc() const { return *cc_; }
  QLineEdit& bcc() const { return *bcc_; }
  QLineEdit& subject() const { return *subject_; }
  QComboBox& priority() const { return *priority_; }  // rows: low, normal, high
  QPlainTextEdit& body() const { return *body_; }
  QCheckBox& send_at_once() const { return *send_at_once_; }
  AttachmentEditor& attachments() const { return *attachments_; }
  // A line above the fields about how the window was filled (an odd
  // mailto: address); hidden when there is nothing to say.
  QLabel& note() const { return *note_; }

 protected:
  void closeEvent(QCloseEvent* event) override;
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dropEvent(QDropEvent* event) override;

 private:
  void FillAccounts(MailService* chosen);
  void AccountChanged();
  QString SignatureBlock(MailService* service) const;
  // The first address field holding an address that cannot be read: said,
  // focused; false then.
  bool CheckAddresses();
  Result Build(MailService& service, std::string* text, uint16_t* flags);
  void RemoveDraft();
  void Tell(const QString& text);
  QString Text(const char* id) const;

  MainWindow& main_;
  UserQuestions* questions_;
  QComboBox* from_;
  QLineEdit* to_;
  QLineEdit* cc_;
  QLineEdit* bcc_;
  QLineEdit* subject_;
  QComboBox* priority_;
  QPlainTextEdit* body_;
  QCheckBox* send_at_once_;
  AttachmentEditor* attachments_;
  QLabel* note_;
  std::vector<Guid> account_ids_;  // the accounts of From's rows
  WString in_reply_to_;
  WString references_;
  QString signature_;       // the block now at the end of the body; empty: none
  MailFolder* draft_folder_;
  uint32_t draft_key_;
  bool modified_ = false;
  bool closing_ = false;  // sent, or the account is gone: close without asking
};

// Opens a compose window filled from `initial` (a new message, a reply, a
// forward, a mailto: address) for `account`; null: the account of the
// folder shown in the main window, else the first account. `draft`, when
// given, is the stored draft this window edits (saving replaces it, sending
// removes it). Returns the window, shown.
ComposeWindow* OpenCompose(MainWindow& main, const ComposedMessage& initial, MailService* account = nullptr,
                           MailFolder* draft_folder = nullptr, uint32_t draft_key = 0);

// Opens the stored message `key` of `folder` (a draft) in a compose window
// that edits it, for the account whose mark the message carries, else the
// first account of its storage. Null (and said in a message box) when it
// cannot be read.
ComposeWindow* OpenDraft(MainWindow& main, MailFolder& folder, uint32_t key);

// Opens a compose window filled from a "mailto:" address (mime/mailto_url.h);
// odd escapes are said in the window's note. Null when `url` is no mailto:
// address.
ComposeWindow* OpenMailtoCompose(MainWindow& main, const QString& url);

// The main window's compose commands: "New message" (Ctrl+N) and "Edit
// draft" in the Message menu; a double click or Enter on a message of a
// "Drafts" folder opens it for editing.
void InstallComposeCommands(MainWindow& main);

}  // namespace trv::gui
