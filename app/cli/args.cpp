#include "app/cli/args.h"

#include <algorithm>

namespace trv::cli {

namespace {
bool Listed(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}
}  // namespace

const std::string& ParsedArgs::value(std::string_view name) const {
  static const std::string kEmpty;
  const auto it = options.find(std::string(name));
  return it == options.end() ? kEmpty : it->second;
}

const std::vector<std::string>& ParsedArgs::values(std::string_view name) const {
  static const std::vector<std::string> kNone;
  const auto it = lists.find(std::string(name));
  return it == lists.end() ? kNone : it->second;
}

bool ParseArgs(const std::vector<std::string>& args, const ArgOptions& accepted, ParsedArgs* out, std::string* error) {
  *out = ParsedArgs();
  bool options_end = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (options_end || a.size() < 2 || a[0] != '-') {
      out->positional.push_back(a);
      continue;
    }
    if (a == "--") {
      options_end = true;
      continue;
    }
    std::string name = a;
    std::string value;
    bool has_inline_value = false;
    if (const size_t eq = a.find('='); a.rfind("--", 0) == 0 && eq != std::string::npos) {
      name = a.substr(0, eq);
      value = a.substr(eq + 1);
      has_inline_value = true;
    }
    const bool repeatable = Listed(accepted.repeatable, name);
    if (out->options.count(name) && !repeatable) {
      *error = "option " + name + " given twice";
      return false;
    }
    if (Listed(accepted.flags, name) && !has_inline_value) {
      out->options[name] = "";
    } else if (repeatable || Listed(accepted.with_value, name)) {
      if (!has_inline_value) {
        if (i + 1 >= args.size()) {
          *error = "option " + name + " needs a value";
          return false;
        }
        value = args[++i];
      }
      out->options[name] = value;
      if (repeatable) out->lists[name].push_back(value);
    } else {
      *error = "unknown option " + a;
      return false;
    }
  }
  return true;
}

}  // namespace trv::cli
