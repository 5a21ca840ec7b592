// Asked by a run when the server refused the user name and password, or when
// none is stored: the user interface shows the question (the command line on
// the terminal) and answers with new credentials or a cancel.
#pragma once

#include <string>

namespace trv {

class MailService;

enum class CredentialsFor { kIncoming, kSmtp };

struct Credentials {
  std::string user_name;
  std::string password;
  bool save = false;  // keep the password in the settings file
};

// One per program, set on each service (MailService::SetCredentialsPrompt).
// Called on the service's worker thread; several services may ask at once,
// so an implementation serialises its questions.
class CredentialsPrompt {
 public:
  virtual ~CredentialsPrompt() = default;
  // `credentials` holds the current user name and password on entry and the
  // answer on return. False: the user cancelled (the run ends with
  // 0x80004004, which is not logged as an error).
  virtual bool AskCredentials(MailService& service, CredentialsFor which, Credentials& credentials) = 0;
};

}  // namespace trv
