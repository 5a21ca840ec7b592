#include "core/settings_tree.h"

#include <algorithm>
#include <cstring>

#include "core/settings_section.h"

namespace trv {

namespace settings_internal {

std::vector<std::string_view> SplitPath(std::string_view path, char separator) {
  std::vector<std::string_view> names;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find(separator, start);
    if (end == std::string_view::npos) end = path.size();
    if (end > start) names.push_back(path.substr(start, end - start));
    start = end + 1;
  }
  return names;
}

Value* Section::FindValue(std::string_view name) {
  for (Value& v : values_) {
    if (!v.is_comment() && EqualsNoCase(v.name, name)) return &v;
  }
  return nullptr;
}

const Value* Section::FindValue(std::string_view name) const {
  return const_cast<Section*>(this)->FindValue(name);
}

bool Section::RemoveValue(std::string_view name) {
  const auto it = std::find_if(values_.begin(), values_.end(),
                               [&](const Value& v) { return !v.is_comment() && EqualsNoCase(v.name, name); });
  if (it == values_.end()) return false;
  values_.erase(it);
  return true;
}

Section* Section::FindChild(std::string_view name) const {
  const auto it = child_index_.find(ToLowerAscii(name));
  return it == child_index_.end() ? nullptr : it->second;
}

Section* Section::FindOrAddChild(std::string_view name) {
  std::string key = ToLowerAscii(name);
  const auto it = child_index_.find(key);
  if (it != child_index_.end()) return it->second;
  children_.push_back(std::make_unique<Section>(std::string(name)));
  Section* child = children_.back().get();
  child_index_.emplace(std::move(key), child);
  return child;
}

bool Section::RemoveChild(std::string_view name) {
  const auto it = child_index_.find(ToLowerAscii(name));
  if (it == child_index_.end()) return false;
  const Section* child = it->second;
  child_index_.erase(it);
  children_.erase(std::find_if(children_.begin(), children_.end(),
                               [&](const std::unique_ptr<Section>& c) { return c.get() == child; }));
  return true;
}

void Section::Clear() {
  values_.clear();
  child_index_.clear();
  children_.clear();
}

}  // namespace settings_internal

namespace {

using settings_internal::Section;
using settings_internal::SplitPath;
using settings_internal::Value;

bool HasLineBreak(std::string_view s) { return s.find_first_of("\r\n") != std::string_view::npos; }

}  // namespace

Settings::Settings(SettingsOptions options) : options_(options) {
  MutexLock lock(mu_);
  root_ = std::make_unique<Section>(std::string());
  ResetRoot();
}

Settings::~Settings() = default;

void Settings::ResetRoot() {
  root_->Clear();
  AddHeader();
}

void Settings::Clear() {
  MutexLock lock(mu_);
  ResetRoot();
  ++changes_;
}

uint64_t Settings::change_count() const {
  MutexLock lock(mu_);
  return changes_;
}

std::vector<SettingsDiagnostic> Settings::LoadFromBytes(std::string_view text) {
  std::vector<SettingsDiagnostic> diagnostics;
  MutexLock lock(mu_);
  root_->Clear();
  ParseText(text, &diagnostics);
  ++changes_;
  return diagnostics;
}

std::string Settings::SaveToBytes() const {
  std::string out;
  MutexLock lock(mu_);
  WriteSection(*root_, std::string(), out);
  return out;
}

Section* Settings::FindSection(std::string_view path) const {
  Section* s = root_.get();
  for (const std::string_view name : SplitPath(path, options_.path_separator)) {
    s = s->FindChild(name);
    if (s == nullptr) return nullptr;
  }
  return s;
}

Result Settings::FindOrCreateSection(std::string_view path, Section** section) {
  const std::vector<std::string_view> names = SplitPath(path, options_.path_separator);
  if (names.size() > kMaxSectionDepth) return rc::kInvalidArg;
  for (const std::string_view name : names) {
    if (HasLineBreak(name)) return rc::kInvalidArg;
  }
  Section* s = root_.get();
  for (const std::string_view name : names) s = s->FindOrAddChild(name);
  *section = s;
  return rc::kOk;
}

