// Typed values of the settings file ("Settings.ini") and the text forms they
// are written as. Pure functions, no I/O; the tree that holds the values is
// core/settings_tree.h.
//
// Text forms, one line each:
//   1 boolean       "true"/"false", or "1"/"0" when the store has numeric booleans
//   2 integer       "%ld" of a 32-bit signed value
//   3 8-bit string  as it is
//   4 string array  one line per element
//   5 binary        "584D" followed by "%02X" per byte; nothing at all when empty
//   6 double        "%f" (six decimals, independent of the process locale)
//   7 wide string   EF BB BF followed by each UTF-16 unit encoded by itself:
//                   below 0x80 one byte, below 0x800 two, else three; surrogate
//                   pairs are not combined. CR and LF are written in their
//                   two-byte forms (C0 8D, C0 8A) so that a multi-line text
//                   (a signature) stays on one line of the file; the decoder
//                   takes the two-byte forms back to the same unit.
//   8 wide array    one line per element, each as type 7
//
// On reading, only three types come out of the text: "TRUE"/"FALSE" in any
// letter case is a boolean, a canonical 32-bit "%ld" text is an integer,
// anything else stays an 8-bit string ("007", "+5", "2147483648" stay text).
// Wide strings, binary data and doubles are taken from that text by the typed
// reads.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "base/wide_string.h"

namespace trv {

// The type codes of the file format.
enum class SettingsType : int {
  kBoolean = 1,
  kInteger = 2,
  kString = 3,
  kStringArray = 4,
  kBinary = 5,
  kDouble = 6,
  kWideString = 7,
  kWideStringArray = 8,
};

// The alternatives are in type-code order: index() + 1 is the code.
using SettingsData = std::variant<bool, int32_t, std::string, std::vector<std::string>,
                                  std::vector<uint8_t>, double, WString, std::vector<WString>>;

inline SettingsType TypeOf(const SettingsData& d) { return static_cast<SettingsType>(d.index() + 1); }
inline bool IsArray(const SettingsData& d) {
  return TypeOf(d) == SettingsType::kStringArray || TypeOf(d) == SettingsType::kWideStringArray;
}

// The store options. The separators must be distinct printable ASCII
// characters other than "[" and "]".
//
// The comment prefix is "#" by default: comment values are named "#1", "#2",
// ... in the tree, so with "#" a name that begins with the prefix and a
// comment are one and the same thing, and only one class of names ("#...") is
// reserved. With ";" a value named ";x" would come back as a comment and one
// named "#x" would be written without its name: two classes lost instead of
// one. "#" is also what a Linux user expects in a configuration file.
struct SettingsOptions {
  char path_separator = '\\';
  char value_separator = '=';
  char comment_prefix = '#';
  bool numeric_booleans = false;
};

inline constexpr std::string_view kSettingsWideMark = "\xEF\xBB\xBF";
inline constexpr std::string_view kSettingsBinaryMark = "584D";

// Type 7 text of a wide string (mark included).
std::string EncodeSettingsWide(WStringView text);
// The wide string of a type 7 text; none when the text does not start with
// the mark. Bytes that form no sequence become U+FFFD; four-byte UTF-8
// sequences (from a hand edit) become a surrogate pair.
std::optional<WString> DecodeSettingsWide(std::string_view text);

// Type 5 text of binary data ("" for no bytes).
std::string EncodeSettingsBinary(std::span<const uint8_t> bytes);
// The bytes of a type 5 text: "" gives no bytes; otherwise "584D" and pairs
// of hexadecimal digits (either case). None for anything else.
std::optional<std::vector<uint8_t>> DecodeSettingsBinary(std::string_view text);

// The integer of a text that "%ld" prints back identically, within 32 bits.
std::optional<int32_t> ParseSettingsInteger(std::string_view text);
std::string FormatSettingsInteger(int32_t v);

// "%f" in the C locale, and its inverse (the whole text must be a number;
// "inf" and "nan" are accepted as "%f" writes them).
std::string FormatSettingsDouble(double v);
std::optional<double> ParseSettingsDouble(std::string_view text);

// The type decided from a value's text by the reading rules: boolean,
// integer or 8-bit string.
SettingsData ParseSettingsText(std::string_view text);

// The text a scalar value is written as; none for arrays.
std::optional<std::string> SettingsValueText(const SettingsData& d, const SettingsOptions& options);

// The value as saving and loading (as often as it takes to settle) turn it
// into: scalars become the boolean, integer or string that their text reads
// back as (a boolean an integer with numeric booleans); an array becomes
// an array of 8-bit element texts. Typed reads look at this form whenever the
// stored type is not the one asked for, so a read gives the same answer
// before and after the file is written and read again.
SettingsData ReloadedForm(const SettingsData& d, const SettingsOptions& options);

}  // namespace trv
