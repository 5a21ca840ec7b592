// One mail account: the common settings and the SMTP settings of every
// service, the sending run, and the worker thread that runs sending and
// receiving. Pop3Service and Imap4Service add their receiving protocol.
//
// Settings live in the section "Service.{guid}" of the engine's settings
// file (lower-case GUID, braces included), keys in a fixed order
// (services/service_keys.cpp): one walk over them loads and saves. A value
// that is missing, of the wrong type or out of its range loads as the default. Passwords are kept only enciphered there
// (services/password_cipher.h).
//
// Threads. The interface thread loads, saves, edits and starts services;
// each service's runs execute on its own worker thread. A run works on a
// copy of the settings taken when it starts (settings()); SetSettings and
// the credentials a prompt brings back go through the settings lock.
// Start and Stop may be called from any thread; the run flags are atomics.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "base/guid.h"
#include "base/listener_list.h"
#include "base/result.h"
#include "base/thread_annotations.h"
#include "base/wide_string.h"
#include "core/engine_service.h"
#include "services/credentials_prompt.h"
#include "services/protocol_settings.h"
#include "services/size_question.h"
#include "services/sync_events.h"

namespace trv {

class CMailSocket;
class CertificateDecider;
class LogSink;
class MailEngine;
class Message;
class Settings;
class Storage;

// SMTPAuthentication values; SmtpAuthModeName gives the log names
// "saNotRequired", "saSMTPAfterIncoming", "saSameAsIncoming", "saCredentials".
enum class SmtpAuthMode : int32_t {
  kNotRequired = 0,
  kAfterIncoming = 1,   // no AUTH: a receiving login first opens the server
  kSameAsIncoming = 2,  // AUTH with the incoming user name and password
  kCredentials = 3,     // AUTH with SMTPUserName and the SMTP password
};
const char* SmtpAuthModeName(SmtpAuthMode mode);

// The common keys of a service, in the order the settings file keeps them.
struct ServiceSettings {
  bool synchronize = true;
  bool sync_at_startup = true;
  int32_t sync_minutes = 0;
  WString signature;
  bool add_signature = false;
  bool dont_add_signature_to_replies = true;
  Guid guid{};
  Guid storage_guid{};
  WString service_name;
  WString user_real_name;
  WString organization;
  WString email_address;
  WString reply_address;
  int32_t load_max_size = 2147483647;
  int32_t load_last_days = 2147483647;
  int32_t load_body_size = 2048;
  bool delete_on_server = false;
  int32_t delete_after_days = 2147483647;
  bool delete_after_local_deletion = false;
  std::string reading_charset;
  std::string sending_charset;
  bool eight_bit_in_headers = false;
  std::string body_encoding;
  WString connection;
  SmtpAuthMode smtp_authentication = SmtpAuthMode::kNotRequired;
  ProtocolSettings smtp{25};
  // The receiving protocol's block (POP3 or IMAP4 keys).
  ProtocolSettings incoming{110};  // 110 also for IMAP4 (kept as it is)
  WString imap4_root_path;    // IMAP4 only
};

// Status word: low three bits hold the session state.
inline constexpr uint32_t kStatusClosed = 0;
inline constexpr uint32_t kStatusReady = 5;  // logged in and ready

class MailService : public EngineService {
 public:
  MailService(MailEngine& engine, Storage& storage);
  ~MailService() override;
  MailService(const MailService&) = delete;
  MailService& operator=(const MailService&) = delete;

  // "POP3" or "IMAP4", the value of the Class key.
  virtual const char* ServiceClass() const = 0;

  // ---- Settings (services/mail_service.cpp) ----
  // "Service.{0a1b2c3d-0000-4e5f-8a9b-0c1d2e3f4a5b}".
  static std::string SectionName(const Guid& guid);
  // EngineService: reads every key with its default; a missing section is
  // 0x80004005 and changes nothing.
  Result Load(Settings& settings, const Guid& id) override;
  Result Initialize() override;
  // Writes every key in order, deletes the plain password keys, and asks
  // the engine to flush the settings file.
  Result Save();
  // Deletes the section, leaves the storage's list and tells the engine,
  // which shuts the service down and DELETES it: nothing may use the object
  // after Delete returns (unless it was not on the engine's list).
  // Interface thread, never the service's own worker.
  Result Delete();

  ServiceSettings settings() const EXCLUDES(settings_mu_);
  void SetSettings(const ServiceSettings& settings) EXCLUDES(settings_mu_);
  // Display name for messages and the log: the service name, else the e-mail address.
  std::string DisplayName() const EXCLUDES(settings_mu_);

  MailEngine& engine() { return engine_; }
  Storage& storage() { return storage_; }
  LogSink& log();

  // ---- Runs ----
  // The sending run (services/send_run.cpp): outbox messages of this
  // service through one SMTP session, each accepted one marked sent and
  // moved to "Sent". Runs only when sending was requested and no error is
  // pending.
  // Virtual so that tests can stand in for the run.
  virtual Result Send();
  // Whether the outbox holds a message whose sending service is this one.
  virtual bool HasOutgoingMail();
  // The receiving run; with connect_only it logs in, writes the log header
  // and ends (for "saSMTPAfterIncoming").
  virtual Result Receive(bool connect_only) = 0;