std::vector<std::string> Settings::ListSections(std::string_view path) const {
  std::vector<std::string> names;
  MutexLock lock(mu_);
  if (const Section* s = FindSection(path)) {
    for (const auto& child : s->children()) names.push_back(child->name());
  }
  return names;
}

std::vector<std::string> Settings::ListValues(std::string_view path) const {
  std::vector<std::string> names;
  MutexLock lock(mu_);
  if (const Section* s = FindSection(path)) {
    for (const Value& v : s->values()) {
      if (!v.is_comment()) names.push_back(v.name);
    }
  }
  return names;
}

bool Settings::HasSection(std::string_view path) const {
  MutexLock lock(mu_);
  return FindSection(path) != nullptr;
}

Result Settings::CreateSection(std::string_view path) {
  MutexLock lock(mu_);
  Section* s = nullptr;
  const Result r = FindOrCreateSection(path, &s);
  if (r.ok()) ++changes_;
  return r;
}

Result Settings::DeleteSection(std::string_view path) {
  std::vector<std::string_view> names = SplitPath(path, options_.path_separator);
  if (names.empty()) return rc::kInvalidArg;
  const std::string_view last = names.back();
  names.pop_back();
  MutexLock lock(mu_);
  Section* parent = root_.get();
  for (const std::string_view name : names) {
    parent = parent->FindChild(name);
    if (parent == nullptr) return kNotFound;
  }
  if (!parent->RemoveChild(last)) return kNotFound;
  ++changes_;
  return rc::kOk;
}

const SettingsData* Settings::FindData(std::string_view path, std::string_view name) const {
  const Section* s = FindSection(path);
  if (s == nullptr) return nullptr;
  const Value* v = s->FindValue(name);
  return v == nullptr ? nullptr : &v->data;
}

std::optional<SettingsType> Settings::TypeOfValue(std::string_view path, std::string_view name) const {
  MutexLock lock(mu_);
  const SettingsData* d = FindData(path, name);
  if (d == nullptr) return std::nullopt;
  return TypeOf(*d);
}

Result Settings::DeleteValue(std::string_view path, std::string_view name) {
  MutexLock lock(mu_);
  Section* s = FindSection(path);
  if (s == nullptr || !s->RemoveValue(name)) return kNotFound;
  ++changes_;
  return rc::kOk;
}

// ---- typed reads ----

std::string Settings::ReadString(std::string_view path, std::string_view name, std::string_view def) const {
  MutexLock lock(mu_);
  const SettingsData* d = FindData(path, name);
  if (d == nullptr || IsArray(*d)) return std::string(def);
  return *SettingsValueText(ReloadedForm(*d, options_), options_);
}

WString Settings::ReadWideString(std::string_view path, std::string_view name, WStringView def) const {
  MutexLock lock(mu_);
  const SettingsData* d = FindData(path, name);
  if (d == nullptr) return WString(def);
  if (const auto* w = std::get_if<WString>(d)) return *w;
  const std::optional<std::string> text = SettingsValueText(*d, options_);
  if (!text) return WString(def);
  return DecodeSettingsWide(*text).value_or(WString(def));
}

int32_t Settings::ReadInteger(std::string_view path, std::string_view name, int32_t def) const {
  int32_t v = def;
  ReadInteger(path, name, &v).Ignore();
  return v;
}

Result Settings::ReadInteger(std::string_view path, std::string_view name, int32_t* value) const {
  MutexLock lock(mu_);
  const SettingsData* d = FindData(path, name);
  if (d == nullptr) return kNotFound;
  const SettingsData reloaded = ReloadedForm(*d, options_);
  if (const auto* i = std::get_if<int32_t>(&reloaded)) {
    *value = *i;
  } else if (const auto* b = std::get_if<bool>(&reloaded)) {
    *value = *b ? 1 : 0;
  } else {
    return kWrongType;
  }
  return rc::kOk;
}

