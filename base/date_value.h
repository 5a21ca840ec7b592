// Date values: a double counting days since 30 December 1899 00:00 UTC, the
// fraction being the time of day (1/1440 is one minute). 0.0 means "no date".
// The scale is linear throughout; values before 1899 are not used.
#pragma once

#include <cstdint>

namespace trv {

inline constexpr double kNoDate = 0.0;

struct CivilTime {
  int year = 1899;
  int month = 12;  // 1..12
  int day = 30;    // 1..31
  int hour = 0;
  int minute = 0;
  int second = 0;
  int millisecond = 0;
  int day_of_week = 6;  // 0 = Sunday; filled by CivilFromDate, ignored by DateFromCivil
};

// Fields beyond their range roll over (31 February is 3 March; 24:00 is the
// next day); the month must be 1..12.
double DateFromCivil(const CivilTime& t);
// Broken into fields, rounded to the nearest millisecond.
CivilTime CivilFromDate(double date);

double DateFromTimeT(int64_t seconds_since_1970);
// Rounded to the nearest second.
int64_t TimeTFromDate(double date);

// The current time in UTC, to the millisecond.
double CurrentDate();

}  // namespace trv
