// The text form of the settings tree: the reader (ParseText) and the writer
// (WriteSection). See core/settings_tree.h for the format.
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>

#include "base/hex_digits.h"
#include "core/settings_section.h"
#include "core/settings_tree.h"

namespace trv {

namespace settings_internal {

// Where a value read from the text sits and on which lines it was given, so
// repeated names are found in constant time and reported with both lines.
struct ValueOrigin {
  size_t index = 0;                // in its section's values
  int line = 0;                    // line of a plain value
  std::vector<int> element_lines;  // lines of array elements (0 = not given)
};

struct LoadState {
  Section* current = nullptr;
  int line = 0;
  long comments = 0;
  std::vector<SettingsDiagnostic>* diagnostics = nullptr;
  std::map<std::pair<const Section*, std::string>, ValueOrigin> origins;  // key: lower-case name

  void Report(std::string message) { diagnostics->push_back({line, std::move(message)}); }
};

}  // namespace settings_internal

namespace {

using settings_internal::LoadState;
using settings_internal::Section;
using settings_internal::Value;
using settings_internal::ValueOrigin;

// An array index in the bases that C's usual prefixes give: "0x" hexadecimal,
// a leading "0" octal, decimal otherwise. Values at or above `limit` come back
// as `limit`.
std::optional<size_t> ParseIndex(std::string_view s, size_t limit) {
  unsigned base = 10;
  if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
    base = 16;
    s.remove_prefix(2);
  } else if (s.size() > 1 && s[0] == '0') {
    base = 8;
    s.remove_prefix(1);
  }
  if (s.empty()) return std::nullopt;
  size_t v = 0;
  for (const char c : s) {
    const int d = HexDigitValue(static_cast<unsigned char>(c));
    if (d < 0 || static_cast<unsigned>(d) >= base) return std::nullopt;
    v = std::min(v * base + static_cast<unsigned>(d), limit);
  }
  return v;
}

std::string Quoted(std::string_view name) { return "'" + std::string(name) + "'"; }

}  // namespace

void Settings::AddHeader() {
  std::vector<Value>& values = root_->values();
  for (const Value& v : values) {
    if (v.is_comment()) {
      const auto* text = std::get_if<std::string>(&v.data);
      if (text != nullptr && text->size() > 1 && TrimView(std::string_view(*text).substr(1)) == kHeaderText) {
        return;
      }
    }
  }
  std::string header(1, options_.comment_prefix);
  header += ' ';
  header += kHeaderText;
  values.insert(values.begin(), Value{"#0", std::move(header)});
}

void Settings::ParseText(std::string_view text, std::vector<SettingsDiagnostic>* diagnostics) {
  LoadState state;
  state.current = root_.get();
  state.diagnostics = diagnostics;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(pos, end - pos);
    pos = end + 1;
    ++state.line;
    if (line.ends_with('\r')) line.remove_suffix(1);
    ParseLine(line, state);
  }
  AddHeader();
}