bool Settings::ReadBoolean(std::string_view path, std::string_view name, bool def) const {
  MutexLock lock(mu_);
  const SettingsData* d = FindData(path, name);
  if (d == nullptr) return def;
  const SettingsData reloaded = ReloadedForm(*d, options_);
  if (const auto* b = std::get_if<bool>(&reloaded)) return *b;
  if (const auto* i = std::get_if<int32_t>(&reloaded)) return *i != 0;
  return def;
}

double Settings::ReadDouble(std::string_view path, std::string_view name, double def) const {
  MutexLock lock(mu_);
  const SettingsData* d = FindData(path, name);
  if (d == nullptr) return def;
  if (const auto* x = std::get_if<double>(d)) return *x;
  const SettingsData reloaded = ReloadedForm(*d, options_);
  if (const auto* i = std::get_if<int32_t>(&reloaded)) return *i;
  if (const auto* s = std::get_if<std::string>(&reloaded)) return ParseSettingsDouble(*s).value_or(def);
  return def;
}

Result Settings::ReadBinary(std::string_view path, std::string_view name, std::vector<uint8_t>* out) const {
  MutexLock lock(mu_);
  const SettingsData* d = FindData(path, name);
  if (d == nullptr) return kNotFound;
  if (const auto* bytes = std::get_if<std::vector<uint8_t>>(d)) {
    *out = *bytes;
    return rc::kOk;
  }
  const std::optional<std::string> text = SettingsValueText(*d, options_);
  std::optional<std::vector<uint8_t>> bytes;
  if (text) bytes = DecodeSettingsBinary(*text);
  if (!bytes) return kWrongType;
  *out = std::move(*bytes);
  return rc::kOk;
}

Result Settings::ReadBinary(std::string_view path, std::string_view name, uint8_t* buffer, size_t* size) const {
  std::vector<uint8_t> bytes;
  const Result r = ReadBinary(path, name, &bytes);
  if (r.failed()) return r;
  const bool fits = bytes.size() <= *size;
  *size = bytes.size();
  if (!fits) return kMoreData;
  if (!bytes.empty()) std::memcpy(buffer, bytes.data(), bytes.size());
  return rc::kOk;
}

// ---- typed writes ----

bool Settings::IsValidName(std::string_view name) const {
  if (name.empty() || name[0] == '#' || name[0] == options_.comment_prefix) return false;
  for (const char c : name) {
    if (c == '\r' || c == '\n' || c == '[' || c == ']' || c == options_.value_separator) return false;
  }
  return true;
}

Result Settings::Store(std::string_view path, std::string_view name, SettingsData data) {
  if (!IsValidName(name)) return rc::kInvalidArg;
  MutexLock lock(mu_);
  Section* s = nullptr;
  const Result r = FindOrCreateSection(path, &s);
  if (r.failed()) return r;
  if (Value* v = s->FindValue(name)) {
    v->data = std::move(data);
  } else {
    s->values().push_back(Value{std::string(name), std::move(data)});
  }
  ++changes_;
  return rc::kOk;
}

Result Settings::WriteString(std::string_view path, std::string_view name, std::string_view value) {
  if (HasLineBreak(value)) return rc::kInvalidArg;
  return Store(path, name, std::string(value));
}

Result Settings::WriteWideString(std::string_view path, std::string_view name, WStringView value) {
  return Store(path, name, WString(value));
}

Result Settings::WriteInteger(std::string_view path, std::string_view name, int32_t value) {
  return Store(path, name, value);
}

Result Settings::WriteBoolean(std::string_view path, std::string_view name, bool value) {
  return Store(path, name, value);
}

Result Settings::WriteDouble(std::string_view path, std::string_view name, double value) {
  return Store(path, name, value);
}

