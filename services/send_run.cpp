// The sending run: the outbox messages of this service through one SMTP
// session (services/smtp_session.h), each accepted one marked sent on the
// disk before it is moved to "Sent".
#include <vector>

#include "services/mail_service.h"
#include "services/outbox.h"
#include "services/smtp_session.h"
#include "store/mail_folder.h"
#include "store/storage.h"

namespace trv {

namespace {

FolderFile* SpecialFile(Storage& storage, uint32_t kind) {
  MailFolder* folder = storage.SpecialFolder(kind);
  return folder ? folder->file() : nullptr;
}

}  // namespace

bool MailService::HasOutgoingMail() {
  FolderFile* outbox = SpecialFile(storage(), kFolderOutbox);
  std::vector<OutgoingMessage> messages;
  uint64_t bytes = 0;
  return outbox && CollectOutgoing(*this, *outbox, &messages, &bytes).ok() && !messages.empty();
}

Result MailService::Send() {
  if (pending_error().failed()) return pending_error();
  SendRun run(*this, settings());
  FolderFile* outbox = SpecialFile(storage(), kFolderOutbox);
  FolderFile* sent = SpecialFile(storage(), kFolderSent);
  std::vector<OutgoingMessage> messages;
  uint64_t total = 0;
  Result r = outbox && sent ? CollectOutgoing(*this, *outbox, &messages, &total) : rc::kFileMissing;
  if (r.failed()) {
    SetPendingError(r);
    run.LogError(r);
    return r;
  }
  // Accepted by the server in an earlier run that ended before the move: only moved.
  std::vector<OutgoingMessage> to_send;
  for (const OutgoingMessage& m : messages) {
    if (!m.already_sent) {
      to_send.push_back(m);
      continue;
    }
    total -= m.size;
    if (Result moved = MoveToSent(*outbox, *sent, m.key); moved.failed()) run.LogError(moved);
  }
  if (to_send.empty()) return rc::kOk;

  // rc::kAbort (a cancel in the credentials prompt, a hard Stop) is not an
  // error: nothing is logged and nothing is left pending.
  r = run.OpenSession();
  if (r != rc::kAbort) SetPendingError(r);
  if (r.ok()) {
    uint64_t done = 0;
    int64_t count = 0;
    for (size_t i = 0; i < to_send.size() && !interrupted(); ++i) {
      const OutgoingMessage& m = to_send[i];
      Report(kEventSending, {static_cast<int64_t>(i + 1), static_cast<int64_t>(to_send.size()),
                             static_cast<int64_t>(done), static_cast<int64_t>(total)});
      done += m.size;
      std::string text;
      Result sent_r = outbox->ReadMessage(m.key, &text);
      if (sent_r.ok()) sent_r = run.SendMessage(text);
      if (sent_r == rc::kAbort) break;
      if (sent_r.failed()) {
        // The session is gone (the socket may not know it yet when the
        // server hung up under a reply): no later message can go either.
        if (!run.connected() || IsSocketError(sent_r) || IsSecureTransportError(sent_r)) {
          SetPendingError(sent_r);
          break;
        }
        run.LogError(sent_r);
        continue;  // it stays in the outbox
      }
      if (Result marked = MarkSent(*outbox, m.key); marked.failed()) {
        SetPendingError(marked);  // cannot record it: stop before sending more that could go twice
        break;
      }
      ++count;
      if (Result moved = MoveToSent(*outbox, *sent, m.key); moved.failed()) run.LogError(moved);
    }
    if (pending_error().ok()) Report(kEventAllSent, {count});
  }
  if (r != rc::kAbort) r = pending_error();
  if (r.failed() && r != rc::kAbort) run.LogError(r);
  run.CloseSession();
  if (interrupted()) log().Log("Synchronization interrupted by user");
  return r;
}

}  // namespace trv
