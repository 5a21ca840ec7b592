// The date and zone readers; a date read successfully is written again.
#include <cstddef>
#include <cstdint>
#include <string>

#include "base/date_value.h"
#include "base/wide_string.h"
#include "mime/rfc822_date.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace trv;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  double value = 0;
  if (ReadDate(text, &value)) {
    FormatDate(value, {true, 0, false});
    CivilFromDate(value);
  }
  ReadDate(Utf8ToWide(text), &value);
  double hours = 0;
  ReadTimeZone(Latin1ToWide(text), &hours);
  if (hours < -12.0 || hours > 13.0) __builtin_trap();
  return 0;
}
