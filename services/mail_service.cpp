// Placeholder until the settings of a service are built: every entry point
// fails with 0x80004001.
#include "services/mail_service.h"

#include "core/engine.h"
#include "services/imap4_service.h"
#include "services/pop3_service.h"

namespace trv {

MailService::MailService(MailEngine& engine, Storage& storage) : engine_(engine), storage_(storage) {}
MailService::~MailService() = default;
const char* SmtpAuthModeName(SmtpAuthMode) { return ""; }
std::string MailService::SectionName(const Guid&) { return {}; }
Result MailService::Load(Settings&, const Guid&) { return rc::kNotImplemented; }
Result MailService::Initialize() { return rc::kNotImplemented; }
Result MailService::Save() { return rc::kNotImplemented; }
Result MailService::Delete() { return rc::kNotImplemented; }
ServiceSettings MailService::settings() const {
  MutexLock lock(settings_mu_);
  return settings_;
}
void MailService::SetSettings(const ServiceSettings& s) {
  MutexLock lock(settings_mu_);
  settings_ = s;
}
std::string MailService::DisplayName() const { return {}; }
LogSink& MailService::log() { return engine_.activity_log(); }
Result MailService::OnStorageOpened(Storage&) { return rc::kOk; }
Result MailService::OnStorageNew(Storage&) { return rc::kOk; }
void MailService::Report(int, std::array<int64_t, 4>, std::string) {}
void MailService::SetCurrentClient(CMailSocket* socket) {
  MutexLock lock(client_mu_);
  current_client_ = socket;
}
void Pop3Service::LoadIncoming(Settings&, const std::string&, ServiceSettings&) {}
Result Pop3Service::SaveIncoming(Settings&, const std::string&, const ServiceSettings&) { return rc::kNotImplemented; }
void Imap4Service::LoadIncoming(Settings&, const std::string&, ServiceSettings&) {}
Result Imap4Service::SaveIncoming(Settings&, const std::string&, const ServiceSettings&) { return rc::kNotImplemented; }
Result Imap4Service::Receive(bool) { return rc::kNotImplemented; }

}  // namespace trv
