#include "services/outgoing_text.h"

#include <algorithm>

#include "base/wide_string.h"
#include "mime/field_line.h"

namespace trv {

namespace {

bool NamedAmong(std::string_view name, std::initializer_list<std::string_view> names) {
  return std::any_of(names.begin(), names.end(), [name](std::string_view n) { return EqualsNoCase(name, n); });
}

}  // namespace

std::string WithoutHeaderFields(std::string_view text, std::initializer_list<std::string_view> lower_case_names) {
  std::string out;
  out.reserve(text.size());
  bool dropping = false;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    end = end == std::string_view::npos ? text.size() : end + 1;
    const std::string_view line = text.substr(pos, end - pos);
    if (line == "\r\n" || line == "\n") break;  // the body follows as it is
    pos = end;
    if (line[0] != ' ' && line[0] != '\t') {
      FieldLineSplit split;
      dropping = StartsHeaderField(line, &split) && NamedAmong(line.substr(0, split.name_length), lower_case_names);
    }
    if (!dropping) out.append(line);
  }
  out.append(text.substr(pos));
  return out;
}

std::string OutgoingText(std::string_view stored) {
  const std::string text = WithoutHeaderFields(stored, {"bcc", "resent-bcc", "x-unsent"});
  std::string out;
  out.reserve(text.size() + text.size() / 64);
  for (size_t pos = 0; pos < text.size();) {
    size_t end = text.find('\n', pos);
    end = end == std::string::npos ? text.size() : end + 1;
    if (text[pos] == '.') out += '.';
    out.append(text, pos, end - pos);
    pos = end;
  }
  if (out.size() >= 2 && out.compare(out.size() - 2, 2, "\r\n") == 0) out.resize(out.size() - 2);
  return out;
}

}  // namespace trv
