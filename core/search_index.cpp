#include "core/search_index.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>

#include "base/file_system.h"
#include "base/wide_string.h"
#include "mime/html_text.h"
#include "mime/mime_message.h"
#include "store/container_result.h"
#include "store/mail_folder.h"
#include "store/storage.h"

namespace trv {

namespace {

constexpr int kSchemaVersion = 1;
constexpr size_t kMaxBodyBytes = 1u << 20;  // of text per message
constexpr size_t kCommitEvery = 1000;       // new messages per transaction

constexpr const char* kSchema =
    "CREATE TABLE folders(id INTEGER PRIMARY KEY, file TEXT UNIQUE NOT NULL);"
    "CREATE TABLE messages(id INTEGER PRIMARY KEY, folder INTEGER NOT NULL, key INTEGER NOT NULL,"
    " size INTEGER NOT NULL, date REAL NOT NULL, unread INTEGER NOT NULL, attachment INTEGER NOT NULL);"
    "CREATE INDEX messages_folder ON messages(folder, key, size, unread);"
    "CREATE VIRTUAL TABLE text USING fts5(sender, recipients, subject, body, files,"
    " tokenize = 'unicode61 remove_diacritics 2');"
    "PRAGMA user_version = 1;";

bool IsDamage(int code) {
  const int primary = code & 0xff;
  return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

// A prepared statement, finalized at the end of its scope.
class Statement {
 public:
  Statement(sqlite3* db, const char* sql) { code_ = sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr); }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  int prepare_code() const { return code_; }
  sqlite3_stmt* get() { return stmt_; }
  void Text(int i, std::string_view s) {
    sqlite3_bind_text(stmt_, i, s.data(), static_cast<int>(s.size()), SQLITE_TRANSIENT);
  }
  void Int(int i, int64_t v) { sqlite3_bind_int64(stmt_, i, v); }
  void Real(int i, double v) { sqlite3_bind_double(stmt_, i, v); }
  // One step; SQLITE_ROW, SQLITE_DONE or an error.
  int Step() { return sqlite3_step(stmt_); }
  // Runs a statement that returns no rows, and resets it for the next use.
  int Run() {
    int code = sqlite3_step(stmt_);
    sqlite3_reset(stmt_);
    return code == SQLITE_DONE ? SQLITE_OK : code;
  }

 private:
  sqlite3_stmt* stmt_ = nullptr;
  int code_;
};

}  // namespace

SearchText ExtractSearchText(const MessageRecord& record, std::string_view message) {
  SearchText t;
  t.sender = WideToUtf8(record.from);
  t.recipients = WideToUtf8(record.to) + " " + WideToUtf8(record.cc);
  t.subject = WideToUtf8(record.subject);
  t.attachment = (record.flags & msgflag::kHasAttachments) != 0;
  CXmMimeMessage parsed;
  // Broken mail still yields what could be read; the status does not matter.
  parsed.ParseText(std::string(message)).Ignore();
  for (const CXmMessagePart* part : parsed.Parts()) {
    if (part->IsMultipart()) continue;
    const WString file_name = part->GetFileName();
    if (part->IsAttachment() || !file_name.empty()) {
      t.attachment = true;
      if (!t.files.empty()) t.files += ' ';
      t.files += WideToUtf8(file_name);
      continue;
    }
    if (!part->IsText() || t.body.size() >= kMaxBodyBytes) continue;
    WString text;
    // Text that needed a guessed character set is still worth finding.
    part->GetText(&text).Ignore();
    if (EqualsNoCase(part->GetSubtype(), u"html")) text = HtmlToPlainText(text);
    const std::string utf8 = WideToUtf8(text);
    if (!t.body.empty()) t.body += '\n';
    t.body += utf8.substr(0, kMaxBodyBytes - std::min(kMaxBodyBytes, t.body.size()));
  }
  return t;
}

SearchIndex::~SearchIndex() { Close(); }

void SearchIndex::Close() {
  sqlite3_close_v2(db_);
  db_ = nullptr;
}

Result SearchIndex::Check(int code) {
  if (code == SQLITE_OK || code == SQLITE_DONE || code == SQLITE_ROW) return rc::kOk;
  if (IsDamage(code)) damaged_ = true;
  return SqliteResult(code, db_);
}

Result SearchIndex::Exec(const char* sql) { return Check(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr)); }

