#include "services/mail_service.h"

#include "core/engine.h"
#include "net/mail_socket.h"
#include "services/imap4_service.h"
#include "services/pop3_service.h"

namespace trv {

MailService::MailService(MailEngine& engine, Storage& storage) : engine_(engine), storage_(storage) {}

// Owners call Shutdown first (the engine does): a run still under way would
// call into the derived object, which is already gone here.
MailService::~MailService() { Shutdown(); }

const char* SmtpAuthModeName(SmtpAuthMode mode) {
  switch (mode) {
    case SmtpAuthMode::kNotRequired: return "saNotRequired";
    case SmtpAuthMode::kAfterIncoming: return "saSMTPAfterIncoming";
    case SmtpAuthMode::kSameAsIncoming: return "saSameAsIncoming";
    case SmtpAuthMode::kCredentials: return "saCredentials";
  }
  return "saNotRequired";
}

Result MailService::Initialize() { return rc::kOk; }

Result MailService::Delete() {
  MailEngine& engine = engine_;
  if (const Result r = engine.settings().DeleteSection(SectionName(settings().guid));
      r.failed() && r != Settings::kNotFound) {
    return r;
  }
  if (const Result r = DeleteSections(engine.settings(), settings().guid); r.failed() && r != Settings::kNotFound) {
    return r;
  }
  Result r = engine.FlushSettings();
  storage_.RemoveService(this);
  // Last: the engine deletes this object.
  if (const Result removed = engine.RemoveService(this); r.ok() && removed != rc::kInvalidArg) r = removed;
  return r;
}

ServiceSettings MailService::settings() const {
  MutexLock lock(settings_mu_);
  return settings_;
}

void MailService::SetSettings(const ServiceSettings& s) {
  MutexLock lock(settings_mu_);
  settings_ = s;
}

std::string MailService::DisplayName() const {
  MutexLock lock(settings_mu_);
  return WideToUtf8(settings_.service_name.empty() ? settings_.email_address : settings_.service_name);
}

LogSink& MailService::log() { return engine_.activity_log(); }

Result MailService::OnStorageOpened(Storage&) { return rc::kOk; }

// A storage made anew because the service's own was missing: the Storage
// key must name it from now on.
Result MailService::OnStorageNew(Storage&) { return Save(); }

void MailService::Report(int code, std::array<int64_t, 4> values, std::string text) {
  const SyncEvent event{code, values, std::move(text)};
  observers_.ForEach([&](SyncObserver& o) { o.OnSyncEvent(*this, event); });
}

void MailService::SetCurrentClient(CMailSocket* socket) {
  MutexLock lock(client_mu_);
  current_client_ = socket;
}

}  // namespace trv
