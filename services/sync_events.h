// Progress of a service's runs, as the user interface sees it: an event code
// and up to four numbers (and a text for the host or folder name), told to
// the service's observers. Event 1000 closes every run, whatever its end.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace trv {

class MailService;

enum SyncEventCode : int {
  kEventConnecting = 1,        // text: host
  kEventConnected = 2,
  kEventClosing = 3,
  kEventClosed = 4,            // closed, or an error
  kEventAuthenticating = 5,
  kEventReady = 6,
  kEventListingFolders = 7,
  kEventReadingList = 8,       // POP3: values 0 0, or message index and count - 1 while heads are read
  kEventReadingFolder = 9,     // IMAP4: text: folder name
  kEventDownloading = 10,      // POP3: index from 1, count, bytes done, bytes total
  kEventDownloadingFolder = 11,  // IMAP4: text: folder; index from 1, count, total bytes
  kEventDeleting = 12,         // POP3: index from 1, count
  kEventDeletingOnServer = 13, // IMAP4
  kEventUploading = 14,        // IMAP4: index from 1, count
  kEventSending = 15,          // index from 1, count, bytes done, bytes total
  kEventStartingTls = 16,
  kEventFolderDownloaded = 18,
  kEventFolderUploaded = 19,
  kEventAllSent = 20,          // value 0: the number of messages sent
  kEventRunFinished = 1000,
};

struct SyncEvent {
  int code = 0;
  std::array<int64_t, 4> values{};
  std::string text;  // UTF-8: the host or folder name, when the event has one
};

// Told every event of a service's runs, on the thread of the run (the
// service's worker, or the thread that called Start for the events Start
// reports itself). Registered in MailService::observers(); told with no
// lock held.
class SyncObserver {
 public:
  virtual ~SyncObserver() = default;
  virtual void OnSyncEvent(MailService& service, const SyncEvent& event) = 0;
};

}  // namespace trv
