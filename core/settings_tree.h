// The settings tree: the parsed "Settings.ini". A root section; every section
// has a name, an ordered list of typed values (core/settings_value.h) and an
// ordered list of child sections. Sections are named by paths of names joined
// by the path separator ("\" by default); "\" or "" is the root. Section and
// value names compare without regard to ASCII letter case and keep the
// spelling they were first written with.
//
// Text form (LoadFromBytes / SaveToBytes):
//   - The root's values come first, without a heading; then each section as
//     "\n[path]\n" (line feeds only) followed by its values, each line ending
//     in "\r\n"; arrays as "name[index]=element", one line per element.
//   - Comment lines are values named "#1", "#2", ... written back as they
//     were read. The root always holds the header comment
//     "# Automatically generated file. DO NOT MODIFY!!!", written first.
//   - Lines that are neither a comment, a heading nor "name=value" are kept in
//     their section as comment values, so a save never drops them; each one
//     is reported as a diagnostic with its line number. A later line for a
//     name already read replaces it (reported); an array element index that
//     does not parse as a number (decimal, 0x hexadecimal, 0 octal) leaves
//     the line a plain value named "name[...]".
//
// Typed reads. Every read of a stored type other than the one asked for
// looks at the value as a save and a load would turn it (ReloadedForm), so
// reads give the same answer before and after a round trip through the file:
//   - ReadBoolean takes booleans and integers (non-zero is true).
//   - ReadInteger takes integers and booleans (1/0).
//   - ReadDouble takes doubles, integers and texts that parse whole.
//   - ReadString gives the text the value reads back as from the file (for a
//     wide string that is the UTF-8 mark and the encoded units: read Unicode
//     text with ReadWideString; a text "TRUE" comes back as "true", or "1"
//     with numeric booleans).
//   - ReadWideString takes wide strings and texts that start with the UTF-8
//     mark; any other value is not a wide string and gives the default.
//   - ReadBinary takes binary values and texts "584D" + hex pairs (or "").
// Doubles keep six decimals in the file; ReadDouble alone sees the exact
// double until the tree is saved and loaded.
//
// Threads: every public member takes the tree's mutex, so any thread may call
// any member at any time, and each call sees and leaves a consistent tree.
// A sequence of calls is not atomic: a save running between two writes of a
// service's keys writes the first and not the second (the next save writes
// both). Do not call back into the tree from code it calls (it calls none).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "core/settings_value.h"
#include "base/thread_annotations.h"
#include "base/wide_string.h"

namespace trv {

namespace settings_internal {
class Section;
struct LoadState;
}  // namespace settings_internal

// A problem found while reading a settings text. Names the line (1-based)
// and what was done about it; never quotes the line's value, which may be a
// password.
struct SettingsDiagnostic {
  int line = 0;
  std::string message;
};

class Settings {
 public:
  static constexpr std::string_view kHeaderText = "Automatically generated file. DO NOT MODIFY!!!";
  // Limits against hand-edited or damaged files.
  static constexpr size_t kMaxArrayLength = 65536;  // element indexes 0 .. kMaxArrayLength - 1
  static constexpr size_t kMaxSectionDepth = 32;     // names in one section path

  // Results of the reads and deletes, as system-error codes.
  static constexpr Result kNotFound{0x80070002};   // no such section or value
  static constexpr Result kWrongType{0x8007000D};  // the value is not of the kind asked for
  static constexpr Result kMoreData{0x800700EA};   // the caller's buffer is too small

  explicit Settings(SettingsOptions options = {});
  ~Settings();
  Settings(const Settings&) = delete;
  Settings& operator=(const Settings&) = delete;

  const SettingsOptions& options() const { return options_; }

  // Replaces the whole tree by the one the text describes. Never fails: what
  // cannot be understood is kept as comments and reported.
  std::vector<SettingsDiagnostic> LoadFromBytes(std::string_view text) EXCLUDES(mu_);
  // The whole tree as text.
  std::string SaveToBytes() const EXCLUDES(mu_);
  // Removes everything but the header comment.
  void Clear() EXCLUDES(mu_);
  // Increases with every change (writes, deletes, loads); lets an owner skip
  // saving an unchanged tree.
  uint64_t change_count() const EXCLUDES(mu_);

  // Names of the child sections of the section at `path`, in order; empty
  // when the section does not exist.
  std::vector<std::string> ListSections(std::string_view path) const EXCLUDES(mu_);
  // Names of the values (comments left out) of the section at `path`.
  std::vector<std::string> ListValues(std::string_view path) const EXCLUDES(mu_);
  bool HasSection(std::string_view path) const EXCLUDES(mu_);
  // Creates the section and every missing section on the way. kInvalidArg
  // for a name with a line break or a path deeper than kMaxSectionDepth.
  Result CreateSection(std::string_view path) EXCLUDES(mu_);
  // Deletes the section with everything under it. The root cannot be
  // deleted (kInvalidArg); a missing section gives kNotFound.
  Result DeleteSection(std::string_view path) EXCLUDES(mu_);

