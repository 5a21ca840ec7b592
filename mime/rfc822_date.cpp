#include "mime/rfc822_date.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace trv {

namespace {
constexpr const char* kDayNames[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr const char* kMonthNames[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

struct NamedZone {
  const char* name;
  int hours;
};
constexpr NamedZone kZones[] = {{"UT", 0},   {"GMT", 0},  {"EST", -5}, {"EDT", -4}, {"CST", -6},
                                {"CDT", -5}, {"MST", -7}, {"MDT", -6}, {"PST", -8}, {"PDT", -7}};

bool IsDigit(char16_t c) { return c >= u'0' && c <= u'9'; }
bool IsBlank(char16_t c) { return c == u' ' || c == u'\t'; }

// A field of digits only, saturating far above every range checked.
bool Number(const WString& s, int* value) {
  if (s.empty()) return false;
  long v = 0;
  for (char16_t c : s) {
    if (!IsDigit(c)) return false;
    if (v < 100000) v = v * 10 + (c - u'0');
  }
  *value = static_cast<int>(v);
  return true;
}

int MonthNumber(WStringView name) {
  for (int i = 0; i < 12; ++i) {
    if (EqualsNoCase(name, W(kMonthNames[i]))) return i + 1;
  }
  return 0;
}
}  // namespace

ZoneInfo LocalZoneInfo(double date) {
  ZoneInfo zone;
  const time_t t = date == kNoDate ? std::time(nullptr) : static_cast<time_t>(TimeTFromDate(date));
  tzset();
  struct tm local {};
  if (!localtime_r(&t, &local)) return zone;
  zone.known = true;
  zone.bias_minutes = static_cast<int>(-local.tm_gmtoff / 60);
  zone.daylight = local.tm_isdst > 0;
  return zone;
}

std::string FormatDate(double date, const ZoneInfo& zone) {
  if (date == kNoDate) date = CurrentDate();
  char zone_text[16] = "+0000";
  if (zone.known) {
    date -= zone.bias_minutes / 1440.0;
    const unsigned abs_bias = static_cast<unsigned>(std::abs(zone.bias_minutes));
    std::snprintf(zone_text, sizeof zone_text, "%c%02u%02u", zone.bias_minutes < 0 ? '+' : '-',
                  abs_bias / 60 % 100, abs_bias % 60);
  }
  const CivilTime t = CivilFromDate(date);
  char out[64];
  std::snprintf(out, sizeof out, "%s, %u %s %04u %02u:%02u:%02u %s", kDayNames[t.day_of_week],
                static_cast<unsigned>(t.day), kMonthNames[t.month - 1], static_cast<unsigned>(t.year),
                static_cast<unsigned>(t.hour), static_cast<unsigned>(t.minute),
                static_cast<unsigned>(t.second), zone_text);
  return out;
}

std::string WriteDate(double date) { return FormatDate(date, LocalZoneInfo(date)); }

bool ReadTimeZone(WStringView token, double* hours) {
  *hours = 0;
  if (token.empty()) return false;
  double offset = 0;
  if (token[0] == u'+' || token[0] == u'-') {
    if (token.size() < 5) return false;
    if (!IsDigit(token[1]) || !IsDigit(token[2]) || !IsDigit(token[3]) || !IsDigit(token[4])) return false;
    int h = (token[1] - u'0') * 10 + (token[2] - u'0');
    if (token[0] == u'-') h = -h;
    const int m = (token[3] - u'0') * 10 + (token[4] - u'0');
    if (m > 59) return false;
    offset = h < 0 ? h - m / 60.0 : h + m / 60.0;
  } else {
    bool named = false;
    for (const NamedZone& z : kZones) {
      if (EqualsNoCase(token, W(z.name))) {
        offset = z.hours;
        named = true;
        break;
      }
    }
    if (!named) {
      if (token.size() != 1) return false;
      const char16_t c = token[0] >= u'a' && token[0] <= u'z' ? token[0] - 32 : token[0];
      if (c < u'A' || c == u'J') return false;
      if (c <= u'I') {
        offset = -(c - u'A' + 1);
      } else if (c <= u'M') {
        offset = -(c - u'K' + 10);
      } else if (c <= u'Y') {
        offset = c - u'N' + 1;
      } else {
        offset = 0;
      }
    }
  }
  if (offset < -12.0 || offset > 13.0) return false;
  *hours = offset;
  return true;
}

bool ReadDate(WStringView text, double* value) {
  *value = 0;
  if (text.empty()) return false;
  text = TrimView(text);

  enum State { kDayName, kDay, kMonth, kYear, kHour, kMinute, kSecond, kZone };
  State state = kDayName;
  bool error = false;
  CivilTime t;
  WString field;
  WString zone;
  // Ends the numeric field in `field`; out-of-range values are errors.
  auto take = [&](int* out, int min, int max, int fallback) {
    if (!Number(field, out) || *out < min || *out > max) {
      error = true;
      *out = fallback;
    }
    field.clear();
  };

  for (char16_t c : text) {
    switch (state) {
      case kDayName:
        if (IsDigit(c)) {
          field.push_back(c);
          state = kDay;
        }
        break;
      case kDay:
        if (IsBlank(c)) {
          take(&t.day, 1, 31, 1);
          state = kMonth;
        } else {
          field.push_back(c);
        }
        break;
      case kMonth:
        if (IsDigit(c)) {
          t.month = MonthNumber(TrimView(field));
          if (t.month == 0) {
            error = true;
            t.month = 1;
          }
          field.assign(1, c);
          state = kYear;
        } else {
          field.push_back(c);
        }
        break;
      case kYear:
        if (IsBlank(c)) {
          take(&t.year, 1901, 10000, 2000);
          state = kHour;
        } else {
          field.push_back(c);
        }
        break;
      case kHour:
      case kMinute:
      case kSecond:
        if (IsBlank(c) || c == u':') {
          if (field.empty() && IsBlank(c)) break;  // blanks before the number
          if (state == kHour) {
            take(&t.hour, 0, 23, 0);
            state = kMinute;
          } else if (state == kMinute) {
            take(&t.minute, 0, 59, 0);
            state = c == u':' ? kSecond : kZone;
          } else {
            take(&t.second, 0, 59, 0);
            state = kZone;
          }
        } else {
          field.push_back(c);
        }
        break;
      case kZone:
        zone.push_back(c);
        break;
    }
  }

  // The zone is the first word of what follows the time, so a trailing
  // comment such as "(CET)" does not hide a named zone.
  WStringView zone_token = TrimView(zone);
  for (size_t i = 0; i < zone_token.size(); ++i) {
    if (IsBlank(zone_token[i])) {
      zone_token = zone_token.substr(0, i);
      break;
    }
  }
  double zone_hours = 0;
  const bool zone_ok = state == kZone && ReadTimeZone(zone_token, &zone_hours);
  if (state != kZone || error || !zone_ok) {
    *value = CurrentDate();
    return false;
  }
  *value = DateFromCivil(t) - zone_hours / 24.0;
  return true;
}

bool ReadDate(std::string_view text, double* value) { return ReadDate(Latin1ToWide(text), value); }

}  // namespace trv
