// The marks a new message gets: "Date", "Message-ID" and "MIME-Version", and
// the boundaries of its containers. The clock and the random numbers come
// from a StampSource, so that tests can fix them.
#pragma once

#include "base/date_value.h"
#include "base/wide_string.h"
#include "mime/header.h"

namespace trv {

struct StampSource {
  virtual ~StampSource() = default;
  // The current time as a UTC date value ("Date").
  virtual double Now() = 0;
  // The current local time with milliseconds (identifiers, boundaries).
  virtual CivilTime LocalNow() = 0;
  // A pseudo-random number from 0 to 32767.
  virtual unsigned Random() = 0;
};

// The system clock and a pseudo-random generator seeded once per process.
// Safe to use from several threads.
StampSource& SystemStamp();

// "<" + year, month, day, hour, minute, second, milliseconds ("%04u%02u%02u
// %02u%02u%02u%04u"), "@", then a second and a first random number ("%04u%04u")
// + ">". The random numbers are drawn first, then second.
WString MakeMessageId(StampSource& stamp);

// "----------=_" + the local time as in MakeMessageId + one random number
// ("%04u").
WString MakeBoundary(StampSource& stamp);

// Sets "Date" to now, replaces any "Message-ID" with a new one and sets
// "MIME-Version" to "1.0".
void StampNewMessage(CXmHeader* header, StampSource& stamp = SystemStamp());

}  // namespace trv
