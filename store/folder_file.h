// A folder file: the container file of one mail folder. It holds
//   "/Counts"   8 bytes: message count, unread count (u32 little-endian each)
//   "/Index"    a 4-byte header (0), then one record per message
//               (store/message_record.h, store/RECORD-LAYOUT.md)
//   "%.8X"      one stream per message, named by its key, holding its MIME text
// The counts let a folder tree show totals without reading the index; the
// index is read in full when the folder's messages are needed, repaired once
// when it cannot be read, and then swept of message streams it does not name.
//
// Moving a message to another folder file is an Append there, then a Delete
// here: a crash in between leaves it in both, never in neither.
//
// Atomicity: every change (append, delete, flag change, record update,
// compaction) is one container transaction that also rewrites "/Counts", so
// a crash at any moment leaves the folder with or without the change, never
// in between. A change that has returned survives a process kill, and with
// FolderFileOptions::sync_commits also a power loss.
//
// Threads: every public method may be called from any thread, so a worker
// thread may append while the interface thread reads the listing. Two locks:
//   mu_         guards the state; every method holds it while it works.
//   writer_mu_  one writer at a time: taken before mu_ by every change, and
//               held by an AppendBatch from its first Begin to Commit or
//               Abort, so no other change can join or undo its transaction.
//               Reads do not take it and go on while a batch is open.
// Methods return copies, never references into the index. Compact and a
// repair hold mu_ throughout; LoadIndex, when it has a progress callback,
// reads the index one record a step and drops mu_ between steps.
//
// Callbacks run on the thread that called the folder file, with NO lock of
// the folder file held: observers after the change is committed, the
// progress callback between steps of an index read. Either may call the
// folder file back. An observer that lives on another thread (the
// interface's message list) must post the news to its own thread (the
// interface queues it) rather than touch its own state from the caller's.
// Only the RecordRebuilder runs with mu_ held (it is a pure function of
// the message head).
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/listener_list.h"
#include "base/log_sink.h"
#include "base/result.h"
#include "base/thread_annotations.h"
#include "store/container.h"
#include "store/container_stream.h"
#include "store/folder_observer.h"
#include "store/message_index.h"
#include "store/message_record.h"

namespace trv {

struct FolderCounts {
  uint32_t messages = 0;
  uint32_t unread = 0;
  friend bool operator==(const FolderCounts&, const FolderCounts&) = default;
};

// Fills a record that a repair rebuilt for a message stream the index had
// lost, from the start of the message (at most kRebuildHeadBytes). The
// record arrives with key, size, received date (the stream's creation time)
// and msgflag::kNeedsHeaderRefresh set; the hook may fill the rest and clear
// that flag. Called with the folder file's mutex held.
using RecordRebuilder = std::function<void(std::string_view message_head, MessageRecord* record)>;

// Told between steps of an index read: the offset reached and the size of
// "/Index". Runs with no lock held.
using IndexProgress = std::function<void(uint32_t position, uint32_t size)>;

struct FolderFileOptions {
  bool sync_commits = true;  // flush every commit to the disk (survives a power loss)
  // "/Index" is compacted when deleted records hold more than this share of
  // it and at least kMinCompactBytes.
  double compact_share = 0.25;
  IndexProgress progress{};      // during index reads
  RecordRebuilder rebuilder{};   // during repairs
};

class AppendBatch;

// One message to append: its record (key and size are filled in) and text.
struct NewMessage {
  MessageRecord record;
  std::string_view text;
};

class FolderFile {
 public:
  static constexpr uint32_t kPageSize = 512;
  static constexpr const char16_t* kLabel = u"Mail Storage";
  static constexpr uint32_t kMinCompactBytes = 64 * 1024;
  static constexpr uint32_t kRebuildHeadBytes = 64 * 1024;

  explicit FolderFile(LogSink& log, FolderFileOptions options = {});
  ~FolderFile();
  FolderFile(const FolderFile&) = delete;
  FolderFile& operator=(const FolderFile&) = delete;