void Settings::ParseLine(std::string_view line, LoadState& state) {
  if (TrimView(line).empty()) return;
  Section* const section = state.current;
  std::vector<Value>& values = section->values();
  const auto keep_as_comment = [&] { values.push_back(Value{"#" + std::to_string(++state.comments), std::string(line)}); };

  if (line[0] == options_.comment_prefix) {
    keep_as_comment();
    return;
  }

  if (line.size() >= 2 && line.front() == '[' && line.back() == ']') {
    const std::vector<std::string_view> names =
        settings_internal::SplitPath(line.substr(1, line.size() - 2), options_.path_separator);
    if (names.size() > kMaxSectionDepth) {
      state.Report("section path deeper than " + std::to_string(kMaxSectionDepth) +
                   " names; the line is kept as a comment and what follows stays in the section before it");
      keep_as_comment();
      return;
    }
    Section* s = root_.get();
    for (const std::string_view name : names) s = s->FindOrAddChild(name);
    state.current = s;
    return;
  }

  const size_t sep = line.find(options_.value_separator);
  if (sep == std::string_view::npos || sep == 0 || line[0] == '#') {
    state.Report("not a comment, a section heading or a name" + std::string(1, options_.value_separator) +
                 "value line; kept as it is");
    keep_as_comment();
    return;
  }
  std::string_view name = line.substr(0, sep);
  const std::string_view text = line.substr(sep + 1);

  // "name[index]": an element of the array value "name".
  constexpr size_t kPlain = SIZE_MAX;
  size_t index = kPlain;
  if (const size_t open = name.rfind('['); name.back() == ']' && open != std::string_view::npos && open > 0) {
    index = ParseIndex(name.substr(open + 1, name.size() - open - 2), kMaxArrayLength).value_or(kPlain);
    if (index == kMaxArrayLength) {
      state.Report("array index of " + Quoted(name.substr(0, open)) + " is " + std::to_string(kMaxArrayLength) +
                   " or more; the line is kept as the plain value " + Quoted(name));
      index = kPlain;
    }
    if (index != kPlain) name = name.substr(0, open);
  }
  const bool element = index != kPlain;

  auto [it, inserted] = state.origins.try_emplace({section, ToLowerAscii(name)});
  ValueOrigin& origin = it->second;
  if (inserted) {
    origin.index = values.size();
    if (!element) {
      origin.line = state.line;
      values.push_back(Value{std::string(name), ParseSettingsText(text)});
      return;
    }
    values.push_back(Value{std::string(name), std::vector<std::string>()});
  }
  Value& value = values[origin.index];

  if (!element) {
    if (IsArray(value.data)) {
      state.Report("value " + Quoted(name) + " replaces the array of that name");
    } else {
      state.Report("value " + Quoted(name) + " repeats line " + std::to_string(origin.line) +
                   "; the later line wins");
    }
    value.data = ParseSettingsText(text);
    origin.line = state.line;
    origin.element_lines.clear();
    return;
  }

  if (!IsArray(value.data)) {
    state.Report("array element " + Quoted(name) + "[" + std::to_string(index) + "] replaces the value of line " +
                 std::to_string(origin.line));
    value.data = std::vector<std::string>();
  }
  auto& elements = std::get<std::vector<std::string>>(value.data);
  if (index >= elements.size()) {
    elements.resize(index + 1);
    origin.element_lines.resize(index + 1, 0);
  } else if (origin.element_lines[index] != 0) {
    state.Report("array element " + Quoted(name) + "[" + std::to_string(index) + "] repeats line " +
                 std::to_string(origin.element_lines[index]) + "; the later line wins");
  }
  elements[index] = std::string(text);
  origin.element_lines[index] = state.line;
}

void Settings::WriteSection(const Section& section, const std::string& path, std::string& out) const {
  if (!path.empty()) {
    out += "\n[";
    out += path;
    out += "]\n";
  }
  const auto line = [&](std::string_view name, std::string_view text) {
    out += name;
    out += options_.value_separator;
    out += text;
    out += "\r\n";
  };
  const auto element = [&](std::string_view name, size_t i, std::string_view text) {
    line(std::string(name) + "[" + std::to_string(i) + "]", text);
  };
  for (const Value& v : section.values()) {
    if (v.is_comment()) {
      if (const auto* text = std::get_if<std::string>(&v.data)) {
        out += *text;
        out += "\r\n";
      }
    } else if (const auto* a = std::get_if<std::vector<std::string>>(&v.data)) {
      for (size_t i = 0; i < a->size(); ++i) element(v.name, i, (*a)[i]);
    } else if (const auto* w = std::get_if<std::vector<WString>>(&v.data)) {
      for (size_t i = 0; i < w->size(); ++i) element(v.name, i, EncodeSettingsWide((*w)[i]));
    } else if (const std::optional<std::string> text = SettingsValueText(v.data, options_)) {
      line(v.name, *text);
    }
  }
  for (const auto& child : section.children()) {
    const std::string child_path = path.empty() ? child->name() : path + options_.path_separator + child->name();
    WriteSection(*child, child_path, out);
  }
}

}  // namespace trv
