// The command line's small argument parser: positional arguments and
// "--name" options, with or without a value, in any order after the
// command. "--" ends the options; "-" alone is a positional argument
// (standard input).
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace trv::cli {

struct ArgOptions {
  std::vector<std::string> flags;         // options without a value ("--purge")
  std::vector<std::string> with_value;    // options followed by a value ("--eml DIR")
  std::vector<std::string> repeatable;    // with a value, and may be given again ("--to A --to B")
};

struct ParsedArgs {
  std::vector<std::string> positional;
  std::map<std::string, std::string> options;  // "--purge" -> "", "--eml" -> "DIR"
  // Every value of a repeatable option, in order (options holds the last).
  std::map<std::string, std::vector<std::string>> lists;

  bool has(std::string_view name) const { return options.count(std::string(name)) != 0; }
  const std::string& value(std::string_view name) const;
  // The values of a repeatable option; empty when it was not given.
  const std::vector<std::string>& values(std::string_view name) const;
};

// Parses `args` by `accepted`. False with `*error` set (for the usage message)
// on an unknown option, an option without its value, or one given twice.
bool ParseArgs(const std::vector<std::string>& args, const ArgOptions& accepted, ParsedArgs* out, std::string* error);

}  // namespace trv::cli