  // A new folder file with an empty index and zero counts, open and loaded.
  // An existing file is never overwritten: rc::kFileExists (80).
  Result Create(const std::filesystem::path& path) EXCLUDES(mu_, writer_mu_);
  // Opens an existing folder file and reads "/Counts" only; when the counts
  // cannot be read (missing, shorter than 8 bytes, or the container will not
  // open) the index is loaded instead. A missing file is rc::kFileMissing.
  Result Open(const std::filesystem::path& path) EXCLUDES(mu_, writer_mu_);
  // Reads the whole index once (0 at once when it is loaded), in steps with
  // the progress callback between them. A failed read is logged, the file
  // repaired once, and read again; see the log lines in folder_file.cpp.
  // Writes the counts after a successful load. Other methods that need the
  // index finish a load in progress at once, without progress.
  Result LoadIndex() EXCLUDES(mu_, writer_mu_);
  // Stores the counts in "/Counts" (not while loading, not without an open
  // container).
  Result WriteCounts() EXCLUDES(mu_, writer_mu_);
  // Checks and repairs the file on request (not only after a failed load),
  // then loads the index afresh.
  Result CheckAndRepairFile() EXCLUDES(mu_, writer_mu_);
  // Closes the file; later operations fail with rc::kContainerClosed until
  // the next Open or Create.
  void Close() EXCLUDES(mu_, writer_mu_);

  bool is_open() const;
  bool index_loaded() const;
  FolderCounts counts() const;
  std::filesystem::path path() const;
  // The key the next appended message gets (when its stream name is free).
  uint32_t NextKey() const;

  // The listing (empty until the index is loaded), in index order.
  size_t MessageCount() const;
  std::optional<MessageRecord> MessageAt(size_t index) const;
  std::optional<MessageRecord> FindMessage(uint32_t key) const;
  std::vector<MessageRecord> Messages() const;
  std::vector<ReferenceEntry> References() const;
  // The message whose record holds `uid` as server_uid (an IMAP4 UID or a
  // POP3 UIDL, as the service stores it): true and its key, else false and
  // 0. Looks in the loaded index only (a map kept with every append, delete,
  // record change and reload); an empty uid is never found.
  bool FindByServerUid(WStringView uid, uint32_t* key) const;

  // Appends a message: its stream, its record and the counts in one
  // transaction. The record's key and size are set here; `*key` receives the
  // key. Loads the index first when needed. A message that arrives in pieces
  // goes through an AppendBatch (store/append_batch.h) instead.
  Result Append(const MessageRecord& record, std::string_view text, uint32_t* key) EXCLUDES(mu_, writer_mu_);
  // Appends several messages in one transaction (an import): all or none.
  Result AppendMany(const std::vector<NewMessage>& messages, std::vector<uint32_t>* keys) EXCLUDES(mu_, writer_mu_);
  // Deletes messages: their records are marked deleted and their streams
  // removed, in one transaction. An unknown key is rc::kInvalidArg and
  // nothing is deleted. May compact the index afterwards.
  Result Delete(const std::vector<uint32_t>& keys) EXCLUDES(mu_, writer_mu_);
  // Sets and clears message flags in place (4 bytes of the record).
  Result SetFlags(uint32_t key, uint32_t set, uint32_t clear) EXCLUDES(mu_, writer_mu_);
  // Rewrites a message's record (found by record.key; its size is kept):
  // in place when the encoded length is unchanged, otherwise the old record
  // is marked deleted and the new one appended.
  Result UpdateRecord(const MessageRecord& record) EXCLUDES(mu_, writer_mu_);
  // Replaces a message's text and record (a partial message loaded whole).
  Result ReplaceMessage(const MessageRecord& record, std::string_view text) EXCLUDES(mu_, writer_mu_);
  // A message's whole text; refused with rc::kInvalidData when it is longer
  // than `max_bytes`. An unknown key is rc::kInvalidArg.
  Result ReadMessage(uint32_t key, std::string* text, uint32_t max_bytes = UINT32_MAX);
  // Up to `count` bytes of a message's text from `offset` (fewer at its end).
  Result ReadMessageRange(uint32_t key, uint32_t offset, uint32_t count, std::string* bytes);
  // Rewrites "/Index" without deleted records, keeping keys and order, and
  // gives free pages back to the file system.
  Result Compact() EXCLUDES(mu_, writer_mu_);

