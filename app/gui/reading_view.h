// The reading view: the shown message's main header lines and its document
// (ui/message_view.h) in a text browser, with bars above it and the
// attachment list under it.
//
//  - The message is parsed straight from its folder file (or a message file)
//    through ranged reads; bodies are read again only when shown or saved.
//  - HTML bodies go through ui/html_sanitizer.h. When remote content was
//    removed, a bar says so and offers to allow it for this message only;
//    allowing shows the document with its remote sources and fetches the
//    remote pictures (http and https, at most kMaxRemoteBytes each, within
//    kRemoteTimeoutMs). A document cut for its size or nesting ends with a
//    line saying so.
//  - Pictures of the message itself ("cid:", "inl:") are shown; nothing
//    else is loaded.
//  - Links: http(s) open in the desktop's browser, mailto: emits
//    composeRequested, other schemes do nothing.
//  - A partially loaded message gets a bar whose button marks it for
//    completion at the next synchronization (services/full_download.h) and
//    emits fetchRequested.
//
// Lifetimes: the folder (and its file) of a shown message must stay until
// ShowNothing or another ShowMessage; the main window calls ShowNothing
// when the list loses the message or its folder.
// Threads: interface thread.
#pragma once

#include <QHash>
#include <QImage>
#include <QTextBrowser>
#include <cstdint>
#include <filesystem>
#include <memory>

#include "app/gui/language.h"
#include "mime/message_source.h"
#include "mime/mime_message.h"
#include "ui/html_sanitizer.h"
#include "ui/message_view.h"

class QLabel;
class QNetworkAccessManager;
class QNetworkReply;
class QPushButton;

namespace trv {
class MailFolder;
}

namespace trv::gui {

class AttachmentList;

// What happens to remote content: never shown, offered by the bar (each
// message on its own), or always shown and fetched.
enum class RemotePolicy : uint32_t { kBlock = 0, kAsk = 1, kAllow = 2 };

// A line of text above the message with one button.
struct NoticeBar {
  QWidget* frame = nullptr;
  QLabel* label = nullptr;
  QPushButton* button = nullptr;
};

class ReadingView final : public QTextBrowser {
  Q_OBJECT

 public:
  static constexpr qint64 kMaxRemoteBytes = 4 * 1024 * 1024;
  static constexpr int kRemoteTimeoutMs = 15000;

  ReadingView(const LanguageTable& texts, QWidget* parent = nullptr);
  ~ReadingView() override;

  // Shows message `key` of `folder` (its file must be open); a message that
  // cannot be read shows why instead.
  void ShowMessage(MailFolder& folder, uint32_t key);
  // Shows the message in `source` (a message file). Broken MIME is shown as
  // far as it could be read.
  void ShowSource(std::shared_ptr<CXmMessageSource> source);
  void ShowNothing();

  // The shown message, or nullptr.
  const CXmMimeMessage* message() const { return message_.get(); }
  // What the sanitiser removed from the shown document.
  const HtmlSanitizeReport& report() const { return report_; }
  bool remote_allowed() const { return remote_allowed_; }
  // For the messages shown from now on.
  void SetRemotePolicy(RemotePolicy policy) { remote_policy_ = policy; }
  RemotePolicy remote_policy() const { return remote_policy_; }

  // Shows remote content of this message (the bar's button).
  void AllowRemoteContent();
  // Marks the shown partial message for completion and emits
  // fetchRequested (the bar's button).
  Result RequestRest();

  const NoticeBar& remote_bar() const { return remote_bar_; }
  const NoticeBar& partial_bar() const { return partial_bar_; }
  AttachmentList& attachments() const { return *attachments_; }

  // The message's own pictures, and remote ones once allowed and fetched.
  QVariant loadResource(int type, const QUrl& name) override;

 signals:
  void composeRequested(const QUrl& address);
  void fetchRequested(trv::MailFolder* folder, uint32_t key);

 protected:
  void resizeEvent(QResizeEvent* event) override;

 private:
  NoticeBar MakeBar(const char* button_text);
  void Render();
  void LayOutBars();
  void ShowPartialBar();
  void LinkClicked(const QUrl& url);
  void FetchRemotePictures();
  void RemoteFinished(QNetworkReply* reply);
  QString Text(const char* id) const;

  const LanguageTable& texts_;
  NoticeBar remote_bar_;
  NoticeBar partial_bar_;
  AttachmentList* attachments_;
  // The shown message and its view, kept for its pictures and attachments.
  std::unique_ptr<CXmMimeMessage> message_;
  MessageView view_;
  HtmlSanitizeReport report_;
  bool remote_allowed_ = false;
  RemotePolicy remote_policy_ = RemotePolicy::kAsk;
  // Where the shown message is stored; null for a message file.
  MailFolder* folder_ = nullptr;
  uint32_t key_ = 0;
  // Remote pictures fetched for the shown message, by source.
  QNetworkAccessManager* network_ = nullptr;
  QHash<QString, QImage> remote_images_;
  int remote_pending_ = 0;
};

}  // namespace trv::gui
