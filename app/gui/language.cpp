#include "app/gui/language.h"

#include "base/file_io.h"

namespace trv::gui {

namespace {

std::string Unescape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      out += text[i];
      continue;
    }
    switch (text[++i]) {
      case 'n': out += '\n'; break;
      case 't': out += '\t'; break;
      case '\\': out += '\\'; break;
      default: out += '\\'; out += text[i]; break;  // kept as written
    }
  }
  return out;
}

}  // namespace

std::filesystem::path LanguageTable::Locate(const std::filesystem::path& program_dir) {
  std::error_code ec;
  const std::filesystem::path beside = program_dir / kFileName;
  if (std::filesystem::exists(beside, ec)) return beside;
  const std::filesystem::path shared = program_dir.parent_path() / "share/TarvoMail" / kFileName;
  if (std::filesystem::exists(shared, ec)) return shared;
  return beside;
}

Result LanguageTable::Load(const std::filesystem::path& path) {
  std::string bytes;
  if (Result r = ReadWholeFile(path, &bytes); r.failed()) return r;
  texts_.clear();
  size_t pos = 0;
  while (pos < bytes.size()) {
    size_t end = bytes.find('\n', pos);
    if (end == std::string::npos) end = bytes.size();
    std::string_view line(bytes.data() + pos, end - pos);
    pos = end + 1;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.empty() || line.front() == '#') continue;
    const size_t tab = line.find('\t');
    if (tab == std::string_view::npos) continue;
    texts_[std::string(line.substr(0, tab))] = Unescape(line.substr(tab + 1));
  }
  return rc::kOk;
}

std::string LanguageTable::Text(std::string_view id) const {
  auto it = texts_.find(id);
  return it == texts_.end() ? std::string() : it->second;
}

}  // namespace trv::gui
