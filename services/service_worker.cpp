// Placeholder until the worker threads are built.
#include "services/mail_service.h"

namespace trv {

Result MailService::Start(bool, bool) { return rc::kNotImplemented; }
void MailService::Stop(bool) {}
void MailService::WaitIdle() {}
void MailService::Shutdown() {}
void MailService::WorkerMain() {}
void MailService::RunOnce() {}

}  // namespace trv
