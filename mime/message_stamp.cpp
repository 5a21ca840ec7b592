#include "mime/message_stamp.h"

#include <sys/time.h>

#include <cstdio>
#include <ctime>
#include <mutex>
#include <random>

#include "mime/rfc822_date.h"

namespace trv {

namespace {

class SystemStampSource final : public StampSource {
 public:
  double Now() override { return CurrentDate(); }

  CivilTime LocalNow() override {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    const time_t seconds = tv.tv_sec;
    tm local{};
    localtime_r(&seconds, &local);
    CivilTime t;
    t.year = local.tm_year + 1900;
    t.month = local.tm_mon + 1;
    t.day = local.tm_mday;
    t.hour = local.tm_hour;
    t.minute = local.tm_min;
    t.second = local.tm_sec;
    t.millisecond = static_cast<int>(tv.tv_usec / 1000);
    t.day_of_week = local.tm_wday;
    return t;
  }

  unsigned Random() override {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<unsigned>(engine_() & 0x7FFF);
  }

 private:
  std::mutex mutex_;
  std::mt19937 engine_{std::random_device{}()};
};

// "%04u%02u%02u%02u%02u%02u%04u" of a local time.
std::string TimeDigits(const CivilTime& t) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%04u%02u%02u%02u%02u%02u%04u", unsigned(t.year), unsigned(t.month),
                unsigned(t.day), unsigned(t.hour), unsigned(t.minute), unsigned(t.second),
                unsigned(t.millisecond));
  return buf;
}

}  // namespace

StampSource& SystemStamp() {
  static SystemStampSource source;
  return source;
}

WString MakeMessageId(StampSource& stamp) {
  const CivilTime now = stamp.LocalNow();
  const unsigned first = stamp.Random();
  const unsigned second = stamp.Random();
  char tail[32];
  std::snprintf(tail, sizeof tail, "@%04u%04u", second, first);
  return u"<" + WString(TrimView(W(TimeDigits(now) + tail))) + u">";
}

WString MakeBoundary(StampSource& stamp) {
  const CivilTime now = stamp.LocalNow();
  char tail[16];
  std::snprintf(tail, sizeof tail, "%04u", stamp.Random());
  return W("----------=_" + TimeDigits(now) + tail);
}

void StampNewMessage(CXmHeader* header, StampSource& stamp) {
  header->SetDate(W(WriteDate(stamp.Now())));
  const WString id = MakeMessageId(stamp);
  header->Remove(field::kMessageId);
  header->SetMessageId(id);
  header->SetMimeVersion(u"1.0");
}

}  // namespace trv
