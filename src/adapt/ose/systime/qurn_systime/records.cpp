#include "records.h"

#include <array>

namespace qurn::systime {

namespace {

constexpr uint16_t kFirstYear = 1970;
constexpr uint16_t kLastYear = 2038;
constexpr int kTmFirstYear = 1900;

constexpr std::array<uint8_t, 12> kMonthLengths{31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
constexpr uint8_t kFebruary = 2;

constexpr bool isLeapYear(uint16_t year) noexcept {
  return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

constexpr uint8_t monthLength(uint16_t year, uint8_t month) noexcept {
  return month == kFebruary && isLeapYear(year) ? 29 : kMonthLengths[month - 1U];
}

bool sameTime(const tm& one, const tm& other) noexcept {
  return one.tm_year == other.tm_year && one.tm_mon == other.tm_mon &&
         one.tm_mday == other.tm_mday && one.tm_hour == other.tm_hour && one.tm_min == other.tm_min;
}

}  // namespace

bool ZotSystimeIsValid(const ZotSystime& time) noexcept {
  if (static_cast<uint16_t>(time.year - kFirstYear) > kLastYear - kFirstYear) {
    SYSTIME_LOG(TOV_LOG_ERROR, "Year should be within [1970, 2038].(year=%u)", time.year);
    return false;
  }
  if (static_cast<uint8_t>(time.month - 1) >= kMonthLengths.size()) {
    SYSTIME_LOG(TOV_LOG_ERROR, "Month should be within [1, 12].(month=%u)", time.month);
    return false;
  }
  if (const uint8_t length = monthLength(time.year, time.month);
      time.date < 1 || time.date > length) {
    SYSTIME_LOG(TOV_LOG_ERROR, "Date should be within [1, %u].(date=%u)", length, time.date);
    return false;
  }
  if (time.hour > 23) {
    SYSTIME_LOG(TOV_LOG_ERROR, "Date should be within [0, 23].(hour=%u)", time.hour);
    return false;
  }
  if (time.minute > 59) {
    SYSTIME_LOG(TOV_LOG_ERROR, "Date should be within [0, 59].(minute=%u)", time.minute);
    return false;
  }
  if (time.second > 59) {
    SYSTIME_LOG(TOV_LOG_ERROR, "Date should be within [0, 59].(second=%u)", time.second);
    return false;
  }
  if (time.week > 6) {
    SYSTIME_LOG(TOV_LOG_ERROR, "Date should be within [0, 6].(week=%u)", time.week);
    return false;
  }
  if (time.millSec > 999) {
    SYSTIME_LOG(TOV_LOG_ERROR, "Date should be within [0, 999].(millSec=%u)", time.millSec);
    return false;
  }
  return true;
}

// mktime reads the fields as local time and re-reads the zone settings; adding the offset that it
// found undoes the local reading. Where the zone skipped that time of day, or the whole day, mktime
// moves the fields to one that exists, and the sum with them: such fields are read as UTC directly.
int64_t ZotSystime2Sec(const ZotSystime& time) noexcept {
  tm given{};
  given.tm_year = time.year - kTmFirstYear;
  given.tm_mon = time.month - 1;
  given.tm_mday = time.date;
  given.tm_hour = time.hour;
  given.tm_min = time.minute;
  given.tm_sec = time.second;
  given.tm_wday = time.week;
  given.tm_isdst = -1;
  tm local = given;
  const int64_t seconds = mktime(&local);
  return sameTime(local, given) ? seconds + local.tm_gmtoff : timegm(&given);
}

ZotSystime recordOf(const tm& parts, uint32_t milliseconds) noexcept {
  return {static_cast<uint16_t>(parts.tm_year + kTmFirstYear),
          static_cast<uint8_t>(parts.tm_mon + 1),
          static_cast<uint8_t>(parts.tm_mday),
          static_cast<uint8_t>(parts.tm_hour),
          static_cast<uint8_t>(parts.tm_min),
          static_cast<uint8_t>(parts.tm_sec),
          static_cast<uint8_t>(parts.tm_wday),
          milliseconds};
}

ZotSystime gmtRecordOf(time_t moment, uint32_t milliseconds) noexcept {
  tm parts{};
  gmtime_r(&moment, &parts);
  return recordOf(parts, milliseconds);
}

}  // namespace qurn::systime
