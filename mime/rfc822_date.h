// Dates in message headers (RFC 822 / RFC 5322 3.3): the writer for "Date",
// the reader for "Date" and "Received", and the time-zone reader.
#pragma once

#include <string>
#include <string_view>

#include "base/date_value.h"
#include "base/wide_string.h"

namespace trv {

// The local time zone as the C library reports it (TZ is honoured).
struct ZoneInfo {
  bool known = false;    // false: no zone information at all
  int bias_minutes = 0;  // UTC minus local time, daylight saving included
  bool daylight = false; // daylight saving time in force
};

// The zone in force at `date` (kNoDate: now), from localtime_r and tm_gmtoff.
ZoneInfo LocalZoneInfo(double date);

// "Tue, 4 Jan 2005 09:05:07 +0100": the date in the zone's local time with the
// zone's offset. A known zone with bias 0 is written "-0000" (deliberately);
// an unknown zone writes UTC with "+0000". kNoDate writes the current time.
std::string FormatDate(double date, const ZoneInfo& zone);
// FormatDate with the local zone in force at that date.
std::string WriteDate(double date = kNoDate);

// Reads a date (the value of "Date", or the text after the last ";" of
// "Received"): an optional day name, day, month name, a four-digit year
// (1901..10000), hour, minute, optional seconds, and a zone. On success
// `*value` is the UTC date. On failure (any field out of range, a missing
// part, an unreadable zone) `*value` is the current time, or 0 for an empty
// text, and false is returned.
bool ReadDate(WStringView text, double* value);
bool ReadDate(std::string_view text, double* value);

// Reads a zone token: "+hhmm" / "-hhmm" (at least 5 characters; a sign
// travels only with a non-zero hour, so "-0030" is +0.5), a zone name (UT,
// GMT, EST, EDT, CST, CDT, MST, MDT, PST, PDT, any case) or a military letter
// with the RFC 822 signs ("A" = -1 ... "Z" = 0, "J" refused). Offsets outside
// -12..13 hours fail. `*hours` is 0 on failure.
bool ReadTimeZone(WStringView token, double* hours);

}  // namespace trv
