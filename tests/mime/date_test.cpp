// Date values, the date writer and reader with their zone rules, and the
// sent and received dates of a header.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

#include "base/date_value.h"
#include "mime/header.h"
#include "mime/message_dates.h"
#include "mime/rfc822_date.h"

namespace trv {
namespace {

double Utc(int y, int mo, int d, int h = 0, int mi = 0, int s = 0) {
  return DateFromCivil({y, mo, d, h, mi, s, 0, 0});
}

// Sets TZ for one scope and restores it.
class ScopedTz {
 public:
  explicit ScopedTz(const char* tz) {
    if (const char* old = std::getenv("TZ")) old_ = old;
    Set(tz);
  }
  ~ScopedTz() { Set(old_ ? old_->c_str() : nullptr); }

 private:
  static void Set(const char* tz) {
    tz ? setenv("TZ", tz, 1) : unsetenv("TZ");
    tzset();
  }
  std::optional<std::string> old_;
};

TEST(DateValueTest, KnownPointsAndRoundTrips) {
  EXPECT_EQ(Utc(1970, 1, 1), 25569.0);
  EXPECT_EQ(Utc(2000, 3, 1) - Utc(2000, 2, 28), 2.0) << "2000 is a leap year";
  EXPECT_EQ(Utc(2100, 3, 1) - Utc(2100, 2, 28), 1.0) << "2100 is not";
  EXPECT_EQ(TimeTFromDate(Utc(2005, 1, 4, 9, 5, 7)), 1104829507);
  EXPECT_EQ(CivilFromDate(Utc(2005, 1, 4)).day_of_week, 2);  // a Tuesday
  for (const CivilTime& in : {CivilTime{2005, 1, 4, 9, 5, 7}, CivilTime{1901, 1, 1, 0, 0, 0},
                              CivilTime{9999, 12, 31, 23, 59, 59}, CivilTime{2024, 2, 29, 0, 0, 1}}) {
    const CivilTime out = CivilFromDate(DateFromCivil(in));
    EXPECT_EQ(std::tie(out.year, out.month, out.day, out.hour, out.minute, out.second),
              std::tie(in.year, in.month, in.day, in.hour, in.minute, in.second)) << in.year;
  }
}

TEST(DateWriterTest, ZoneRules) {
  const double date = Utc(2005, 1, 4, 8, 5, 7);
  struct Row { const char* name; ZoneInfo zone; const char* out; };
  const Row rows[] = {
      {"one hour east", {true, -60, false}, "Tue, 4 Jan 2005 09:05:07 +0100"},
      {"known zone with bias 0 is -0000", {true, 0, false}, "Tue, 4 Jan 2005 08:05:07 -0000"},
      {"unknown zone is +0000 in UTC", {false, 0, false}, "Tue, 4 Jan 2005 08:05:07 +0000"},
      {"west with minutes", {true, 570, false}, "Mon, 3 Jan 2005 22:35:07 -0930"},
      {"east with minutes", {true, -345, false}, "Tue, 4 Jan 2005 13:50:07 +0545"},
  };
  for (const Row& r : rows) EXPECT_EQ(FormatDate(date, r.zone), r.out) << r.name;
}

TEST(DateWriterTest, LocalZoneComesFromTz) {
  {
    ScopedTz tz("CET-1CEST,M3.5.0,M10.5.0/3");
    const ZoneInfo winter = LocalZoneInfo(Utc(2005, 1, 4, 8)), summer = LocalZoneInfo(Utc(2005, 7, 4, 8));
    EXPECT_EQ(std::tie(winter.known, winter.bias_minutes, winter.daylight), std::make_tuple(true, -60, false));
    EXPECT_EQ(std::tie(summer.known, summer.bias_minutes, summer.daylight), std::make_tuple(true, -120, true));
    EXPECT_EQ(WriteDate(Utc(2005, 7, 4, 8, 5, 7)), "Mon, 4 Jul 2005 10:05:07 +0200");
  }
  double back = 0;
  ASSERT_TRUE(ReadDate(WriteDate(), &back));
  EXPECT_NEAR(back, CurrentDate(), 2.0 / 86400) << "the current time, read back, is now";
}

// A date that cannot be read gives the current time, an empty text 0.
TEST(DateReaderTest, Table) {
  const double kBad = -1;
  struct Row { const char* text; double utc; };
  const Row rows[] = {
      {"Tue, 4 Jan 2005 09:05:07 +0100", Utc(2005, 1, 4, 8, 5, 7)},
      {"4 Jan 2005 09:05 +0100", Utc(2005, 1, 4, 8, 5, 0)},
      {"  Tue,  04 jan 2005  09:05:07 GMT  ", Utc(2005, 1, 4, 9, 5, 7)},
      {"Tue, 4 Jan 2005 09:05:07 EST (comment)", Utc(2005, 1, 4, 14, 5, 7)},
      {"Mon, 31 Dec 1901 23:59:59 Z", Utc(1901, 12, 31, 23, 59, 59)},
      {"1 Jan 10000 00:00:00 +0000", Utc(10000, 1, 1)},
      {"Tue, 4 Jan 2005 9:5:7 +0100", Utc(2005, 1, 4, 8, 5, 7)},
      {"4 Jan 2005 09:05:07 N", Utc(2005, 1, 4, 8, 5, 7)},          // a military zone letter
      {"4 Jan 2005 09:05:07 -0030", Utc(2005, 1, 4, 8, 35, 7)},     // the sign goes with the hours only
      {"4 Jan 2005 09:05:07 +1400", kBad}, {"4 Jan 2005 09:05:07 J", kBad}, {"4 Jan 2005 09:05:07 CET", kBad},
      {"4 Jan 05 09:05:07 +0100", kBad},     {"32 Jan 2005 09:05:07 +0100", kBad},
      {"4 Jan 1900 09:05:07 +0100", kBad},   {"4 Jan 10001 09:05:07 +0100", kBad},
      {"4 Jan 2005 09:05:60 +0100", kBad},   {"4 Jan 2005 09:05:07", kBad},
      {"99999999999999999999 Jan 2005 09:05:07 +0100", kBad},
  };
  for (const Row& r : rows) {
    double value = 0;
    EXPECT_EQ(ReadDate(W(r.text), &value), r.utc != kBad) << r.text;
    EXPECT_NEAR(value, r.utc != kBad ? r.utc : CurrentDate(), (r.utc != kBad ? 0.1 : 1.0) / 86400) << r.text;
  }
  double value = 5;
  EXPECT_FALSE(ReadDate(WStringView(), &value));
  EXPECT_EQ(value, 0.0);
  for (int bias : {-780, -330, 0, 570, 720}) {  // what the writer writes, read back
    const std::string text = FormatDate(Utc(2031, 6, 15, 23, 59, 58), {true, bias, false});
    ASSERT_TRUE(ReadDate(text, &value)) << text;
    EXPECT_NEAR(value, Utc(2031, 6, 15, 23, 59, 58), 0.5 / 86400) << text;
  }
}

TEST(MessageDatesTest, SentAndReceivedRules) {
  const std::string top = "Received: from b by c; Wed, 5 Jan 2005 10:00:00 +0000\r\n";
  const std::string bottom = "Received: from a by b (x;y); Tue, 4 Jan 2005 10:00:00 +0000\r\n";
  struct Row { const char* name; std::string block; double sent; double received; };
  const Row rows[] = {
      {"Date and Received", "Date: Mon, 3 Jan 2005 10:00:00 +0000\r\n" + top + bottom + "\r\n",
       Utc(2005, 1, 3, 10), Utc(2005, 1, 5, 10)},
      {"no Date: the last Received", top + bottom + "\r\n", Utc(2005, 1, 4, 10), Utc(2005, 1, 5, 10)},
      {"unreadable Date: the last Received", "Date: yesterday\r\n" + top + bottom + "\r\n",
       Utc(2005, 1, 4, 10), Utc(2005, 1, 5, 10)},
      {"folded Received", "Received: from x\r\n\tby y;\r\n Wed, 5 Jan 2005 10:00:00 +0000\r\n\r\n",
       Utc(2005, 1, 5, 10), Utc(2005, 1, 5, 10)},
  };
  for (const Row& r : rows) {
    CXmHeader h;
    ASSERT_TRUE(h.Parse(r.block, "us-ascii").ok()) << r.name;
    const MessageDates d = GetMessageDates(h);
    EXPECT_NEAR(d.sent, r.sent, 1e-6) << r.name;
    EXPECT_NEAR(d.received, r.received, 1e-6) << r.name;
  }
  CXmHeader none;
  ASSERT_TRUE(none.Parse("Subject: x\r\n\r\n", "us-ascii").ok());
  const MessageDates d = GetMessageDates(none);
  EXPECT_NEAR(d.sent, CurrentDate(), 2.0 / 86400) << "no date at all: now";
  EXPECT_NEAR(d.received, CurrentDate(), 2.0 / 86400);
  EXPECT_EQ(ReceivedDateText(u"a; b; c"), u" c");
  EXPECT_EQ(ReceivedDateText(u"no semicolon"), u"no semicolon");
}

}  // namespace
}  // namespace trv
