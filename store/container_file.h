// Internal to the container layer: the steps of opening a container file
// that Container::Open and CheckAndRepair share.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "base/result.h"
#include "base/wide_string.h"

namespace trv::container_internal {

// 0 for an empty file or one that starts like an SQLite database;
// rc::kStreamMissing (0x80070002) when there is no file; rc::kNotContainer
// for anything else (the file is only read).
Result ProbeContainerFile(const std::filesystem::path& path);

// Removes a container file with its write-ahead log and shared-memory index.
Result RemoveContainerFile(const std::filesystem::path& path);

Result OpenDatabase(const std::filesystem::path& path, bool read_only, sqlite3** db);

// How a database is prepared: the settings a new file gets, and the modes
// of this connection.
struct NewFileSettings {
  uint32_t page_size;
  WStringView label;
  char16_t separator;
  bool read_only = false;
  bool sync_commits = true;
};

// Creates the schema in an empty database, or checks that an existing one is
// a container of a format we read; sets the journal and sync modes.
Result PrepareSchema(sqlite3* db, const NewFileSettings& settings);

Result ReadSettings(sqlite3* db, WString* label, uint32_t* page_size);

// Runs statements that return no rows.
Result Exec(sqlite3* db, const std::string& sql);

// One integer from a one-row query.
Result QueryInt(sqlite3* db, const char* sql, int64_t* value);

}  // namespace trv::container_internal