Result Settings::WriteBinary(std::string_view path, std::string_view name, std::span<const uint8_t> value) {
  return Store(path, name, std::vector<uint8_t>(value.begin(), value.end()));
}

// ---- arrays ----

size_t Settings::ArrayLength(std::string_view path, std::string_view name) const {
  MutexLock lock(mu_);
  const SettingsData* d = FindData(path, name);
  if (d == nullptr) return 0;
  if (const auto* a = std::get_if<std::vector<std::string>>(d)) return a->size();
  if (const auto* w = std::get_if<std::vector<WString>>(d)) return w->size();
  return 0;
}

std::string Settings::ReadStringElement(std::string_view path, std::string_view name, size_t index,
                                        std::string_view def) const {
  MutexLock lock(mu_);
  const SettingsData* d = FindData(path, name);
  if (d == nullptr) return std::string(def);
  if (const auto* a = std::get_if<std::vector<std::string>>(d)) {
    return index < a->size() ? (*a)[index] : std::string(def);
  }
  if (const auto* w = std::get_if<std::vector<WString>>(d)) {
    return index < w->size() ? EncodeSettingsWide((*w)[index]) : std::string(def);
  }
  return std::string(def);
}

WString Settings::ReadWideStringElement(std::string_view path, std::string_view name, size_t index,
                                        WStringView def) const {
  MutexLock lock(mu_);
  const SettingsData* d = FindData(path, name);
  if (d == nullptr) return WString(def);
  if (const auto* w = std::get_if<std::vector<WString>>(d)) {
    return index < w->size() ? (*w)[index] : WString(def);
  }
  if (const auto* a = std::get_if<std::vector<std::string>>(d)) {
    if (index < a->size()) return DecodeSettingsWide((*a)[index]).value_or(WString(def));
  }
  return WString(def);
}

namespace {

template <typename T>
void PutElement(std::vector<T>& array, size_t index, T element) {
  if (index >= array.size()) array.resize(index + 1);
  array[index] = std::move(element);
}

// The array value `name` of the section, made when missing; a value of the
// name that is no array is replaced by `empty`.
Value& ArrayValue(Section& section, std::string_view name, SettingsData empty) {
  Value* v = section.FindValue(name);
  if (v == nullptr) {
    section.values().push_back(Value{std::string(name), std::move(empty)});
    return section.values().back();
  }
  if (!IsArray(v->data)) v->data = std::move(empty);
  return *v;
}

}  // namespace

Result Settings::WriteStringElement(std::string_view path, std::string_view name, size_t index,
                                    std::string_view value) {
  if (index >= kMaxArrayLength || HasLineBreak(value) || !IsValidName(name)) return rc::kInvalidArg;
  MutexLock lock(mu_);
  Section* s = nullptr;
  if (const Result r = FindOrCreateSection(path, &s); r.failed()) return r;
  Value& v = ArrayValue(*s, name, std::vector<std::string>());
  // An 8-bit element makes the whole array 8-bit; the wide elements become
  // the texts they are written as.
  if (TypeOf(v.data) == SettingsType::kWideStringArray) v.data = ReloadedForm(v.data, options_);
  PutElement(std::get<std::vector<std::string>>(v.data), index, std::string(value));
  ++changes_;
  return rc::kOk;
}

Result Settings::WriteWideStringElement(std::string_view path, std::string_view name, size_t index,
                                        WStringView value) {
  if (index >= kMaxArrayLength || !IsValidName(name)) return rc::kInvalidArg;
  MutexLock lock(mu_);
  Section* s = nullptr;
  if (const Result r = FindOrCreateSection(path, &s); r.failed()) return r;
  Value& v = ArrayValue(*s, name, std::vector<WString>());
  if (auto* a = std::get_if<std::vector<std::string>>(&v.data)) {
    PutElement(*a, index, EncodeSettingsWide(value));
  } else {
    PutElement(std::get<std::vector<WString>>(v.data), index, WString(value));
  }
  ++changes_;
  return rc::kOk;
}

}  // namespace trv
