#include "base/date_value.h"

#include <chrono>
#include <cmath>

namespace trv {

namespace {
constexpr int64_t kMsPerDay = 86400000;
constexpr int64_t kDaysFrom1970To1899 = -25569;  // 30 Dec 1899 relative to 1 Jan 1970

// Days since 1 January 1970 of a proleptic Gregorian date (H. Hinnant's
// days_from_civil).
int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

void CivilFromDays(int64_t z, int* y, int* m, int* d) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  *d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  *m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  *y = static_cast<int>(static_cast<int64_t>(yoe) + era * 400 + (*m <= 2));
}
}  // namespace

double DateFromCivil(const CivilTime& t) {
  const unsigned month = t.month < 1 ? 1u : t.month > 12 ? 12u : static_cast<unsigned>(t.month);
  const int64_t days = DaysFromCivil(t.year, month, 1) + (t.day - 1) - kDaysFrom1970To1899;
  const int64_t ms = ((int64_t(t.hour) * 60 + t.minute) * 60 + t.second) * 1000 + t.millisecond;
  return static_cast<double>(days) + static_cast<double>(ms) / kMsPerDay;
}

CivilTime CivilFromDate(double date) {
  if (!std::isfinite(date)) date = 0;
  // Clamp far outside anything read or written (about 27,000 years either
  // way), so the millisecond count cannot overflow.
  if (date < -1e7) date = -1e7;
  if (date > 1e7) date = 1e7;
  const int64_t total_ms = static_cast<int64_t>(std::llround(date * kMsPerDay));
  int64_t days = total_ms / kMsPerDay;
  int64_t ms = total_ms % kMsPerDay;
  if (ms < 0) {
    ms += kMsPerDay;
    --days;
  }
  CivilTime t;
  const int64_t unix_days = days + kDaysFrom1970To1899;
  CivilFromDays(unix_days, &t.year, &t.month, &t.day);
  t.hour = static_cast<int>(ms / 3600000);
  t.minute = static_cast<int>(ms / 60000 % 60);
  t.second = static_cast<int>(ms / 1000 % 60);
  t.millisecond = static_cast<int>(ms % 1000);
  // 1 January 1970 was a Thursday.
  t.day_of_week = static_cast<int>(((unix_days % 7) + 7 + 4) % 7);
  return t;
}

double DateFromTimeT(int64_t seconds_since_1970) {
  return static_cast<double>(seconds_since_1970) / 86400.0 - kDaysFrom1970To1899;
}

int64_t TimeTFromDate(double date) {
  return static_cast<int64_t>(std::llround((date + kDaysFrom1970To1899) * 86400.0));
}

double CurrentDate() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const int64_t ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
  return static_cast<double>(ms) / kMsPerDay - kDaysFrom1970To1899;
}

}  // namespace trv