Result SearchIndex::Open(const std::filesystem::path& path) {
  path_ = path;
  Result r = OpenOnce();
  if (r.failed() && damaged_) r = Recreate();
  return r;
}

Result SearchIndex::OpenOnce() {
  Close();
  damaged_ = false;
  // Made here so that it is 0600; the journal files take its mode.
  const int fd = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kPrivateFileMode);
  if (fd >= 0) ::close(fd);
  int code = sqlite3_open_v2(path_.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                             nullptr);
  if (code != SQLITE_OK) {
    const Result r = SqliteResult(code, db_);
    Close();
    return r;
  }
  sqlite3_busy_timeout(db_, 5000);
  // A cache of the folder files: a lost transaction costs a re-index only.
  Result r = Exec("PRAGMA journal_mode = WAL; PRAGMA synchronous = OFF; PRAGMA cache_size = -32768;"
                   " PRAGMA mmap_size = 1073741824");
  Statement version(db_, "PRAGMA user_version");
  if (r.ok()) r = Check(version.prepare_code());
  if (r.ok()) r = Check(version.Step());
  const int found = r.ok() ? sqlite3_column_int(version.get(), 0) : -1;
  if (r.ok() && found == 0) r = Exec(kSchema);
  if (r.ok() && found != 0 && found != kSchemaVersion) {
    log_.Log("Search database " + path_.string() + " has version " + std::to_string(found) + "; made again");
    damaged_ = true;
    r = rc::kFail;
  }
  return r;
}

Result SearchIndex::Recreate() {
  log_.Log("Search database " + path_.string() + " is damaged; it is made again from the folder files");
  Close();
  for (const char* suffix : {"", "-wal", "-shm"}) {
    std::error_code ec;
    std::filesystem::remove(path_.string() + suffix, ec);
  }
  return OpenOnce();
}

Result SearchIndex::FolderId(const std::string& name, bool create, int64_t* id) {
  *id = 0;
  if (create) {
    Statement insert(db_, "INSERT OR IGNORE INTO folders(file) VALUES(?)");
    if (Result r = Check(insert.prepare_code()); r.failed()) return r;
    insert.Text(1, name);
    if (Result r = Check(insert.Run()); r.failed()) return r;
  }
  Statement select(db_, "SELECT id FROM folders WHERE file = ?");
  if (Result r = Check(select.prepare_code()); r.failed()) return r;
  select.Text(1, name);
  const int code = select.Step();
  if (code == SQLITE_ROW) *id = sqlite3_column_int64(select.get(), 0);
  return code == SQLITE_ROW || code == SQLITE_DONE ? Result(rc::kOk) : Check(code);
}

namespace {

struct Stored {
  uint32_t key;
  int64_t id;
  uint32_t size;
  bool unread;
  bool seen;  // the folder still holds it
};

struct Plan {
  const SearchFolder* folder;
  int64_t id;
  std::vector<MessageRecord> added;
};

bool Unread(const MessageRecord& r) { return !r.is_read(); }

double DateOf(const MessageRecord& r) { return r.sent_date != 0 ? r.sent_date : r.received_date; }

}  // namespace