  // Observers are kept in a ListenerList: RemoveObserver returns only when
  // no other thread is still telling the observer, so it may be destroyed
  // right after.
  void AddObserver(FolderObserver* observer) { observers_.Add(observer); }
  void RemoveObserver(FolderObserver* observer) { observers_.Remove(observer); }

  ContainerCounters counters() const;

 private:
  friend class AppendBatch;
  enum class Change { kAdded, kRemoved, kChanged, kLoaded };

  Result OpenContainer() REQUIRES(mu_);
  // Finishes loading the index at once (no progress).
  Result LoadIndexLocked() REQUIRES(mu_);
  // One step of loading: up to `max_records` records (0: all). `*done` once
  // the load ended, loaded or failed; `*reached` where the read stands.
  Result LoadStep(uint32_t max_records, bool* done, IndexReadPosition* reached) REQUIRES(mu_);
  Result BeginIndexRead() REQUIRES(mu_);
  Result SweepOrphans() REQUIRES(mu_);
  Result RepairLocked() REQUIRES(mu_);
  Result RepairIndex() REQUIRES(mu_);  // folder_repair.cpp
  Result EnsureLoaded() REQUIRES(mu_);
  Result StoreCounts(FolderCounts counts) REQUIRES(mu_);
  Result WriteCountsLocked() REQUIRES(mu_);
  Result FreeKey(uint32_t* key) REQUIRES(mu_);
  Result DeleteLocked(const std::vector<uint32_t>& keys) REQUIRES(mu_);
  Result WriteRecord(const MessageRecord& record, const IndexEntry& old, uint32_t* offset, uint32_t* length)
      REQUIRES(mu_);
  // UpdateRecord without `text`, ReplaceMessage with it.
  Result RewriteMessage(const MessageRecord& record, const std::string_view* text) EXCLUDES(mu_, writer_mu_);
  Result MarkRecordDeleted(const IndexEntry& entry) REQUIRES(mu_);
  // A message's stream, read-only; rc::kInvalidArg for a key the loaded index lacks.
  Result OpenMessageStream(uint32_t key, std::unique_ptr<ContainerStream>* stream) REQUIRES(mu_);
  Result CompactLocked() REQUIRES(mu_);
  void MaybeCompact() REQUIRES(mu_);
  void CloseLocked() REQUIRES(mu_);
  void Log(const std::string& line);
  void Notify(Change change, const std::vector<uint32_t>& keys);

  LogSink& log_;
  const FolderFileOptions options_;

  Mutex writer_mu_;  // before mu_; see Threads above
  mutable Mutex mu_;
  std::filesystem::path path_ GUARDED_BY(mu_);
  Container container_ GUARDED_BY(mu_);
  std::unique_ptr<ContainerStream> counts_stream_ GUARDED_BY(mu_);
  std::unique_ptr<ContainerStream> index_stream_ GUARDED_BY(mu_);
  MessageIndex index_ GUARDED_BY(mu_);
  FolderCounts counts_ GUARDED_BY(mu_);
  bool counts_from_file_ GUARDED_BY(mu_) = false;  // counts_ were read from "/Counts"
  bool loaded_ GUARDED_BY(mu_) = false;
  bool loading_ GUARDED_BY(mu_) = false;   // a load is in progress; counts are not written
  bool repair_tried_ GUARDED_BY(mu_) = false;  // by the load in progress

  ListenerList<FolderObserver> observers_;
};

}  // namespace trv
