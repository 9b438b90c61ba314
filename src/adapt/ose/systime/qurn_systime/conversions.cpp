// Conversions between seconds, GMT, local mean time and local time. Reentrant; the zone is the
// process's, as the C library keeps it.
#include <qurnadapt/legacy_time.h>

#include <ctime>

#include "records.h"

using namespace qurn::systime;

namespace {

// Seconds west of UTC that the zone's standard time lies.
int64_t standardOffset() noexcept {
  tzset();
  return timezone;
}

ZotSystime ZotLmt2Gmt(const ZotSystime& lmt) noexcept {
  const int64_t offset = standardOffset();
  return gmtRecordOf(ZotSystime2Sec(lmt) + offset, lmt.millSec);
}

}  // namespace

extern "C" {

uint32_t ZOT_Second2GMT(uint32_t seconds, ZotSystime* time) {
  if (time == nullptr) {
    return QURN_INVALID_VALUE;
  }
  ZotSystime converted = *time;  // fields that the KEM layer does not write keep their values
  KEM_SystimeSec2Time(seconds, &converted);
  const uint32_t ret = KEM_SystimeWeekDayGet(&converted);
  *time = converted;
  return ret;
}

uint32_t ZOT_Gmt2LocalTime(const ZotSystime* gmt, ZotSystime* local, uint32_t* isDst) {
  if (gmt == nullptr || local == nullptr || isDst == nullptr) {
    return QURN_INVALID_VALUE;
  }
  if (!ZotSystimeIsValid(*gmt)) {
    SYSTIME_LOG(TOV_LOG_ERROR, "Gmt to local time unsuccessfully, gmt time invalid.");
    return QURN_INVALID_VALUE;
  }
  const time_t moment = ZotSystime2Sec(*gmt);
  tm parts{};
  localtime_r(&moment, &parts);
  *isDst = static_cast<uint32_t>(parts.tm_isdst);
  *local = recordOf(parts, gmt->millSec);
  return QURN_OK;
}

uint32_t ZOT_Gmt2Lmt(const ZotSystime* gmt, ZotSystime* lmt) {
  if (gmt == nullptr || lmt == nullptr || !ZotSystimeIsValid(*gmt)) {
    return QURN_INVALID_VALUE;
  }
  const int64_t offset = standardOffset();
  *lmt = gmtRecordOf(ZotSystime2Sec(*gmt) - offset, gmt->millSec);
  return QURN_OK;
}

uint32_t ZOT_Lmt2LocalTime(const ZotSystime* lmt, ZotSystime* local, uint32_t* isDst) {
  if (lmt == nullptr || local == nullptr || isDst == nullptr) {
    SYSTIME_LOG(TOV_LOG_ERROR, "Lmt to LocalTime input invalid.");
    return QURN_INVALID_VALUE;
  }
  if (!ZotSystimeIsValid(*lmt)) {
    SYSTIME_LOG(TOV_LOG_ERROR, "Lmt time invalid.");
    return QURN_INVALID_VALUE;
  }
  *isDst = 0;
  const ZotSystime gmt = ZotLmt2Gmt(*lmt);
  const uint32_t ret = ZOT_Gmt2LocalTime(&gmt, local, isDst);
  if (ret != QURN_OK) {
    SYSTIME_LOG(TOV_LOG_ERROR, "Gmt to local time unsuccessfully!");
  }
  return ret;
}

}  // extern "C"
