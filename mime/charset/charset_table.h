// The table of character sets the library lists and its aliases (internal).
#pragma once

#include <cstddef>
#include <string_view>

#include "mime/charset/text_codec.h"

namespace trv::cnv {

struct TableEntry {
  const char* mime_name;    // canonical MIME name, lower case
  const char* system_name;  // iconv's name
  const char* display;      // a name for people
  CodecKind kind;
  bool listed;              // offered by EnumCharsets
};

// The entry for a lower-case name or alias, or nullptr.
const TableEntry* FindTableEntry(std::string_view lower_name);

// The entries in listing order.
const TableEntry* TableBegin();
size_t TableSize();

}  // namespace trv::cnv
