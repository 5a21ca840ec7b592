// Result codes of the container layer (family 0x80D0) and the one function
// that turns an SQLite status into a result code.
#pragma once

#include <iterator>

#include "base/result.h"

struct sqlite3;

namespace trv {

namespace rc {
inline constexpr Result kNotContainer{0x80D00001};      // the file is not a container file at all
inline constexpr Result kContainerDamaged{0x80D00002};  // a container whose pages are damaged
inline constexpr Result kContainerVersion{0x80D00003};  // written by a newer format version
inline constexpr Result kContainerClosed{0x80D00004};   // operation on a closed container
inline constexpr Result kStreamTooLarge{0x80D00005};    // a stream would pass 4 GB - 1
inline constexpr Result kStreamReadOnly{0x80D00006};    // write to a stream opened for reading
inline constexpr Result kContainerFailure{0x80D00007};  // any other failure of the database engine
inline constexpr Result kNothingSalvaged{0x80D00008};   // a damaged container held nothing readable
// No stream of that name: the system's code for a missing file
// (ResultFromErrno(ENOENT)), which a missing container file also gives.
inline constexpr Result kStreamMissing{0x80070002};
inline constexpr Result kContainerBusy{0x80070020};     // locked by another process
}  // namespace rc

inline constexpr ResultTextEntry kContainerTexts[] = {
    {0x80D00001, "The file is not a container file."},
    {0x80D00002, "The container file is damaged."},
    {0x80D00003, "The container file was written by a newer version."},
    {0x80D00004, "The container file is not open."},
    {0x80D00005, "The stream would grow past 4 GB."},
    {0x80D00006, "The stream was opened for reading only."},
    {0x80D00007, "The container file could not be accessed."},
    {0x80D00008, "Nothing could be saved from the damaged container file."},
};
inline constexpr ResultTextTable kContainerTextTable{kContainerTexts, std::size(kContainerTexts)};
inline const bool kContainerTextsRegistered = RegisterResultTexts(kContainerTextTable);

// Maps an SQLite result (primary or extended) to our code. `db` may be null;
// when given, the system errno behind an I/O or open failure is used.
Result SqliteResult(int sqlite_code, sqlite3* db = nullptr);

}  // namespace trv
