// The language file "trvmllng.enu": the window program's strings, a UTF-8
// table of "identifier<TAB>text" lines. Lines that are empty or begin with
// "#" are skipped; "\n", "\t" and "\\" in a text stand for a line end, a tab
// and a backslash. The file lies beside the program in a build tree and in
// PREFIX/share/TarvoMail once installed.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>

#include "base/result.h"

namespace trv::gui {

class LanguageTable {
 public:
  static constexpr const char* kFileName = "trvmllng.enu";
  // Shown when the file is missing; fixed here, since no table supplies them.
  static constexpr const char* kMissingText = "Can't find trvmllng.enu";
  static constexpr const char* kMissingCaption = "Tarvo Mail 2";

  // Where the file is for a program in `program_dir`: beside it when there,
  // else in ../share/TarvoMail/ when there, else the path beside it.
  static std::filesystem::path Locate(const std::filesystem::path& program_dir);

  // Reads the table; a missing or unreadable file is its read error. A
  // line without a tab is ignored. A later line replaces an earlier one of
  // the same identifier.
  Result Load(const std::filesystem::path& path);

  // The text of `id`; empty when the table has none.
  std::string Text(std::string_view id) const;
  size_t size() const { return texts_.size(); }

 private:
  std::map<std::string, std::string, std::less<>> texts_;
};

}  // namespace trv::gui
