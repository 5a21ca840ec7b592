// The in-memory layout of a settings tree: sections with ordered values and
// ordered child sections. Used by the tree (core/settings_tree.cpp) and by its
// text reader and writer (core/settings_format.cpp); callers use the Settings
// class and never see these types. Not thread-safe on its own: the Settings
// object's mutex guards every section.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/settings_value.h"

namespace trv::settings_internal {

// The names of a section path; empty names (doubled or outer separators) are
// skipped, so "\", "" and "\\" all name the root.
std::vector<std::string_view> SplitPath(std::string_view path, char separator);

struct Value {
  std::string name;  // comments: "#" followed by a running number
  SettingsData data;

  bool is_comment() const { return name.starts_with('#'); }
};

class Section {
 public:
  explicit Section(std::string name) : name_(std::move(name)) {}

  const std::string& name() const { return name_; }
  std::vector<Value>& values() { return values_; }
  const std::vector<Value>& values() const { return values_; }
  const std::vector<std::unique_ptr<Section>>& children() const { return children_; }

  // Names compare without regard to ASCII letter case. Comments are never
  // found by name.
  Value* FindValue(std::string_view name);
  const Value* FindValue(std::string_view name) const;
  bool RemoveValue(std::string_view name);

  Section* FindChild(std::string_view name) const;
  // The child of that name, appended when it does not exist yet.
  Section* FindOrAddChild(std::string_view name);
  bool RemoveChild(std::string_view name);
  void Clear();

 private:
  std::string name_;
  std::vector<Value> values_;
  std::vector<std::unique_ptr<Section>> children_;
  std::unordered_map<std::string, Section*> child_index_;  // lower-case name -> child
};

}  // namespace trv::settings_internal