  // ---- Worker (services/service_worker.cpp) ----
  // Starts a run on the worker thread (made at the first Start); event 1000
  // and 0 when the storage is not open, there is nothing to do (send counts
  // only with outgoing mail) or a run is under way: a second Start never
  // queues work. The system error when the thread cannot be made. Any thread.
  //
  // A run: pending_error() cleared; with "saSMTPAfterIncoming" the
  // receiving run first (connect-only when receiving was not asked), then
  // sending; otherwise sending, then receiving. Then event 1000 (unless
  // terminated) and "Synchronization done" (or "... terminated by user").
  // An exception escaping a run is logged as "*** Fatal Error: " + what. A
  // failed run that set no pending error leaves its result there.
  Result Start(bool send, bool receive) EXCLUDES(worker_mu_);
  // Sets the interrupted flag; hard also aborts the connection under the
  // running command. Any thread.
  void Stop(bool hard) EXCLUDES(client_mu_);
  // Blocks until no run is under way (returns at once when none is). Any
  // thread but the worker.
  void WaitIdle() EXCLUDES(worker_mu_);
  bool running() const { return status_.load() != kStatusClosed || busy_.load(); }
  Result pending_error() const { return Result(pending_error_.load()); }
  bool interrupted() const { return interrupted_.load(); }
  // EngineService: terminates the worker (a hard Stop) and joins it.
  // Idempotent; also called by ~MailService as a last resort.
  void Shutdown() override EXCLUDES(worker_mu_, client_mu_);
  void Idle() override {}

  ListenerList<SyncObserver>& observers() { return observers_; }
  void SetCredentialsPrompt(CredentialsPrompt* prompt) { prompt_ = prompt; }
  CredentialsPrompt* credentials_prompt() const { return prompt_; }
  void SetCertificateDecider(CertificateDecider* decider) { decider_ = decider; }
  CertificateDecider* certificate_decider() const { return decider_; }
  // Asked before a message above the server's SIZE limit; none: not sent.
  void SetSizeQuestion(SizeQuestion* question) { size_question_ = question; }
  SizeQuestion* size_question() const { return size_question_; }

  // StorageService.
  Result OnStorageOpened(Storage& storage) override;
  Result OnStorageNew(Storage& storage) override;

 protected:
  // For the runs.
  void Report(int code, std::array<int64_t, 4> values = {}, std::string text = {});
  // The socket a hard Stop aborts; null when none is connected.
  void SetCurrentClient(CMailSocket* socket) EXCLUDES(client_mu_);
  void SetPendingError(Result r) { pending_error_.store(r.code()); }
  void SetStatus(uint32_t status) { status_.store(status); }
  bool terminated() const { return terminated_.load(); }
  // The receiving runs' way in (services/incoming_login.cpp): asks for
  // credentials when none are stored, connects (events 1 and 2, "Local
  // address: "), STARTTLS when the settings say so (event 16), logs in
  // (event 5), asking once more when the login returns `refused`, keeps the
  // credentials a prompt brought (saved when the user said so; the caller
  // must not hold a lock that Save takes), then status ready and event 6.
  // A TLS failure adds "<protocol> SSL status: ". rc::kAbort when the prompt
  // was cancelled or the user interrupted. The client is the current one
  // from the connection on.
  struct IncomingLogin {
    std::function<Result()> start_tls;
    std::function<Result(const Credentials&)> login;
    Result refused;
  };
  Result ConnectIncoming(CMailSocket& client, std::string_view protocol, const IncomingLogin& steps);
  // Reads the protocol block of the incoming protocol (Pop3Service,
  // Imap4Service) from / into the section.
  virtual void LoadIncoming(Settings& settings, const std::string& section, ServiceSettings& s) = 0;
  virtual Result SaveIncoming(Settings& settings, const std::string& section, const ServiceSettings& s) = 0;
  // Delete removes what else the service keeps in the settings file (not
  // flushed); kNotFound counts as done.
  virtual Result DeleteSections(Settings& /*settings*/, const Guid& /*id*/) { return rc::kOk; }

 private:
  friend class SendRun;  // the sending session reports events and holds the current client

  void WorkerMain() EXCLUDES(worker_mu_);
  void RunOnce() EXCLUDES(worker_mu_);

  MailEngine& engine_;
  Storage& storage_;

  mutable Mutex settings_mu_;
  ServiceSettings settings_ GUARDED_BY(settings_mu_);

  ListenerList<SyncObserver> observers_;
  CredentialsPrompt* prompt_ = nullptr;
  CertificateDecider* decider_ = nullptr;
  SizeQuestion* size_question_ = nullptr;

  Mutex client_mu_;
  CMailSocket* current_client_ GUARDED_BY(client_mu_) = nullptr;

  // Run state: single writers, read without a lock.
  std::atomic<bool> send_requested_{false};
  std::atomic<bool> receive_requested_{false};
  std::atomic<bool> interrupted_{false};
  std::atomic<bool> terminated_{false};
  std::atomic<bool> busy_{false};
  std::atomic<uint32_t> status_{kStatusClosed};
  std::atomic<uint32_t> pending_error_{0};

  // The worker sleeps on wake_ between runs; WaitIdle sleeps on idle_.
  // busy_ goes true in Start and false after the run, both under worker_mu_.
  Mutex worker_mu_;
  std::condition_variable_any wake_;
  std::condition_variable_any idle_;
  bool wake_pending_ GUARDED_BY(worker_mu_) = false;
  std::thread worker_ GUARDED_BY(worker_mu_);
};

}  // namespace trv
