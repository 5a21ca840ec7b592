// The state of one IMAP4 receiving run; lives on the worker's stack for the
// run. Its work is spread over four files:
//   imap4_run.cpp       the run: log header, connect and login, folder-list
//                       refresh, the walk over the tree, each folder's
//                       SELECT and message list, the end of a folder and
//                       of the run;
//   imap4_download.cpp  downloads (several fetches in flight, bodies
//                       streamed into the folder file, batched commits),
//                       completing partial messages;
//   imap4_changes.cpp   seen state, copies, deletions on the server and
//                       their expunge;
//   imap4_upload.cpp    uploads by APPEND, local deletion of messages gone
//                       from the server, the Message-ID lookup, and the
//                       re-matching of local copies after a UIDVALIDITY
//                       change.
//
// Never losing mail: a message is committed (flushed) to the folder file
// before anything is marked deleted on the server, and its UID is stored
// in the same commit, so a run killed at any moment either finds it here
// next time or fetches it again. An upload whose answer was lost is found
// by its Message-ID before the next upload of the same message.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "base/result.h"
#include "net/imap4_client.h"
#include "net/line_log.h"
#include "services/imap4_folder_sync.h"
#include "services/imap4_jobs.h"
#include "services/imap4_service.h"
#include "store/append_batch.h"

namespace trv {

class Imap4Run final : public Imap4LiteralHook {
 public:
  explicit Imap4Run(Imap4Service& service);
  ~Imap4Run() override;

  // imap4_run.cpp. Holds the service's folders mutex for the run.
  Result Run(bool connect_only);

  // Imap4LiteralHook (imap4_download.cpp): message bodies go straight into
  // the folder file's append batch.
  bool TakeLiteral(const Imap4LiteralContext& context) override;
  Result OnLiteralBytes(std::string_view piece) override;

 private:
  // ---- imap4_run.cpp ----
  void Log(const std::string& line);
  void LogHeader();
  // The pending error or the user's interruption: every step checks it.
  bool Stopped() const;
  // Logs the error line of the run (account, host, port, last reply, code)
  // and makes r the pending error; a warning line for 0x80C40001 (the run
  // goes on). Nothing after the user's interruption.
  void Fail(Result r);
  // The same line for any code; a warning leaves no pending error.
  void LogError(Result r, bool warning);
  Result ConnectAndLogin();
  Result RefreshFolders();
  // The records into the settings file, flushed.
  Result SaveFolders();
  // The record, then its children in order.
  void SynchronizeFolder(Imap4FolderSync& record);
  // One bound, synchronized record: steps from SELECT to the stored
  // UIDNEXT and UIDVALIDITY.
  void SynchronizeOne(Imap4FolderSync& record);
  // Ends the selection after an error without expunging.
  void LeaveMailbox();
  // SELECT: exists_, uid_next_, uid_validity_ from its answer.
  Result Select(Imap4FolderSync& record);
  // UID FETCH first:* "UID FLAGS RFC822.SIZE INTERNALDATE" into list_
  // (nothing sent when EXISTS is 0; 0x80C40001 is an empty list).
  Result FetchList(uint32_t first_uid);
  Result Finish(Result r);

  // ---- imap4_download.cpp ----
  // Downloads the jobs marked `download` (event 11 each); `downloaded`
  // gets the count of messages stored.
  Result Download(Imap4FolderSync& record, std::vector<Imap4DownloadJob>& jobs, uint32_t* downloaded);

  // ---- imap4_changes.cpp ----
  // upload_seen, copy_to_folder and remove_from_server jobs, then the one
  // EXPUNGE when due. Entries of the deletion record that are done are
  // forgotten.
  Result ApplyServerChanges(Imap4FolderSync& record, std::vector<Imap4DownloadJob>& jobs);
  // The plan's seen_updates_ written to their local records (flags only).
  Result WriteSeenUpdates();
  Result UploadSeen(Imap4DownloadJob& job);
  // UID COPY to job.copy_target's mailbox; the local message takes the new
  // key (COPYUID, else the Message-ID lookup, which selects `record` again).
  Result CopyToFolder(Imap4FolderSync& record, Imap4DownloadJob& job);
  // Messages already in the copy targets' mailboxes above their stored
  // uidNext (a copy of a run killed before it stored the new key), by
  // target record id and Message-ID: UID and UIDVALIDITY. Selects each
  // target, then `record` again.
  using EarlierCopies = std::map<uint32_t, std::map<std::string, std::pair<uint32_t, uint32_t>>>;
  Result FindEarlierCopies(Imap4FolderSync& record, const std::vector<Imap4DownloadJob>& jobs);
  EarlierCopies earlier_copies_;
  // Event 13; UID STORE +FLAGS (\Deleted), UID EXPUNGE under UIDPLUS with
  // DeleteOnServer, else counted in expunge_count_. A NO is a warning.
  Result RemoveFromServer(Imap4FolderSync& record, uint32_t uid, size_t index, size_t count);

