// Reading the system's clocks. Stateless and reentrant.
#include <qurnadapt/legacy_time.h>
#include <sys/sysinfo.h>
#include <sys/time.h>

#include <ctime>

#include "records.h"

using namespace qurn::systime;

namespace {

constexpr int kConsistencyAttempts = 100;
constexpr uint32_t kMicrosecondsPerMillisecond = 1000;

// Reads the clock until two readings in a row agree on the second, and takes the first of them.
bool readClock(timeval* reading) noexcept {
  for (int attempt = 0; attempt < kConsistencyAttempts; ++attempt) {
    timeval second{};
    if (gettimeofday(reading, nullptr) != 0 || gettimeofday(&second, nullptr) != 0) {
      return false;
    }
    if (reading->tv_sec == second.tv_sec) {
      break;
    }
  }
  return true;
}

}  // namespace

extern "C" {

uint32_t ZOT_GetSystemTime(uint32_t* seconds, uint32_t* microseconds) {
  timeval reading{};
  if (seconds == nullptr || microseconds == nullptr || !readClock(&reading)) {
    return QURN_FAILED;
  }
  *seconds = static_cast<uint32_t>(reading.tv_sec);
  *microseconds = static_cast<uint32_t>(reading.tv_usec);
  return QURN_OK;
}

uint32_t ZOT_GMT_SystimeGet(ZotSystime* time) {
  if (time == nullptr) {
    return QURN_INVALID_VALUE;
  }
  timeval reading{};
  if (!readClock(&reading)) {
    return QURN_FAILED;
  }
  *time = gmtRecordOf(reading.tv_sec,
                      static_cast<uint32_t>(reading.tv_usec) / kMicrosecondsPerMillisecond);
  return QURN_OK;
}

uint32_t ZOT_SystimeGet(ZotSystime* time) {
  ZotSystime read{};
  const uint32_t ret = ZOT_GMT_SystimeGet(&read);
  *time = read;
  return ret;
}

uint32_t ZOT_Local_SystimeGet(ZotSystime* local, uint32_t* isDst) {
  ZotSystime gmt{};
  const uint32_t clockResult = ZOT_GMT_SystimeGet(&gmt);
  return clockResult | ZOT_Gmt2LocalTime(&gmt, local, isDst);
}

uint32_t SSP_GetsystemStartTime(ZotSystime* time) {
  struct sysinfo info {};
  if (sysinfo(&info) != 0) {
    return QURN_FAILED;
  }
  const time_t now = std::time(nullptr);
  const uint8_t week = time->week;
  *time = gmtRecordOf(info.uptime < now ? now - info.uptime : info.uptime - now, 0);
  time->week = week;
  return QURN_OK;
}

}  // extern "C"
