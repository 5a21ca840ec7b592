#include "base/result.h"

#include <cerrno>
#include <cstdio>
#include <iterator>

#include "base/thread_annotations.h"

namespace trv {

Result ResultFromErrno(int err) {
  switch (err) {
    case 0: return rc::kOk;
    case ENOENT: return FromWin32(2);        // file not found
    case ENOTDIR: return FromWin32(3);       // path not found
    case EMFILE: case ENFILE: return FromWin32(4);
    case EACCES: case EPERM: return FromWin32(5);
    case EBADF: return FromWin32(6);
    case ENOMEM: return rc::kOutOfMemory;
    case EROFS: return FromWin32(19);        // write protected
    case EIO: return FromWin32(1117);        // I/O device error
    case EBUSY: case ETXTBSY: return FromWin32(32);  // sharing violation
    case EEXIST: return FromWin32(80);
    case EINVAL: return rc::kInvalidArg;
    case ENOSPC: case EDQUOT: return FromWin32(112);
    case EFBIG: return FromWin32(223);       // file too large
    case ENAMETOOLONG: return FromWin32(206);
    case EISDIR: return FromWin32(5);
    case ENOTEMPTY: return FromWin32(145);
    case EXDEV: return FromWin32(17);        // not same device
    case EAGAIN: return FromWin32(33);       // lock violation
    default: return FromWin32(1359);         // internal error
  }
}

namespace {

// The general and system codes; the layers register their own families.
constexpr ResultTextEntry kSystemTexts[] = {
    {0x00000000, "The operation completed successfully."},
    {0x00000002, "The system cannot find the file specified."},
    {0x00000008, "Not enough memory is available to complete this operation."},
    {0x0000000D, "The data is invalid."},
    {0x0000001D, "The system cannot write to the specified device."},
    {0x0000001E, "The system cannot read from the specified device."},
    {0x00000050, "The file exists."},
    {0x80004001, "The operation is not supported by this object."},
    {0x80004004, "Operation aborted."},
    {0x80004005, "Unspecified error."},
    {0x8007000E, "Not enough memory is available to complete this operation."},
    {0x80070057, "The parameter is incorrect."},
    {0x80070002, "The system cannot find the file specified."},
    {0x80070003, "The system cannot find the path specified."},
    {0x80070004, "The system cannot open the file: too many open files."},
    {0x80070005, "Access is denied."},
    {0x80070006, "The folder file is missing."},
    {0x8007000D, "The data is invalid."},
    {0x80070011, "The system cannot move the file to a different disk drive."},
    {0x80070013, "The media is write protected."},
    {0x80070020, "The file is being used by another process."},
    {0x80070021, "The file is locked by another process."},
    {0x80070050, "The file exists."},
    {0x80070070, "There is not enough space on the disk."},
    {0x80070091, "The directory is not empty."},
    {0x800700CE, "The file name or extension is too long."},
    {0x800700DF, "The file size exceeds the limit allowed and cannot be saved."},
    {0x800700EA, "More data is available."},
    {0x8007045D, "The request could not be performed because of an I/O device error."},
    {0x8007054F, "An internal error occurred."},
};

// The registered tables. Registration happens while static objects are
// constructed and lookups come later, from any thread; the lock keeps both
// safe when a library is loaded late.
struct Registry {
  Mutex mu;
  std::vector<const ResultTextTable*> tables GUARDED_BY(mu);
};

Registry& TheRegistry() {
  static Registry registry;
  return registry;
}

constexpr ResultTextTable kSystemTable{kSystemTexts, std::size(kSystemTexts)};
const bool kSystemTextsRegistered = RegisterResultTexts(kSystemTable);

}  // namespace

std::string ResultHex(Result r) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%08X", r.code());
  return buf;
}

bool RegisterResultTexts(const ResultTextTable& table) {
  Registry& registry = TheRegistry();
  MutexLock lock(registry.mu);
  for (const ResultTextTable* t : registry.tables) {
    if (t == &table) return true;
  }
  registry.tables.push_back(&table);
  return true;
}

std::vector<Result> RegisteredResultCodes() {
  Registry& registry = TheRegistry();
  MutexLock lock(registry.mu);
  std::vector<Result> codes;
  for (const ResultTextTable* t : registry.tables) {
    for (size_t i = 0; i < t->count; ++i) codes.emplace_back(t->entries[i].code);
  }
  return codes;
}

std::string ResultText(Result r) {
  (void)kSystemTextsRegistered;
  const char* prefix = nullptr;
  std::string (*describe)(Result) = nullptr;
  {
    Registry& registry = TheRegistry();
    MutexLock lock(registry.mu);
    for (const ResultTextTable* t : registry.tables) {
      for (size_t i = 0; i < t->count; ++i) {
        if (t->entries[i].code == r.code()) return t->entries[i].text;
      }
      for (size_t i = 0; i < t->family_count; ++i) {
        const ResultFamilyEntry& f = t->families[i];
        if (f.family != r.family()) continue;
        if (prefix == nullptr) prefix = f.prefix;
        if (describe == nullptr) describe = f.describe;
      }
    }
  }
  if (describe != nullptr) {
    std::string text = describe(r);  // outside the lock: it may call ResultText
    if (!text.empty()) return text;
  }
  if (prefix != nullptr) return std::string(prefix) + " " + ResultHex(r) + ".";
  if (r.family() == 0x8007) return "System error " + std::to_string(r.code() & 0xFFFF) + ".";
  return "Unknown error " + ResultHex(r) + ".";
}

}  // namespace trv