Result SearchIndex::Update(const std::vector<SearchFolder>& folders, bool prune, const SearchProgress& progress,
                           size_t max_new, size_t* left) {
  if (left != nullptr) *left = 0;
  if (db_ == nullptr) return rc::kFail;
  std::vector<Plan> plans;
  size_t total = 0;
  if (Result r = Exec("BEGIN"); r.failed()) return r;
  Result r = rc::kOk;
  {
    Statement list(db_, "SELECT id, key, size, unread FROM messages WHERE folder = ? ORDER BY key");
    Statement drop_text(db_, "DELETE FROM text WHERE rowid = ?");
    Statement drop(db_, "DELETE FROM messages WHERE id = ?");
    Statement mark(db_, "UPDATE messages SET unread = ? WHERE id = ?");
    for (Statement* s : {&list, &drop_text, &drop, &mark}) {
      if (r.ok()) r = Check(s->prepare_code());
    }
    std::set<std::string> kept;
    for (size_t f = 0; r.ok() && f < folders.size(); ++f) {
      const SearchFolder& folder = folders[f];
      kept.insert(folder.id);
      if (folder.file == nullptr || folder.file->LoadIndex().failed()) continue;  // searched as it was
      Plan plan{&folder, 0, {}};
      r = FolderId(folder.id, true, &plan.id);
      std::vector<Stored> stored;  // by key
      list.Int(1, plan.id);
      int code = SQLITE_ROW;
      while (r.ok() && (code = list.Step()) == SQLITE_ROW) {
        stored.push_back({static_cast<uint32_t>(sqlite3_column_int64(list.get(), 1)),
                          sqlite3_column_int64(list.get(), 0),
                          static_cast<uint32_t>(sqlite3_column_int64(list.get(), 2)),
                          sqlite3_column_int(list.get(), 3) != 0, false});
      }
      if (r.ok()) r = Check(code);
      sqlite3_reset(list.get());
      for (const MessageRecord& record : folder.file->Messages()) {
        const auto it = std::lower_bound(stored.begin(), stored.end(), record.key,
                                         [](const Stored& s, uint32_t key) { return s.key < key; });
        if (it == stored.end() || it->key != record.key || it->size != record.size) {
          plan.added.push_back(record);
          continue;  // a key used again for another message: its old row goes below
        }
        if (it->unread != Unread(record) && r.ok()) {
          mark.Int(1, Unread(record));
          mark.Int(2, it->id);
          r = Check(mark.Run());
        }
        it->seen = true;
      }
      for (const Stored& row : stored) {
        if (r.failed()) break;
        if (row.seen) continue;
        drop_text.Int(1, row.id);
        drop.Int(1, row.id);
        r = Check(drop_text.Run());
        if (r.ok()) r = Check(drop.Run());
      }
      total += plan.added.size();
      if (!plan.added.empty()) plans.push_back(std::move(plan));
    }
    if (r.ok() && prune) {
      Statement all(db_, "SELECT id, file FROM folders");
      r = Check(all.prepare_code());
      std::vector<int64_t> gone;
      int code = SQLITE_ROW;
      while (r.ok() && (code = all.Step()) == SQLITE_ROW) {
        const char* file = reinterpret_cast<const char*>(sqlite3_column_text(all.get(), 1));
        if (kept.count(file != nullptr ? file : "") == 0) gone.push_back(sqlite3_column_int64(all.get(), 0));
      }
      if (r.ok()) r = Check(code);
      for (int64_t id : gone) {
        const std::string n = std::to_string(id);
        for (const std::string& sql :
             {"DELETE FROM text WHERE rowid IN (SELECT id FROM messages WHERE folder = " + n + ")",
              "DELETE FROM messages WHERE folder = " + n, "DELETE FROM folders WHERE id = " + n}) {
          if (r.ok()) r = Exec(sql.c_str());
        }
      }
    }
  }
  r = r.ok() ? Exec("COMMIT") : r;
  if (r.failed()) {
    Exec("ROLLBACK").Ignore();  // the failure is the news; nothing was kept
    return r;
  }

  size_t done = 0;
  const size_t todo = std::min(total, max_new);
  for (Plan& plan : plans) {
    if (done >= todo) break;
    if (plan.added.size() > todo - done) plan.added.resize(todo - done);
    if (r = AddMessages(*plan.folder->file, plan.id, plan.added, &done, todo, progress); r.failed()) return r;
  }
  if (left != nullptr) *left = total - todo;
  return rc::kOk;
}

