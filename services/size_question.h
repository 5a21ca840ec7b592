// Asked by a sending run before it sends a message larger than the SMTP
// server's SIZE limit: the user interface shows the question and answers.
// A service without one does not send such a message (the server would
// most likely refuse it after the whole upload); the run logs the refusal
// and the message stays in the outbox.
#pragma once

#include <cstdint>

namespace trv {

class MailService;

// One per program, set on each service (MailService::SetSizeQuestion).
// Called on the service's worker thread; several services may ask at once,
// so an implementation serialises its questions.
class SizeQuestion {
 public:
  virtual ~SizeQuestion() = default;
  // `size` bytes of message against the server's `max_size`; true: send it.
  virtual bool SendOversized(MailService& service, uint64_t size, uint32_t max_size) = 0;
};

}  // namespace trv