  // ---- imap4_upload.cpp ----
  // Step "upload and local deletion": messages without a UID uploaded,
  // messages whose UID is no longer listed deleted here (only when the list
  // was fetched in this run), then SELECT again for the new UIDNEXT;
  // event 19 (count uploaded, folder name) when the step is done.
  Result UploadAndDeleteLocal(Imap4FolderSync& record, bool upload, bool delete_local);
  // Before the list is compared: local messages of this folder without a
  // UID, or moved here and still keyed to another record, whose Message-ID
  // is on the server above the stored uidNext (an upload or copy whose
  // answer was lost) take that message's UID; the source copy of a moved
  // one is then recorded as deleted here.
  Result AdoptEarlierUploads(Imap4FolderSync& record);
  // The UID of the message with this Message-ID in `target`'s mailbox,
  // looked for from its stored uidNext on; 0 when not found.
  Result FindUidByMessageId(Imap4FolderSync& target, WStringView message_id, uint32_t* uid);
  // The server's UIDVALIDITY differs from the stored one: local copies of
  // this record are matched again by Message-ID and size and take their new
  // UIDs; unmatched ones keep their text and lose their UID (uploaded again
  // only if the folder uploads). Logged.
  Result RematchAfterUidValidityChange(Imap4FolderSync& record);
  // UID FETCH first:* of UID, RFC822.SIZE and the Message-ID field of the
  // selected mailbox (a NO is an empty list).
  struct Imap4IdEntry {
    uint32_t uid = 0;
    uint32_t size = 0;
    std::string message_id;  // lower-cased, without angle brackets
  };
  Result FetchMessageIds(uint32_t first_uid, std::vector<Imap4IdEntry>* entries);
  // Of `uids`, those the selected mailbox still holds, by UID FETCH of the
  // UIDs alone. A NO is rc::kImap4No (nothing known, so nothing gone).
  Result StillOnServer(const std::vector<uint32_t>& uids, std::set<uint32_t>* present);

  Imap4Service& service_;
  const ServiceSettings s_;
  Imap4FolderTree* folders_ = nullptr;  // the service's, under its mutex for the run
  LineLog line_log_;
  CImap4Client client_;
  Imap4LocalIndex local_;

  // The folder under work.
  Imap4FolderSync* record_ = nullptr;
  uint32_t exists_ = 0;
  uint32_t uid_next_ = 0;
  uint32_t uid_validity_ = 0;
  bool list_fetched_ = false;               // list_ is the whole list from UID 1
  std::vector<Imap4ServerMessage> list_;
  uint32_t expunge_count_ = 0;
  Result pending_;  // the run's first error

  // ---- imap4_download.cpp ----
  // One job's command in flight.
  struct Fetching {
    enum Mode { kNew, kReplace, kResume };
    std::string tag;
    Imap4DownloadJob* job = nullptr;
    Mode mode = kNew;
    std::string stored_section;  // the section whose bytes are the stored text: "" or "HEADER"
    bool partial = false;
    std::string head;            // the header, for the record
    bool head_done = false;
    std::string text;            // kReplace and kResume: the bytes received
    uint64_t received = 0;       // bytes of the stored section
    bool stored = false;         // the stored section arrived whole
  };
  Result BeginJob(Imap4DownloadJob& job);
  // Reads the answer of the oldest command in flight; a whole message
  // counts in `downloaded`. Commits when the batch is due.
  Result FinishJob(uint32_t* downloaded);
  // The literal (or quoted text) of `f` begins; `stored`: its bytes are the
  // message's text (else only its header, for the record).
  Result StartSink(Fetching& f, bool stored, uint64_t size);
  Result EndSink();
  // Rewrites an existing local message (a resumed or repeated download),
  // after committing the batch.
  Result ReplaceLocal(const Fetching& f);
  MessageRecord NewRecord(const Imap4DownloadJob& job, std::string_view head, bool partial) const;
  // Commits the batch; its messages go into local_.
  Result CommitBatch();

  std::deque<std::unique_ptr<Fetching>> fetching_;  // oldest first
  Fetching* sink_ = nullptr;       // the job whose literal is being read
  bool sink_stored_ = false;       // the literal is the stored text (else only the head)
  uint64_t sink_left_ = 0;         // bytes of the literal still to come
  AppendBatch* batch_ = nullptr;   // of the folder under work, during Download
  std::vector<MessageRecord> staged_;  // in the batch, not yet committed
  size_t batch_bytes_ = 0;
  std::chrono::steady_clock::time_point batch_start_{};
  Result hook_error_;

  // Seen changes from the server found by PlanImap4Jobs (its
  // seen_updates), written by ApplyServerChanges.
  std::vector<Imap4LocalMessage> seen_updates_;
};

}  // namespace trv
