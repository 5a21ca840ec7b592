// Brings the questions of the services' runs to the window: the
// credentials prompt, the certificate question (through an AskingTrust
// around the engine's RunTrust, services/certificate_question.h) and the
// size question. Each is asked on a worker thread, shown on the interface
// thread through RunQuestions (app/gui/run_questions.h) while the worker
// waits (Qt::BlockingQueuedConnection, no lock held), one question at a
// time: a second run's question waits until the first is answered.
//
// Threads: Attach, Detach and the signal on the interface thread; the
// questions on any thread. Lifetime: a QObject of the window's thread;
// Detach before it goes, and the runs must have ended before it is
// destroyed (run_commands.cpp stops them; while it waits, DeliverPending
// answers the questions already on their way with "no").
#pragma once

#include <QObject>
#include <QString>
#include <atomic>
#include <condition_variable>
#include <memory>

#include "app/gui/language.h"
#include "app/gui/run_questions.h"
#include "base/thread_annotations.h"
#include "services/certificate_question.h"
#include "services/credentials_prompt.h"
#include "services/size_question.h"

class QWidget;

namespace trv {
class MailService;
}

namespace trv::gui {

class RunPrompts final : public QObject,
                         public CredentialsPrompt,
                         public CertificateQuestion,
                         public SizeQuestion {
  Q_OBJECT

 public:
  // `window` is the questions' parent; both must outlive this object.
  RunPrompts(QWidget& window, const LanguageTable& texts, QObject* parent);

  // Where the questions go; the dialogs by default.
  void set_questions(RunQuestions& questions) { questions_ = &questions; }
  // Puts the questions on the service: its credentials prompt, its size
  // question and, when it decides with a RunTrust, the AskingTrust around
  // it. Idempotent.
  void Attach(MailService& service);
  // Takes them off again (the RunTrust decides alone), and answers "no"
  // to every question from now on.
  void Detach(MailService& service);
  void Close() { closed_.store(true); }
  // Runs the questions waiting for the interface thread (they answer "no"
  // once closed).
  void DeliverPending();

  bool AskCredentials(MailService& service, CredentialsFor which, Credentials& credentials) override;
  bool TrustRefused(const RefusedCertificate& refused) override;
  bool SendOversized(MailService& service, uint64_t size, uint32_t max_size) override;

 signals:
  // The person cancelled the credentials question for `server` (the host).
  void credentialsCancelled(trv::MailService* service, const QString& server);

 private:
  // Runs `ask` on the interface thread, one at a time; false when closed.
  bool Ask(const std::function<bool()>& ask) EXCLUDES(mu_);

  QWidget& window_;
  const LanguageTable& texts_;
  RunQuestions* questions_ = &RunQuestions::Dialogs();
  std::unique_ptr<AskingTrust> asking_;  // for the engine's one RunTrust
  std::atomic<bool> closed_{false};
  Mutex mu_;
  std::condition_variable_any turn_;
  bool asking_now_ GUARDED_BY(mu_) = false;
};

}  // namespace trv::gui