  // The stored type of a value; none when there is no such value.
  std::optional<SettingsType> TypeOfValue(std::string_view path, std::string_view name) const EXCLUDES(mu_);
  // kNotFound when there is no such value.
  Result DeleteValue(std::string_view path, std::string_view name) EXCLUDES(mu_);

  // Typed reads; the default when the value is missing or not of that kind.
  std::string ReadString(std::string_view path, std::string_view name, std::string_view def = {}) const
      EXCLUDES(mu_);
  WString ReadWideString(std::string_view path, std::string_view name, WStringView def = {}) const
      EXCLUDES(mu_);
  int32_t ReadInteger(std::string_view path, std::string_view name, int32_t def) const EXCLUDES(mu_);
  // kNotFound when missing, kWrongType when the value is not a number;
  // *value is changed only on success.
  Result ReadInteger(std::string_view path, std::string_view name, int32_t* value) const EXCLUDES(mu_);
  bool ReadBoolean(std::string_view path, std::string_view name, bool def) const EXCLUDES(mu_);
  double ReadDouble(std::string_view path, std::string_view name, double def) const EXCLUDES(mu_);
  // kNotFound when missing, kWrongType when the value is not binary.
  Result ReadBinary(std::string_view path, std::string_view name, std::vector<uint8_t>* out) const
      EXCLUDES(mu_);
  // Buffer form: *size is the buffer's size in and the value's size out. A
  // buffer that is too small gets nothing and the result kMoreData, with the
  // needed size in *size.
  Result ReadBinary(std::string_view path, std::string_view name, uint8_t* buffer, size_t* size) const
      EXCLUDES(mu_);

  // Typed writes: create the section path when needed, replace a value of
  // the same name in place (whatever its type) or append a new one.
  // kInvalidArg for an invalid name (empty, with a line break, the value
  // separator, "[" or "]", or beginning with "#" or the comment prefix), and
  // for an 8-bit text with a line break (it would end the line in the file).
  Result WriteString(std::string_view path, std::string_view name, std::string_view value) EXCLUDES(mu_);
  Result WriteWideString(std::string_view path, std::string_view name, WStringView value) EXCLUDES(mu_);
  Result WriteInteger(std::string_view path, std::string_view name, int32_t value) EXCLUDES(mu_);
  Result WriteBoolean(std::string_view path, std::string_view name, bool value) EXCLUDES(mu_);
  Result WriteDouble(std::string_view path, std::string_view name, double value) EXCLUDES(mu_);
  Result WriteBinary(std::string_view path, std::string_view name, std::span<const uint8_t> value)
      EXCLUDES(mu_);

  // Arrays, element by element. Length 0 when the value is missing or not an
  // array. Writing an element past the end grows the array with empty
  // elements; an index at or past kMaxArrayLength is kInvalidArg. Writing an
  // element into a value that is not an array replaces it by an array.
  size_t ArrayLength(std::string_view path, std::string_view name) const EXCLUDES(mu_);
  std::string ReadStringElement(std::string_view path, std::string_view name, size_t index,
                                std::string_view def = {}) const EXCLUDES(mu_);
  WString ReadWideStringElement(std::string_view path, std::string_view name, size_t index,
                                WStringView def = {}) const EXCLUDES(mu_);
  Result WriteStringElement(std::string_view path, std::string_view name, size_t index, std::string_view value)
      EXCLUDES(mu_);
  Result WriteWideStringElement(std::string_view path, std::string_view name, size_t index, WStringView value)
      EXCLUDES(mu_);

 private:
  using Section = settings_internal::Section;

  Section* FindSection(std::string_view path) const REQUIRES(mu_);
  Result FindOrCreateSection(std::string_view path, Section** section) REQUIRES(mu_);
  // The value, or none (missing section or value).
  const SettingsData* FindData(std::string_view path, std::string_view name) const REQUIRES(mu_);
  bool IsValidName(std::string_view name) const;
  Result Store(std::string_view path, std::string_view name, SettingsData data) EXCLUDES(mu_);
  void ResetRoot() REQUIRES(mu_);
  // Puts the header comment first in the root unless the root has it.
  void AddHeader() REQUIRES(mu_);

  // Text reader and writer (core/settings_format.cpp).
  void ParseText(std::string_view text, std::vector<SettingsDiagnostic>* diagnostics) REQUIRES(mu_);
  void ParseLine(std::string_view line, settings_internal::LoadState& state) REQUIRES(mu_);
  void WriteSection(const Section& section, const std::string& path, std::string& out) const REQUIRES(mu_);

  const SettingsOptions options_;
  mutable Mutex mu_;
  std::unique_ptr<Section> root_ GUARDED_BY(mu_);
  uint64_t changes_ GUARDED_BY(mu_) = 0;
};

}  // namespace trv
