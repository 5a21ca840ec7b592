#include "app/gui/run_prompts.h"

#include <QCoreApplication>
#include <QThread>

#include "services/mail_service.h"
#include "services/run_trust.h"

namespace trv::gui {

RunPrompts::RunPrompts(QWidget& window, const LanguageTable& texts, QObject* parent)
    : QObject(parent), window_(window), texts_(texts) {}

void RunPrompts::Attach(MailService& service) {
  service.SetCredentialsPrompt(this);
  service.SetSizeQuestion(this);
  if (auto* trust = dynamic_cast<RunTrust*>(service.certificate_decider())) {
    if (asking_ == nullptr || &asking_->trust() != trust) asking_ = std::make_unique<AskingTrust>(*trust, *this);
    service.SetCertificateDecider(asking_.get());
  }
}

void RunPrompts::Detach(MailService& service) {
  if (service.credentials_prompt() == this) service.SetCredentialsPrompt(nullptr);
  if (service.size_question() == this) service.SetSizeQuestion(nullptr);
  if (asking_ != nullptr && service.certificate_decider() == asking_.get()) {
    service.SetCertificateDecider(&asking_->trust());
  }
}

void RunPrompts::DeliverPending() { QCoreApplication::sendPostedEvents(this, QEvent::MetaCall); }

bool RunPrompts::Ask(const std::function<bool()>& ask) {
  if (closed_.load()) return false;
  if (QThread::currentThread() == thread()) return ask();
  {
    MutexLock lock(mu_);
    while (asking_now_) turn_.wait(mu_);
    asking_now_ = true;
  }
  bool answer = false;
  // Not under mu_: the interface thread may take its time, and the next
  // question only waits for its turn.
  QMetaObject::invokeMethod(
      this, [&] { answer = !closed_.load() && ask(); }, Qt::BlockingQueuedConnection);
  {
    MutexLock lock(mu_);
    asking_now_ = false;
  }
  turn_.notify_one();
  return answer;
}

bool RunPrompts::AskCredentials(MailService& service, CredentialsFor which, Credentials& credentials) {
  const ServiceSettings s = service.settings();
  const bool smtp = which == CredentialsFor::kSmtp;
  const std::string& host = smtp ? s.smtp.host : s.incoming.host;
  const QString account = QString::fromStdString(service.DisplayName());
  const QString server = QString::fromStdString(host) + " (" + (smtp ? "SMTP" : service.ServiceClass()) + ")";
  Credentials answer = credentials;
  const bool given = Ask([&] {
    if (questions_->AskCredentials(&window_, texts_, account, server, &answer)) return true;
    emit credentialsCancelled(&service, QString::fromStdString(host));
    return false;
  });
  if (given) credentials = answer;
  return given;
}

bool RunPrompts::TrustRefused(const RefusedCertificate& refused) {
  return Ask([&] { return questions_->TrustCertificate(&window_, texts_, refused); });
}

bool RunPrompts::SendOversized(MailService& service, uint64_t size, uint32_t max_size) {
  const QString account = QString::fromStdString(service.DisplayName());
  return Ask([&] { return questions_->SendOversized(&window_, texts_, account, size, max_size); });
}

}  // namespace trv::gui
