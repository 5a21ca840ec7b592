#include "mime/mime_types.h"

#include <fstream>
#include <sstream>

namespace trv {

namespace {

// Used when the system has no mime.types or it lacks the extension.
constexpr struct {
  const char* extension;
  const char* type;
} kBuiltIn[] = {
    {"txt", "text/plain"},        {"text", "text/plain"},       {"log", "text/plain"},
    {"csv", "text/csv"},          {"htm", "text/html"},         {"html", "text/html"},
    {"css", "text/css"},          {"xml", "application/xml"},   {"ics", "text/calendar"},
    {"vcf", "text/vcard"},        {"md", "text/markdown"},      {"eml", "message/rfc822"},
    {"jpg", "image/jpeg"},        {"jpeg", "image/jpeg"},       {"png", "image/png"},
    {"gif", "image/gif"},         {"bmp", "image/bmp"},         {"webp", "image/webp"},
    {"svg", "image/svg+xml"},     {"tif", "image/tiff"},        {"tiff", "image/tiff"},
    {"ico", "image/vnd.microsoft.icon"},
    {"pdf", "application/pdf"},   {"zip", "application/zip"},   {"gz", "application/gzip"},
    {"tar", "application/x-tar"}, {"7z", "application/x-7z-compressed"},
    {"json", "application/json"}, {"js", "text/javascript"},    {"rtf", "application/rtf"},
    {"doc", "application/msword"},
    {"docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
    {"xls", "application/vnd.ms-excel"},
    {"xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"},
    {"ppt", "application/vnd.ms-powerpoint"},
    {"pptx", "application/vnd.openxmlformats-officedocument.presentationml.presentation"},
    {"odt", "application/vnd.oasis.opendocument.text"},
    {"ods", "application/vnd.oasis.opendocument.spreadsheet"},
    {"mp3", "audio/mpeg"},        {"wav", "audio/x-wav"},       {"ogg", "audio/ogg"},
    {"mp4", "video/mp4"},         {"avi", "video/x-msvideo"},   {"mov", "video/quicktime"},
    {"webm", "video/webm"},
};

}  // namespace

bool MimeTypes::Load(const std::filesystem::path& path) {
  std::ifstream in(path);
  if (!in) return false;
  std::string line;
  while (std::getline(in, line)) {
    if (const size_t hash = line.find('#'); hash != std::string::npos) line.resize(hash);
    std::istringstream words(line);
    std::string type;
    if (!(words >> type) || type.find('/') == std::string::npos) continue;
    std::string extension;
    while (words >> extension) types_.emplace(ToLowerAscii(extension), type);
  }
  return true;
}

std::string MimeTypes::ForFileName(WStringView name) const {
  const size_t dot = name.rfind(u'.');
  if (dot == WStringView::npos || dot + 1 == name.size()) return kDefaultContentType;
  const std::string extension = ToLowerAscii(WideToUtf8(name.substr(dot + 1)));
  if (auto it = types_.find(extension); it != types_.end()) return it->second;
  for (const auto& entry : kBuiltIn) {
    if (extension == entry.extension) return entry.type;
  }
  return kDefaultContentType;
}

const MimeTypes& MimeTypes::System() {
  static const MimeTypes table = [] {
    MimeTypes t;
    t.Load("/etc/mime.types");
    return t;
  }();
  return table;
}

}  // namespace trv
