// The IMAP4 receiving run: log header, connect and login, the folder-list
// refresh, then each folder record in tree order: SELECT, the message list,
// the job plan, downloads, the changes on the server, uploads and local
// deletion, and the folder's UIDNEXT and UIDVALIDITY stored.
#include "services/imap4_run.h"

#include <algorithm>

#include "core/engine.h"
#include "services/run_log.h"
#include "services/run_trust.h"
#include "store/mail_folder.h"
#include "store/storage.h"

namespace trv {
namespace {

}  // namespace

Imap4Run::Imap4Run(Imap4Service& service)
    : service_(service), s_(service.settings()), line_log_(service.log()) {}

Imap4Run::~Imap4Run() { client_.SetLiteralHook(nullptr); }

void Imap4Run::Log(const std::string& line) { service_.log().Log(line); }

bool Imap4Run::Stopped() const { return pending_.failed() || service_.interrupted(); }

void Imap4Run::Fail(Result r) { LogError(r, r == rc::kImap4No); }

void Imap4Run::LogError(Result r, bool warning) {
  // A hard stop aborts the connection under a command: no error of its own.
  if (r.ok() || r == rc::kAbort || service_.interrupted()) return;
  const std::string line = RunErrorLine(r, service_.DisplayName(), s_.incoming.host, s_.incoming.port,
                                        client_.lastReply(),
                                        CertificateRefusalText(service_.certificate_decider(), r, s_.incoming.host,
                                                               s_.incoming.port));
  if (warning) {
    Log("Warning: " + line);
    return;
  }
  Log(line);
  if (pending_.ok()) pending_ = r;
}

void Imap4Run::LogHeader() {
  const ProtocolSettings& p = s_.incoming;
  Log("Synchronizing " + p.host + " (IMAP4)");
  Log("Account: " + service_.DisplayName());
  Log("Host: " + p.host + " Port: " + std::to_string(p.port) + " Timeout: " + std::to_string(p.timeout));
  Log(SocksLogLine(p));
  Log(SslLogLine(p));
  Log(SaslLogLine(p));
  Log("Root path: " + WideToUtf8(s_.imap4_root_path));
  Log("Load MaxSize: " + std::to_string(s_.load_max_size) + " LastDays: " + std::to_string(s_.load_last_days) +
      " BodySize: " + std::to_string(s_.load_body_size));
}

Result Imap4Run::ConnectAndLogin() {
  client_.AddLineListener(&line_log_);
  return service_.ConnectIncoming(client_, "IMAP4",
                                  {[&] { return client_.StartTls(); },
                                   [&](const Credentials& c) {
                                     // A PREAUTH greeting needs no login.
                                     return client_.authenticated() ? rc::kOk
                                                                    : client_.Login(c.user_name, c.password);
                                   },
                                   rc::kImap4No});
}

Result Imap4Run::RefreshFolders() {
  service_.Report(kEventListingFolders);
  std::vector<Imap4ListEntry> entries;
  const WString root = s_.imap4_root_path;
  for (const WString& pattern : {root + W("*"), WString(W("INBOX*"))}) {
    if (Result r = client_.List(W(""), pattern); r.failed()) return r;
    entries.insert(entries.end(), client_.result().list.begin(), client_.result().list.end());
    if (service_.interrupted()) return rc::kAbort;
  }
  folders_->Merge(entries, root, nullptr);
  // New local folders tell the engine themselves (the storage reports each
  // tree change to its host).
  if (Result r = folders_->Bind(service_.storage()); r.failed()) return r;
  return SaveFolders();
}

Result Imap4Run::SaveFolders() {
  if (Result r = folders_->Save(service_.engine().settings(), s_.guid); r.failed()) return r;
  return service_.engine().FlushSettings();
}

Result Imap4Run::Select(Imap4FolderSync& record) {
  exists_ = uid_next_ = uid_validity_ = 0;
  if (Result r = client_.Capability(false); r.failed()) return r;
  if (Result r = client_.Select(record.ServerPath()); r.failed()) return r;
  const Imap4MailboxData& m = client_.mailbox();
  exists_ = m.exists.value_or(0);
  uid_validity_ = m.uid_validity.value_or(0);
  // Without UIDNEXT the next UID is at most the highest listed plus one;
  // FetchList raises it from the list.
  uid_next_ = m.uid_next.value_or(0);
  return rc::kOk;
}

Result Imap4Run::FetchList(uint32_t first_uid) {
  list_.clear();
  list_fetched_ = false;
  if (exists_ == 0) {
    list_fetched_ = first_uid <= 1;
    return rc::kOk;
  }
  const Result r = client_.Fetch(first_uid, CImap4Client::kAll, "UID FLAGS RFC822.SIZE INTERNALDATE", true);
  if (r == rc::kImap4No) {
    // No such message: an empty list, but not a whole one, so nothing is
    // deleted here for it.
    Fail(r);
    return rc::kOk;
  }
  if (r.failed()) return r;
  list_.reserve(client_.result().fetch.size());
  for (const Imap4FetchData& f : client_.result().fetch) {
    // "first:*" also names the last message when every UID is below first.
    if (!f.uid || !f.flags || !f.size || f.internal_date.empty() || *f.uid < first_uid) continue;
    uid_next_ = std::max(uid_next_, *f.uid + 1);
    if (*f.flags & kImap4FlagDeleted) continue;
    list_.push_back({*f.uid, *f.flags, static_cast<int32_t>(std::min<uint64_t>(*f.size, INT32_MAX)),
                     f.internal_date_value});
  }
  list_fetched_ = first_uid <= 1;
  return rc::kOk;
}

void Imap4Run::SynchronizeFolder(Imap4FolderSync& record) {
  if (!record.is_root() && record.local_folder != nullptr && record.local_folder->file() != nullptr &&
      record.sync != 0 && !Stopped()) {
    SynchronizeOne(record);
  }
  for (const auto& child : record.children) SynchronizeFolder(*child);
}

void Imap4Run::SynchronizeOne(Imap4FolderSync& record) {
  const std::string name = WideToUtf8(record.name);
  Log("Synchronizing folder " + name);
  Log("Options: " + SyncOptionsText(record.sync));
  record_ = &record;
  expunge_count_ = 0;
  list_.clear();
  list_fetched_ = false;
  Result r = Select(record);
  if (r.failed() || service_.interrupted()) {
    Fail(r);
    record_ = nullptr;
    return;
  }
  const bool download = record.sync & imap4sync::kDownload;
  const bool new_only = download && (record.sync & imap4sync::kDownloadNew);
  const bool upload = record.sync & imap4sync::kUpload;
  const bool delete_local = record.sync & imap4sync::kDeleteOnLocal;
  const bool delete_server = record.sync & imap4sync::kDeleteOnServer;
  if (record.uid_valid != 0 && uid_validity_ != 0 && uid_validity_ != record.uid_valid) {
    r = RematchAfterUidValidityChange(record);
  } else if (uid_next_ != 0 && uid_next_ < record.uid_next) {
    // A broken server: new messages would come below the stored value and
    // never be listed. The server's value stands from now on.
    Log("Warning: folder " + name + ": UIDNEXT went back from " + std::to_string(record.uid_next) + " to " +
        std::to_string(uid_next_));
    record.uid_next = uid_next_;
  }
  // Uploads of an earlier run whose answer was lost take their UIDs first,
  // so that they are neither downloaded nor uploaded again.
  if (r.ok() && upload && !Stopped()) r = AdoptEarlierUploads(record);
  if (r.ok() && (download || delete_local || delete_server)) {
    service_.Report(kEventReadingFolder, {}, name);
    const uint32_t first = new_only && !delete_local && !delete_server ? std::max<uint32_t>(record.uid_next, 1) : 1;
    r = FetchList(first);
    std::vector<Imap4DownloadJob> jobs;
    int64_t total = 0;
    if (r.ok() && !Stopped()) {
      Imap4PlanInput input;
      input.record = &record;
      input.tree = folders_;
      input.download = download;
      input.new_only = new_only;
      input.stored_uid_next = record.uid_next;
      input.limits = {s_.load_max_size, s_.load_last_days, s_.load_body_size};
      input.now = DateNow();
      input.uid_validity = uid_validity_;
      seen_updates_.clear();
      r = PlanImap4Jobs(list_, input, local_, &jobs, &seen_updates_, &total);
    }
    uint32_t downloaded = 0;
    if (r.ok() && !Stopped()) r = Download(record, jobs, &downloaded);
    if (r.ok() && !Stopped()) r = ApplyServerChanges(record, jobs);
    service_.Report(kEventFolderDownloaded, {downloaded}, name);
  }
  if (r.ok() && !Stopped() && (upload || delete_local)) {
    r = UploadAndDeleteLocal(record, upload, delete_local);  // reports event 19
  }
  if (r.failed() || Stopped()) {
    Fail(r);
    // The mailbox is left without expunging what this run marked deleted.
    if (client_.connected()) LeaveMailbox();
  }
  // Stored even after an error: they describe the mailbox as it was seen.
  // Not after the user's interruption (every step stops there), so that a
  // folder that downloads new messages only still gets the ones not yet
  // fetched.
  if (!service_.interrupted() || pending_.failed()) {
    if (uid_validity_ != 0) record.uid_valid = uid_validity_;
    if (uid_next_ != 0) record.uid_next = uid_next_;
  }
  list_.clear();
  record_ = nullptr;
}

void Imap4Run::LeaveMailbox() {
  // UNSELECT leaves the messages marked deleted as they are; CLOSE would
  // expunge them.
  if (!client_.HasCapability("UNSELECT")) {
    client_.CloseMailbox().Ignore();  // the folder's error is the one reported
    return;
  }
  std::string tag;
  if (client_.Begin("UNSELECT", &tag).ok()) client_.Finish(tag).Ignore();  // as above
}

Result Imap4Run::Finish(Result r) {
  if (r.failed() && pending_.ok()) LogError(r, false);
  if (service_.interrupted()) {
    Log("Synchronization interrupted by user");
    if (pending_.ok()) r = rc::kAbort;
  }
  if (client_.connected()) {
    service_.Report(kEventClosing);
    client_.Logout().Ignore();  // after a failure: only the failure counts
  }
  client_.Close().Ignore();  // always 0
  service_.Report(kEventClosed);
  return pending_.failed() ? pending_ : r;
}

Result Imap4Run::Run(bool connect_only) {
  if (service_.interrupted()) return rc::kAbort;
  LogHeader();
  Result r = ConnectAndLogin();
  if (r.failed() || connect_only) return Finish(r);

  MutexLock lock(service_.folders_mutex());
  folders_ = &service_.folders();
  r = RefreshFolders();
  if (r.ok() && !service_.interrupted()) {
    std::vector<MailFolder*> unreadable;
    r = local_.Build(service_.storage(), &unreadable);
    for (MailFolder* f : unreadable) Log("Warning: folder " + WideToUtf8(f->PathText()) + " cannot be read");
  }
  if (r.ok() && !service_.interrupted()) SynchronizeFolder(folders_->root());
  LogError(r, false);
  r = rc::kOk;  // now pending_, if anything
  // The records keep what the run learned (UIDNEXT, UIDVALIDITY), after an
  // error too.
  if (Result saved = SaveFolders(); saved.failed()) LogError(saved, false);
  if (Result saved = local_.SaveDeleted(); saved.failed()) LogError(saved, false);
  folders_ = nullptr;
  return Finish(r);
}

Result Imap4Service::Receive(bool connect_only) {
  Imap4Run run(*this);
  const Result r = run.Run(connect_only);
  SetCurrentClient(nullptr);
  SetStatus(kStatusClosed);
  return r;
}

}  // namespace trv
