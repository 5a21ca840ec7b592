// The POP3 receiving run: log header, connect and login, LIST and UIDL, the
// job plan (services/pop3_jobs.h), downloads into the inbox, deletes, QUIT.
//
// Never losing mail: a downloaded message is held in memory alone (its
// lines arrive through the client's hooks), then written into an
// AppendBatch of the inbox's folder file together with its UIDL in its
// record. The batch commits (flushed to the disk: folder files sync every
// commit) every few messages, and always before the first DELE, so a run
// killed at any moment leaves each message either stored with its UIDL
// (the next run skips it) or still on the server.
#include <chrono>
#include <set>
#include <unordered_map>

#include "base/file_system.h"
#include "core/engine.h"
#include "core/message_import.h"
#include "net/line_log.h"
#include "net/pop3_client.h"
#include "services/download_batch.h"
#include "services/deleted_uids.h"
#include "services/pop3_jobs.h"
#include "services/pop3_service.h"
#include "services/run_log.h"
#include "services/run_trust.h"
#include "store/append_batch.h"
#include "store/storage.h"

namespace trv {
namespace {

std::string YesNo(bool b) { return b ? "Yes" : "No"; }

}  // namespace

// The state of one run; lives on the worker's stack for the run.
class Pop3Run final : public Pop3LineHandler {
 public:
  Pop3Run(Pop3Service& service, FolderFile& inbox)
      : service_(service),
        s_(service.settings()),
        inbox_(inbox),
        line_log_(service.log()),
        deleted_(service.engine().FileOps(), inbox.path()) {}

  Result Run(bool connect_only);

  // Pop3LineHandler.
  Result OnList(uint32_t number, uint64_t size) override {
    numbers_[number] = list_.size();
    list_.push_back({static_cast<int32_t>(number), static_cast<int32_t>(std::min<uint64_t>(size, INT32_MAX)), {}});
    return rc::kOk;
  }
  Result OnUidl(uint32_t number, std::string_view uid) override {
    // Two messages under one UID cannot be told apart here: the run ends
    // before it stores or deletes anything.
    if (!uids_.emplace(uid).second) return rc::kPop3Malformed;
    const auto it = numbers_.find(number);
    if (it != numbers_.end()) list_[it->second].uid = uid;
    return rc::kOk;
  }
  Result OnMessageLine(std::string_view line) override {
    if (in_body_) {
      ++body_lines_;
    } else if (line.empty()) {
      in_body_ = true;
    }
    text_.append(line).append("\r\n");
    return rc::kOk;
  }

 private:
  void Log(const std::string& line) { service_.log().Log(line); }
  void LogHeader();
  Result ConnectAndLogin();
  // The message's text into text_ by RETR, or TOP n lines.
  Result Fetch(int32_t number, bool whole, uint32_t lines);
  Result ReadHead(int32_t number, Pop3Head* head);
  Result Download(std::vector<Pop3DownloadJob>& jobs);
  Result Store(const Pop3DownloadJob& job, bool partial, AppendBatch& batch);
  Result Commit(AppendBatch& batch);
  Result DeleteOnServer(const std::vector<Pop3DownloadJob>& jobs, bool* record_changed);
  std::optional<Pop3LocalCopy> LocalCopy(std::string_view uid) const;
  // A copy the user moved out of the inbox: into "Deleted" it counts as
  // deleted here (its arrival date as the deletion's), anywhere else as a
  // local copy; either way it is not downloaded again.
  std::optional<MessageRecord> MovedCopy(std::string_view uid, bool* in_deleted) const;
  // The other folders of the inbox's storage, their indexes loaded; a folder
  // whose index cannot be read is left out (its messages may come again).
  void CollectOtherFolders();
  bool Interrupted() const { return service_.interrupted(); }
  // The end of the run: the error line (unless interrupted), QUIT when the
  // connection stands.
  Result Finish(Result r);