Result SearchIndex::AddMessages(FolderFile& file, int64_t folder_id, const std::vector<MessageRecord>& records,
                                size_t* done, size_t total, const SearchProgress& progress) {
  Statement row(db_, "INSERT INTO messages(folder, key, size, date, unread, attachment) VALUES(?, ?, ?, ?, ?, ?)");
  Statement text(db_, "INSERT INTO text(rowid, sender, recipients, subject, body, files) VALUES(?, ?, ?, ?, ?, ?)");
  Result r = Check(row.prepare_code());
  if (r.ok()) r = Check(text.prepare_code());
  if (r.ok()) r = Exec("BEGIN");
  std::string message;
  for (size_t i = 0; r.ok() && i < records.size(); ++i) {
    const MessageRecord& record = records[i];
    // A message deleted meanwhile is simply not indexed.
    if (file.ReadMessageRange(record.key, 0, kMaxMessageBytes, &message).failed()) {
      ++*done;
      continue;
    }
    const SearchText t = ExtractSearchText(record, message);
    row.Int(1, folder_id);
    row.Int(2, record.key);
    row.Int(3, record.size);
    row.Real(4, DateOf(record));
    row.Int(5, Unread(record));
    row.Int(6, t.attachment);
    r = Check(row.Run());
    if (r.failed()) break;
    text.Int(1, sqlite3_last_insert_rowid(db_));
    int column = 2;
    for (const std::string* s : {&t.sender, &t.recipients, &t.subject, &t.body, &t.files}) text.Text(column++, *s);
    r = Check(text.Run());
    ++*done;
    if (r.ok() && (i + 1) % kCommitEvery == 0) {
      r = Exec("COMMIT");
      if (r.ok()) r = Exec("BEGIN");
      if (progress) progress(*done, total);
    }
  }
  if (r.ok()) r = Exec("COMMIT");
  if (r.failed()) {
    Exec("ROLLBACK").Ignore();  // the failure is the news
    return r;
  }
  if (progress) progress(*done, total);
  return rc::kOk;
}

Result SearchIndex::Find(const SearchQuery& query, const std::vector<SearchFolder>& folders,
                         std::vector<SearchHit>* hits) {
  hits->clear();
  if (db_ == nullptr) return rc::kFail;
  if (query.empty()) return rc::kOk;
  // Database folder id -> index into `folders`.
  std::map<int64_t, size_t> wanted;
  for (size_t f = 0; f < folders.size(); ++f) {
    int64_t id = 0;
    if (Result r = FolderId(folders[f].id, false, &id); r.failed()) return r;
    if (id != 0) wanted[id] = f;
  }
  if (wanted.empty()) return rc::kOk;
  std::string sql = "SELECT m.folder, m.key, m.date FROM messages m";
  if (!query.match.empty()) sql += " JOIN text ON text.rowid = m.id AND text MATCH ?1";
  sql += " WHERE m.folder IN (";
  for (auto it = wanted.begin(); it != wanted.end(); ++it) {
    sql += (it == wanted.begin() ? "" : ",") + std::to_string(it->first);
  }
  sql += ")";
  if (query.before != 0) sql += " AND m.date < ?2";
  if (query.after != 0) sql += " AND m.date >= ?3";
  if (query.unread) sql += " AND m.unread = 1";
  if (query.attachment) sql += " AND m.attachment = 1";
  sql += " ORDER BY m.date DESC, m.id DESC";
  Statement select(db_, sql.c_str());
  if (Result r = Check(select.prepare_code()); r.failed()) return r;
  if (!query.match.empty()) select.Text(1, query.match);
  if (query.before != 0) select.Real(2, query.before);
  if (query.after != 0) select.Real(3, query.after);
  int code;
  while ((code = select.Step()) == SQLITE_ROW) {
    hits->push_back({wanted[sqlite3_column_int64(select.get(), 0)],
                     static_cast<uint32_t>(sqlite3_column_int64(select.get(), 1)),
                     sqlite3_column_double(select.get(), 2)});
  }
  return Check(code);
}

Result SearchIndex::Search(std::string_view query, const std::vector<SearchFolder>& folders, bool all_folders,
                           const SearchProgress& progress, std::vector<SearchHit>* hits) {
  const SearchQuery parsed = ParseSearchQuery(query);
  Result r = rc::kFail;
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (attempt == 1 || db_ == nullptr) {
      if (r = attempt == 1 ? Recreate() : Open(path_); r.failed()) return r;
    }
    damaged_ = false;
    r = Update(folders, all_folders, progress);
    if (r.ok()) r = Find(parsed, folders, hits);
    if (r.ok() || !damaged_) return r;
  }
  return r;
}

std::vector<SearchFolder> SearchFoldersOf(const std::vector<Storage*>& storages, const MailFolder* under) {
  std::vector<SearchFolder> out;
  for (Storage* storage : storages) {
    storage->ForEachFolder([&](MailFolder& folder) {
      if (!folder.available()) return;
      if (under != nullptr) {
        const MailFolder* f = &folder;
        while (f != nullptr && f != under) f = f->parent();
        if (f == nullptr) return;
      }
      out.push_back({WideToUtf8(folder.file_name()), folder.file(), &folder});
    });
  }
  return out;
}

}  // namespace trv
