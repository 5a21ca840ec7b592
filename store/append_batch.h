// Appends to one folder file in a batch that commits once: each message is
// written into its stream in pieces as it arrives (a large download is never
// held whole in memory), and the records and counts of all of them are
// written and committed together by Commit.
//
//   AppendBatch batch(folder);
//   for each message:  batch.Begin(); batch.Write(piece)...; batch.Finish(record, &key);
//   batch.Commit();
//
// All or nothing: the first failing call aborts the whole batch (the
// container transaction is rolled back, so no stream or record of it
// remains, not even after a crash) and every later call returns that code.
// Abort (also by the destructor, unless committed) does the same on request.
// Keys handed out by Finish are valid only once Commit has returned 0.
//
// Threads: one thread uses a batch. From its first Begin until Commit or
// Abort the batch holds the folder file's writer lock: other changes of
// the folder file (from any thread, the owner's too) wait for it, reads do
// not, and the listing shows the batch's messages only after Commit. So keep
// a batch short in time where the interface may be changing the folder (a
// download commits every few messages, not once per run). Observers learn of
// the added keys after Commit, with no lock held. The folder file must
// outlive the batch.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "store/folder_file.h"

namespace trv {

class AppendBatch {
 public:
  explicit AppendBatch(FolderFile& folder) : folder_(folder) {}
  ~AppendBatch() { Abort(); }
  AppendBatch(const AppendBatch&) = delete;
  AppendBatch& operator=(const AppendBatch&) = delete;

  // Starts the next message (the previous one must be finished: else
  // rc::kInvalidArg). The first Begin loads the index when needed and
  // starts the transaction.
  Result Begin();
  // Appends the next piece of the message's text.
  Result Write(std::string_view piece);
  // Ends the message: its record with key and size filled in is staged for
  // Commit; `key` (may be null) receives the key.
  Result Finish(const MessageRecord& record, uint32_t* key);
  // Writes the staged records and the counts and commits; `keys` (may be
  // null) receives the keys in order. A message begun and not finished is
  // rc::kInvalidArg (and the batch is aborted). A batch with no message
  // commits nothing and returns 0.
  Result Commit(std::vector<uint32_t>* keys = nullptr);
  // Rolls back everything written so far; the batch may be used again.
  void Abort();

  // Messages finished and not yet committed.
  size_t size() const { return staged_.size(); }

 private:
  struct Staged {
    MessageRecord record;
    uint32_t offset;
    uint32_t length;
  };

  // The writer lock is taken by the first Begin and released by Commit or
  // Abort, across calls, which the lock analysis cannot follow.
  Result Open() NO_THREAD_SAFETY_ANALYSIS;
  void Close() NO_THREAD_SAFETY_ANALYSIS;
  Result Fail(Result r);

  FolderFile& folder_;
  bool open_ = false;  // writer lock held and transaction begun
  Result error_;
  std::unique_ptr<ContainerStream> stream_;  // of the message being written
  uint32_t key_ = 0;
  uint64_t written_ = 0;
  uint32_t next_key_ = 0;
  uint32_t first_offset_ = 0;
  FolderCounts counts_;
  std::string records_;
  std::vector<Staged> staged_;
};

}  // namespace trv