  Pop3Service& service_;
  const ServiceSettings s_;
  FolderFile& inbox_;
  LineLog line_log_;
  DeletedUids deleted_;
  std::vector<std::pair<FolderFile*, bool>> other_folders_;  // file, is the "Deleted" folder
  CPop3Client client_;

  std::vector<Pop3ServerMessage> list_;
  std::unordered_map<uint32_t, size_t> numbers_;
  std::set<std::string, std::less<>> uids_;

  std::string text_;  // the message being received
  bool in_body_ = false;
  size_t body_lines_ = 0;

  size_t batch_messages_ = 0;
  size_t batch_bytes_ = 0;
  std::chrono::steady_clock::time_point batch_start_{};
};

void Pop3Run::LogHeader() {
  const ProtocolSettings& p = s_.incoming;
  Log("Synchronizing " + p.host + " (POP3)");
  Log("Host: " + p.host + " Port: " + std::to_string(p.port) + " Timeout: " + std::to_string(p.timeout));
  Log(SocksLogLine(p));
  Log(SslLogLine(p));
  Log(SaslLogLine(p));
  Log("Delete OnServer: " + YesNo(s_.delete_on_server) + " AfterDays: " + std::to_string(s_.delete_after_days) +
      " AfterLocal: " + YesNo(s_.delete_after_local_deletion));
  Log("Load MaxSize: " + std::to_string(s_.load_max_size) + " LastDays: " + std::to_string(s_.load_last_days) +
      " BodySize: " + std::to_string(s_.load_body_size));
}

Result Pop3Run::ConnectAndLogin() {
  client_.SetLogMask(kPop3InitialLogMask);
  client_.AddLineListener(&line_log_);
  client_.SetLineHandler(this);
  client_.SetUseSasl(s_.incoming.use_sasl);
  return service_.ConnectIncoming(client_, "POP3",
                                  {[&] { return client_.StartTls(); },
                                   [&](const Credentials& c) {
                                     client_.SetCredentials(c.user_name, c.password);
                                     return client_.Login();
                                   },
                                   rc::kPop3Login});
}

Result Pop3Run::Fetch(int32_t number, bool whole, uint32_t lines) {
  text_.clear();
  in_body_ = false;
  body_lines_ = 0;
  const Result r = whole ? client_.Retrieve(number) : client_.Top(number, lines);
  if (r.failed()) return r;
  return Interrupted() ? rc::kAbort : rc::kOk;
}

Result Pop3Run::ReadHead(int32_t number, Pop3Head* head) {
  if (Result r = Fetch(number, false, 0); r.failed()) return r;
  head->uid = Pop3UidFromHead(text_);
  head->sent_date = RecordFromMessage(text_).sent_date;
  return rc::kOk;
}

std::optional<Pop3LocalCopy> Pop3Run::LocalCopy(std::string_view uid) const {
  uint32_t key = 0;
  if (!inbox_.FindByServerUid(Utf8ToWide(uid), &key)) {
    bool in_deleted = false;
    const std::optional<MessageRecord> moved = MovedCopy(uid, &in_deleted);
    if (!moved || in_deleted) return std::nullopt;
    // Reloading whole works in the inbox only: a copy elsewhere stays as it is.
    return Pop3LocalCopy{0, moved->received_date, (moved->flags & msgflag::kPartial) != 0, false};
  }
  const std::optional<MessageRecord> m = inbox_.FindMessage(key);
  if (!m) return std::nullopt;
  return Pop3LocalCopy{key, m->received_date, (m->flags & msgflag::kPartial) != 0,
                       (m->flags & msgflag::kFullDownloadRequested) != 0};
}

std::optional<MessageRecord> Pop3Run::MovedCopy(std::string_view uid, bool* in_deleted) const {
  const WString wide = Utf8ToWide(uid);
  for (const auto& [file, deleted_folder] : other_folders_) {
    uint32_t key = 0;
    if (!file->FindByServerUid(wide, &key)) continue;
    std::optional<MessageRecord> m = file->FindMessage(key);
    // An IMAP4 UID in the same field is no UIDL.
    if (!m || m->imap_uid != 0) continue;
    *in_deleted = deleted_folder;
    return m;
  }
  return std::nullopt;
}

void Pop3Run::CollectOtherFolders() {
  service_.storage().ForEachFolder([this](MailFolder& folder) {
    FolderFile* file = folder.file();
    if (file == nullptr || file == &inbox_ || folder.is_root()) return;
    if (!file->index_loaded() && file->LoadIndex().failed()) return;
    other_folders_.emplace_back(file, folder.kind() == kFolderDeleted);
  });
}

Result Pop3Run::Commit(AppendBatch& batch) {
  batch_messages_ = batch_bytes_ = 0;
  return batch.Commit();
}

Result Pop3Run::Store(const Pop3DownloadJob& job, bool partial, AppendBatch& batch) {
  MessageRecord record = RecordFromMessage(text_);
  record.server_uid = Utf8ToWide(job.uid);
  record.server_size = static_cast<uint32_t>(job.size);
  if (partial) record.flags |= msgflag::kPartial;
  if (job.local_key != 0) {
    // The rest of a partial message: the same local message, its state kept.
    if (Result r = Commit(batch); r.failed()) return r;
    const std::optional<MessageRecord> old = inbox_.FindMessage(job.local_key);
    if (!old) return rc::kInvalidArg;
    record.key = job.local_key;
    record.received_date = old->received_date;
    record.flags |= old->flags & (msgflag::kRead | msgflag::kFlagged | msgflag::kAnswered | msgflag::kForwarded);
    return inbox_.ReplaceMessage(record, text_);
  }
  if (batch_messages_ == 0) batch_start_ = std::chrono::steady_clock::now();
  Result r = batch.Begin();
  if (r.ok()) r = batch.Write(text_);
  if (r.ok()) r = batch.Finish(record, nullptr);
  if (r.failed()) return r;
  ++batch_messages_;
  batch_bytes_ += text_.size();
  if (DownloadBatchDue(batch_messages_, batch_bytes_, batch_start_)) return Commit(batch);
  return rc::kOk;
}

Result Pop3Run::Download(std::vector<Pop3DownloadJob>& jobs) {
  int64_t count = 0, total = 0, done = 0, index = 0;
  for (const Pop3DownloadJob& job : jobs) {
    if (job.download) ++count, total += job.fetch_size;
  }
  AppendBatch batch(inbox_);
  for (Pop3DownloadJob& job : jobs) {
    if (!job.download) continue;
    service_.Report(kEventDownloading, {++index, count, done, total});
    Result r = Fetch(job.number, job.whole, job.top_lines());
    // An empty answer stores nothing: the run ends, the server's copy stays.
    if (r.ok() && text_.empty()) r = rc::kFail;
    const bool partial = !job.whole && body_lines_ >= job.top_lines();
    if (partial) job.del = false;
    if (r.ok()) r = Store(job, partial, batch);
    if (r.failed()) {
      // What was stored before stays.
      Commit(batch).Ignore();  // the first failure is the one reported
      return r;
    }
    done += static_cast<int64_t>(text_.size());
  }
  return Commit(batch);
}

Result Pop3Run::DeleteOnServer(const std::vector<Pop3DownloadJob>& jobs, bool* record_changed) {
  int64_t count = 0, index = 0;
  for (const Pop3DownloadJob& job : jobs) count += job.del ? 1 : 0;
  for (const Pop3DownloadJob& job : jobs) {
    if (!job.del) continue;
    service_.Report(kEventDeleting, {++index, count});
    if (Result r = client_.Delete(job.number); r.failed()) return r;
    *record_changed |= deleted_.Remove(job.uid);
    if (Interrupted()) return rc::kAbort;
  }
  return rc::kOk;
}

Result Pop3Run::Finish(Result r) {
  if (r == rc::kAbort) {
    // The user stopped the run, or cancelled the credentials prompt.
    if (Interrupted()) Log("Synchronization interrupted by user");
  } else if (r.failed()) {
    LogRunError(service_.log(), r, service_.DisplayName(), s_.incoming.host, s_.incoming.port,
                client_.last_reply(), CertificateRefusalText(service_.certificate_decider(), r, s_.incoming.host,
                                                             s_.incoming.port));
  }
  if (client_.connected()) {
    service_.Report(kEventClosing);
    client_.Quit().Ignore();  // after a failure: only the failure counts
  }
  client_.Close().Ignore();  // always 0
  service_.Report(kEventClosed);
  return r;
}

Result Pop3Run::Run(bool connect_only) {
  if (Interrupted()) return rc::kAbort;
  LogHeader();
  Result r = ConnectAndLogin();
  if (r.failed() || connect_only) return Finish(r);

  if (r = inbox_.LoadIndex(); r.failed()) return Finish(r);
  if (r = deleted_.Load(); r.failed()) return Finish(r);
  service_.Report(kEventReadingList);
  if (r = client_.ListAll(); r.failed()) return Finish(r);
  if (Interrupted()) return Finish(rc::kAbort);
  const Result uidl = client_.UidlAll();
  if (Interrupted()) return Finish(rc::kAbort);
  // A refused UIDL means header mode; a broken listing (or duplicate ids)
  // ends the run.
  if (uidl.failed() && uidl != rc::kPop3UidlAll) return Finish(uidl);

  Pop3Rules rules{s_.load_max_size, s_.load_last_days, s_.load_body_size, s_.delete_on_server,
                  s_.delete_after_days, s_.delete_after_local_deletion,
                  uidl.failed() || s_.load_last_days != 2147483647};
  Pop3PlanSources sources;
  sources.local = [this](std::string_view uid) { return LocalCopy(uid); };
  CollectOtherFolders();
  sources.deleted = [this](std::string_view uid) -> std::optional<double> {
    if (const double* date = deleted_.Find(uid)) return *date;
    uint32_t key = 0;
    if (inbox_.FindByServerUid(Utf8ToWide(uid), &key)) return std::nullopt;
    bool in_deleted = false;
    const std::optional<MessageRecord> moved = MovedCopy(uid, &in_deleted);
    return moved && in_deleted ? std::optional<double>(moved->received_date) : std::nullopt;
  };
  sources.read_head = [this](int32_t number, Pop3Head* head) { return ReadHead(number, head); };
  sources.progress = [this](size_t i, size_t last) {
    service_.Report(kEventReadingList, {static_cast<int64_t>(i), static_cast<int64_t>(last)});
  };
  std::vector<Pop3DownloadJob> jobs;
  if (r = PlanPop3Jobs(list_, rules, DateNow(), sources, &jobs); r.failed()) return Finish(r);
  list_.clear();
  uids_.clear();

  if (r = Download(jobs); r.failed()) return Finish(r);
  bool record_changed = false;
  r = DeleteOnServer(jobs, &record_changed);
  if (r.failed()) return Finish(r);
  r = client_.Quit();
  // The server removed the messages only once QUIT succeeded; until then
  // their entries stay, and the next run deletes them again.
  if (r.ok() && record_changed) r = deleted_.Save();
  return Finish(r);
}

Result Pop3Service::Receive(bool connect_only) {
  MailFolder* folder = storage().SpecialFolder(kFolderInbox);
  if (folder == nullptr || folder->file() == nullptr) {
    LogRunError(log(), rc::kFileMissing, DisplayName(), settings().incoming.host, settings().incoming.port, "");
    return rc::kFileMissing;
  }
  Pop3Run run(*this, *folder->file());
  const Result r = run.Run(connect_only);
  SetCurrentClient(nullptr);
  SetStatus(kStatusClosed);
  return r;
}

}  // namespace trv
