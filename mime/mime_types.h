// The content type of a file from its name: the system's /etc/mime.types when
// present, a built-in table of common types otherwise.
#pragma once

#include <filesystem>
#include <string>
#include <unordered_map>

#include "base/wide_string.h"

namespace trv {

inline constexpr char kDefaultContentType[] = "application/octet-stream";

class MimeTypes {
 public:
  // Reads a file of lines "type/subtype ext ext ..." ("#" starts a comment;
  // the first type named for an extension wins). False when the file cannot
  // be read; the table is then unchanged.
  bool Load(const std::filesystem::path& path);

  // The type for the name's extension (the text after its last "."),
  // compared without regard to case: from the loaded file, else from the
  // built-in table, else "application/octet-stream".
  std::string ForFileName(WStringView name) const;

  size_t size() const { return types_.size(); }

  // /etc/mime.types, loaded on first use. Safe from any thread.
  static const MimeTypes& System();

 private:
  std::unordered_map<std::string, std::string> types_;  // lower-case extension -> type
};

}  // namespace trv
