// 16-byte identifiers of storages, folder files and services, laid out as the
// platform keeps them: Data1 (32-bit), Data2 and Data3 (16-bit) little-endian,
// then eight bytes as they are.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/wide_string.h"

namespace trv {

struct Guid {
  std::array<uint8_t, 16> bytes{};

  static Guid Nil() { return Guid{}; }
  // A random (version 4) identifier from the system's random source.
  static Guid NewRandom();

  uint32_t data1() const;
  uint16_t data2() const;
  uint16_t data3() const;

  bool IsNil() const;

  // Registry form: "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}", upper case, 38 characters.
  std::string ToRegistryString() const;
  WString ToRegistryWString() const;
  // The same form in lower case (service section names).
  std::string ToLowerString() const;

  // Parses the registry form (either letter case). The text must be exactly
  // 38 characters with "{" at 0, "-" at 9, 14, 19, 24 and "}" at 37.
  static std::optional<Guid> Parse(std::string_view text);
  static std::optional<Guid> Parse(WStringView text);

  friend bool operator==(const Guid&, const Guid&) = default;
  friend auto operator<=>(const Guid&, const Guid&) = default;
};

}  // namespace trv
