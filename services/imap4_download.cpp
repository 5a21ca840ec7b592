// Downloads of an IMAP4 folder run. Several UID FETCH commands are kept in
// flight; each message's text arrives as a literal that the literal hook
// streams straight into an AppendBatch of the folder file, its record
// (UID, UIDVALIDITY, folder record, server size, seen and partial flags)
// staged with it. The batch commits every few hundred messages, 16 MiB or
// half a second, and always before the run changes anything on the server.
//
// What is fetched for a job, in one UID FETCH each (the header and the body
// items of a message travel in one command, so the header costs no round
// trip of its own):
//   new, whole        BODY.PEEK[HEADER] BODY.PEEK[]
//   new, partial      BODY.PEEK[HEADER] BODY.PEEK[]<0.LoadBodySize>; the
//                     stored text is the first LoadBodySize bytes
//   new, header only  BODY.PEEK[HEADER] (LoadBodySize below 1)
//   again, whole      BODY.PEEK[] into the same local message
//   resumed           BODY.PEEK[]<held.rest>, appended to the held bytes
// The last two rewrite an existing message (FolderFile::ReplaceMessage) and
// hold its text in memory once; new messages are never held whole. The
// record's listing fields come from the header item (or, failing it, from
// the start of the stored text).
#include <algorithm>

#include "core/message_import.h"
#include "services/download_batch.h"
#include "services/imap4_run.h"
#include "store/mail_folder.h"

