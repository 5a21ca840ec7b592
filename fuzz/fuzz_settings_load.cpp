// Reads arbitrary bytes as a settings file. Checks that nothing crashes, that
// the second save equals the first (what a load keeps, a save writes back),
// and that typed reads of every value are safe.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "core/settings_tree.h"

namespace {

void ReadEverything(const trv::Settings& s, const std::string& path, int depth) {
  if (depth > 40) std::abort();  // the tree is never deeper than its limit
  for (const std::string& name : s.ListValues(path)) {
    (void)s.ReadString(path, name);
    (void)s.ReadWideString(path, name);
    (void)s.ReadInteger(path, name, 0);
    (void)s.ReadBoolean(path, name, false);
    (void)s.ReadDouble(path, name, 0);
    std::vector<uint8_t> bytes;
    (void)s.ReadBinary(path, name, &bytes);
    const size_t n = s.ArrayLength(path, name);
    if (n > 0) (void)s.ReadWideStringElement(path, name, n - 1);
  }
  for (const std::string& child : s.ListSections(path)) {
    ReadEverything(s, path.empty() ? child : path + "\\" + child, depth + 1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  trv::SettingsOptions options;
  options.numeric_booleans = (data[0] & 1) != 0;
  options.comment_prefix = (data[0] & 2) != 0 ? ';' : '#';
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);

  trv::Settings first(options);
  first.LoadFromBytes(text);
  const std::string saved = first.SaveToBytes();
  trv::Settings second(options);
  second.LoadFromBytes(saved);
  if (second.SaveToBytes() != saved) std::abort();
  ReadEverything(second, "", 0);
  return 0;
}
