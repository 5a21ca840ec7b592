// The search database: "Search.db" in the data directory, an SQLite FTS5
// index of every message's sender, recipients, subject, decoded text bodies
// and attachments' file names, with its date, unread state and whether it
// has attachments. It is never the only copy of anything: a missing or
// damaged database is deleted and filled again from the folder files.
//
// Schema (PRAGMA user_version 1):
//   folders(id INTEGER PRIMARY KEY, file TEXT UNIQUE)   SearchFolder::id
//   messages(id INTEGER PRIMARY KEY, folder, key, size, date, unread, attachment)
//   text(sender, recipients, subject, body, files)     FTS5, rowid = messages.id
//
// Kept up to date at each search rather than by watching the folders: Update
// compares every folder's records with what the database holds, by key and
// size; only new messages are read and parsed, vanished ones are dropped and
// changed read states rewritten. A message moved to another folder is a new
// key there and a vanished one here. A folder renamed keeps its file name,
// and so does a folder whose data directory moved, so their rows stay.
//
// Threads: one thread at a time (the connection is the object's own). The
// folder files may meanwhile change on other threads; a search then sees
// them as they were when Update read their listings.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/log_sink.h"
#include "base/result.h"
#include "core/search_query.h"
#include "store/folder_file.h"

struct sqlite3;

namespace trv {

class MailFolder;
class Storage;

struct SearchFolder {
  // The folder's identity in the database: its file name as the storage
  // index keeps it ("{GUID}.fld"), which stays when the data directory moves.
  std::string id;
  FolderFile* file = nullptr;          // open; its index is loaded by Update
  const MailFolder* folder = nullptr;  // for the caller; not used here
};

struct SearchHit {
  size_t folder = 0;  // index into the folders searched
  uint32_t key = 0;
  double date = 0;
};

// Told while new messages are indexed: done so far of `total` to index in
// this Update. Runs on the calling thread.
using SearchProgress = std::function<void(size_t done, size_t total)>;

// What a message contributes to the index.
struct SearchText {
  std::string sender, recipients, subject, body, files;
  bool attachment = false;
};
// From the record (sender, recipients, subject, attachment flag) and the
// stored text (bodies: text parts, HTML with its tags stripped; file names).
SearchText ExtractSearchText(const MessageRecord& record, std::string_view message);

class SearchIndex {
 public:
  static constexpr const char* kFileName = "Search.db";
  // Bytes of a message read for indexing; longer ones are cut.
  static constexpr uint32_t kMaxMessageBytes = 4u << 20;

  explicit SearchIndex(LogSink& log) : log_(log) {}
  ~SearchIndex();
  SearchIndex(const SearchIndex&) = delete;
  SearchIndex& operator=(const SearchIndex&) = delete;

  // Opens (or creates, 0600) the database. One that is damaged or of
  // another version is deleted and made again empty (logged).
  Result Open(const std::filesystem::path& path);
  void Close();

  // Brings the database up to date with `folders` (see above). `prune`:
  // `folders` are all there are, so rows of any other folder go. At most
  // `max_new` new messages are read and indexed (an interface indexes in
  // slices between events); `*left` (optional) gets how many are still to do.
  Result Update(const std::vector<SearchFolder>& folders, bool prune, const SearchProgress& progress = {},
                size_t max_new = SIZE_MAX, size_t* left = nullptr);
  // The messages of `folders` that match, newest first. An empty query
  // finds nothing.
  Result Find(const SearchQuery& query, const std::vector<SearchFolder>& folders, std::vector<SearchHit>* hits);
  // Update, then Find. When the database turns out damaged on the way, it
  // is made again from the folder files and the search repeated once.
  Result Search(std::string_view query, const std::vector<SearchFolder>& folders, bool all_folders,
                const SearchProgress& progress, std::vector<SearchHit>* hits);
  // A damaged database found by Update or Find: made again, empty (the next
  // Update fills it). Search does this by itself.
  bool damaged() const { return damaged_; }
  Result Recreate();

 private:
  Result OpenOnce();
  Result Check(int sqlite_code);
  Result Exec(const char* sql);
  Result FolderId(const std::string& name, bool create, int64_t* id);
  // Reads, parses and adds new messages, committing every few hundred.
  Result AddMessages(FolderFile& file, int64_t folder_id, const std::vector<MessageRecord>& records, size_t* done,
                     size_t total, const SearchProgress& progress);

  LogSink& log_;
  std::filesystem::path path_;
  sqlite3* db_ = nullptr;
  bool damaged_ = false;  // a statement reported a damaged database
};

// Every available folder of `storages`, or of `under` and its subfolders
// only when it is given. Interface thread (walks the trees).
std::vector<SearchFolder> SearchFoldersOf(const std::vector<Storage*>& storages, const MailFolder* under);

}  // namespace trv