namespace trv {
namespace {

constexpr size_t kWindow = 32;  // commands in flight
constexpr size_t kMaxHead = 64u << 10;  // header bytes kept for the record

}  // namespace

Result Imap4Run::BeginJob(Imap4DownloadJob& job) {
  auto f = std::make_unique<Fetching>();
  f->job = &job;
  std::string items = "BODY.PEEK[HEADER] BODY.PEEK[]";
  const int64_t held = job.local_message ? job.local_message->record.size : 0;
  if (job.resume && job.local_message && held > 0 && held < job.size) {
    f->mode = Fetching::kResume;
    items = "BODY.PEEK[]<" + std::to_string(held) + "." + std::to_string(job.size - held) + ">";
  } else if (job.local_message) {
    f->mode = Fetching::kReplace;
    items = "BODY.PEEK[]";
  } else if (job.body_limit < 1) {
    f->stored_section = "HEADER";
    f->partial = true;
    items = "BODY.PEEK[HEADER]";
  } else if (job.body_limit < INT32_MAX && job.fetch_size < job.size) {
    f->partial = true;
    items = "BODY.PEEK[HEADER] BODY.PEEK[]<0." + std::to_string(job.body_limit) + ">";
  }
  if (Result r = client_.BeginFetch(job.uid, job.uid, items, true, &f->tag); r.failed()) return r;
  fetching_.push_back(std::move(f));
  return rc::kOk;
}

MessageRecord Imap4Run::NewRecord(const Imap4DownloadJob& job, std::string_view head, bool partial) const {
  MessageRecord record;
  FillRecordFromHead(head, &record);
  record.imap_uid = job.uid;
  record.imap_uid_validity = uid_validity_;
  record.server_folder = record_->id;
  record.server_size = static_cast<uint32_t>(std::max(job.size, 0));
  if (job.flags & kImap4FlagSeen) record.flags |= msgflag::kRead | msgflag::kSyncedSeen;
  if (partial) record.flags |= msgflag::kPartial;
  return record;
}

Result Imap4Run::StartSink(Fetching& f, bool stored, uint64_t size) {
  sink_ = &f;
  sink_stored_ = stored;
  sink_left_ = size;
  if (stored && f.mode == Fetching::kNew) {
    if (staged_.empty()) batch_start_ = std::chrono::steady_clock::now();
    if (hook_error_.ok()) hook_error_ = batch_->Begin();
  }
  return size == 0 ? EndSink() : hook_error_;
}

Result Imap4Run::EndSink() {
  Fetching& f = *sink_;
  sink_ = nullptr;
  if (!sink_stored_) {
    f.head_done = true;
    return hook_error_;
  }
  f.stored = true;
  f.head_done = true;
  if (f.mode != Fetching::kNew || hook_error_.failed()) return hook_error_;
  MessageRecord record = NewRecord(*f.job, f.head, f.partial);
  hook_error_ = batch_->Finish(record, nullptr);
  record.size = static_cast<uint32_t>(f.received);
  staged_.push_back(record);
  batch_bytes_ += f.received;
  return hook_error_;
}

bool Imap4Run::TakeLiteral(const Imap4LiteralContext& context) {
  if (batch_ == nullptr) return false;
  const auto it = std::find_if(fetching_.begin(), fetching_.end(),
                               [&](const auto& f) { return f->tag == context.tag; });
  if (it == fetching_.end() || (*it)->stored) return false;
  Fetching& f = **it;
  // A resumed download takes only bytes that begin where the held ones end.
  const uint32_t origin = f.mode == Fetching::kResume ? f.job->local_message->record.size : 0;
  if (context.section == f.stored_section && context.origin.value_or(0) == origin) {
    StartSink(f, true, context.size).Ignore();  // a failure is kept in hook_error_
    return true;
  }
  if (context.section == "HEADER" && !f.head_done) {
    StartSink(f, false, context.size).Ignore();  // as above
    return true;
  }
  return false;
}

Result Imap4Run::OnLiteralBytes(std::string_view piece) {
  if (sink_ == nullptr) return rc::kInvalidArg;
  Fetching& f = *sink_;
  if (sink_stored_) {
    if (f.mode != Fetching::kNew) {
      f.text.append(piece);
    } else if (hook_error_.ok()) {
      hook_error_ = batch_->Write(piece);
    }
    f.received += piece.size();
  }
  if (!f.head_done && f.head.size() < kMaxHead) {
    // The header ends at the first empty line.
    const size_t from = f.head.size() < 3 ? 0 : f.head.size() - 3;
    f.head.append(piece.substr(0, kMaxHead - f.head.size()));
    if (sink_stored_ && (f.head.find("\r\n\r\n", from) != std::string::npos || f.head.size() >= kMaxHead)) {
      f.head_done = true;
    }
  }
  sink_left_ -= std::min<uint64_t>(sink_left_, piece.size());
  if (hook_error_.failed()) return hook_error_;
  return sink_left_ == 0 ? EndSink() : rc::kOk;
}

Result Imap4Run::CommitBatch() {
  std::vector<uint32_t> keys;
  const Result r = batch_->Commit(&keys);
  if (r.ok()) {
    for (size_t i = 0; i < staged_.size() && i < keys.size(); ++i) {
      staged_[i].key = keys[i];
      local_.Put({record_->local_folder, staged_[i]});
    }
  }
  staged_.clear();
  batch_bytes_ = 0;
  return r;
}

Result Imap4Run::ReplaceLocal(const Fetching& f) {
  if (Result r = CommitBatch(); r.failed()) return r;
  const Imap4LocalMessage& local = *f.job->local_message;
  FolderFile* file = local.folder != nullptr ? local.folder->file() : nullptr;
  if (file == nullptr) return rc::kFileMissing;
  std::string text;
  if (f.mode == Fetching::kResume) {
    if (Result r = file->ReadMessage(local.record.key, &text); r.failed()) return r;
  }
  text += f.text;
  MessageRecord record = local.record;
  FillRecordFromHead(text, &record, true);
  record.imap_uid = f.job->uid;
  record.imap_uid_validity = uid_validity_;
  record.server_folder = record_->id;
  record.server_size = static_cast<uint32_t>(std::max(f.job->size, 0));
  record.size = static_cast<uint32_t>(text.size());
  record.flags &= ~msgflag::kFullDownloadRequested;
  if (text.size() >= record.server_size) record.flags &= ~msgflag::kPartial;
  if (Result r = file->ReplaceMessage(record, text); r.failed()) return r;
  local_.Put({local.folder, record});
  return rc::kOk;
}

Result Imap4Run::FinishJob(uint32_t* downloaded) {
  Result r = client_.Finish(fetching_.front()->tag);
  const std::unique_ptr<Fetching> f = std::move(fetching_.front());
  fetching_.pop_front();
  if (hook_error_.failed()) return hook_error_;
  if (r == rc::kImap4No) {
    Fail(r);  // no such message: a warning, the next job goes on
    return rc::kOk;
  }
  if (r.failed()) return r;
  if (!f->stored) {
    // A text sent as a quoted string (an empty message) rather than a literal.
    for (const Imap4FetchData& data : client_.result().fetch) {
      const Imap4Section* s = data.Section(f->stored_section);
      if (s == nullptr || s->streamed || s->nil) continue;
      if (Result started = StartSink(*f, true, s->bytes.size()); started.failed()) return started;
      if (!s->bytes.empty()) r = OnLiteralBytes(s->bytes);
      if (r.failed()) return r;
      break;
    }
  }
  // Nothing received (the message is gone): nothing stored.
  if (!f->stored) return rc::kOk;
  if (f->mode != Fetching::kNew) r = ReplaceLocal(*f);
  if (r.ok()) ++*downloaded;
  if (r.ok() && DownloadBatchDue(staged_.size(), batch_bytes_, batch_start_)) r = CommitBatch();
  return r;
}

Result Imap4Run::Download(Imap4FolderSync& record, std::vector<Imap4DownloadJob>& jobs, uint32_t* downloaded) {
  *downloaded = 0;
  FolderFile* file = record.local_folder != nullptr ? record.local_folder->file() : nullptr;
  if (file == nullptr) return rc::kFileMissing;
  int64_t count = 0, total = 0, index = 0;
  for (const Imap4DownloadJob& job : jobs) {
    if (job.download) ++count, total += job.size;
  }
  if (count == 0) return rc::kOk;
  AppendBatch batch(*file);
  batch_ = &batch;
  hook_error_ = rc::kOk;
  client_.SetLiteralHook(this);
  Result r;
  size_t next = 0;
  while (true) {
    while (r.ok() && !Stopped() && fetching_.size() < kWindow && next < jobs.size()) {
      Imap4DownloadJob& job = jobs[next++];
      if (job.download) r = BeginJob(job);
    }
    if (fetching_.empty()) break;
    service_.Report(kEventDownloadingFolder, {++index, count, total}, WideToUtf8(record.name));
    // After an error the commands in flight are still read (and stored),
    // as long as the connection stands.
    const Result finished = FinishJob(downloaded);
    if (r.ok()) r = finished;
    if (finished.failed() && !client_.connected()) {
      fetching_.clear();
      break;
    }
  }
  client_.SetLiteralHook(nullptr);
  // A message cut off in the middle takes the uncommitted ones with it; they
  // are fetched again next time.
  if (sink_ != nullptr) batch.Abort();
  sink_ = nullptr;
  const Result committed = CommitBatch();
  batch_ = nullptr;
  return r.failed() ? r : committed;
}

}  // namespace trv
