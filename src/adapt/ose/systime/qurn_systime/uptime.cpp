// The uptime in milliseconds, counted in CPU ticks of the KEM layer and its 64-bit arithmetic on
// pairs of words. Stateless.
#include <qurnadapt/legacy_memory.h>
#include <qurnadapt/legacy_time.h>

#include <array>
#include <cstddef>

#include "internal/safe_strings.h"
#include "records.h"

using namespace qurn::systime;

static_assert(sizeof(ZotUptimeRecord) == 16 && offsetof(ZotUptimeRecord, baseMsHigh) == 8);
static_assert(sizeof(ZotUptimeMs) == 8);

extern "C" {

ZotUptimeRecord* ZOT_StartuptimeInit(void) {
  auto* record = static_cast<ZotUptimeRecord*>(
      ZOT_Malloc_F(0, g_aucZotMemPt[0], sizeof(ZotUptimeRecord), kBaseName, __LINE__));
  if (record != nullptr) {
    memset_s(record, sizeof(*record), 0, sizeof(*record));
  }
  return record;
}

uint32_t ZOT_CalUptime(const ZotUptimeRecord* base, ZotUptimeMs* out) {
  if (base == nullptr || out == nullptr) {
    SYSTIME_LOG(TOV_LOG_WARNING, "Calculate the startup time, invalid param");
    return QURN_FAILED;
  }
  std::array<uint32_t, 2> tick{};
  auto& [low, high] = tick;
  KEM_GetCpuTick(&low, &high);
  uint32_t ret = KEM_64Sub64(base->startTickHigh, base->startTickLow, &high, &low);
  if (ret != QURN_OK) {
    SYSTIME_LOG(TOV_LOG_WARNING,
                "Calculate cputick error, mistake code is %u, subHigh = %u, subLow =%u, High=%u, "
                "Low =%u.",
                ret, base->startTickHigh, base->startTickLow, high, low);
    return QURN_FAILED;
  }
  ZotUptimeMs elapsed{};
  ret = KEM_CpuTick2Ms(tick.data(), &elapsed.msHigh, &elapsed.msLow);
  if (ret != QURN_OK) {
    SYSTIME_LOG(TOV_LOG_WARNING,
                "CPU TICK counts convert to millisecond unsuccessfully ret = %u, tick h:%#x l:%#x",
                ret, high, low);
    return QURN_FAILED;
  }
  ret = KEM_64Add64(base->baseMsHigh, base->baseMsLow, &elapsed.msHigh, &elapsed.msLow);
  if (ret != QURN_OK) {
    SYSTIME_LOG(TOV_LOG_WARNING,
                "Add startuptime error, mistake code is %u. subHigh = %u, subLow =%u, High=%u, "
                "Low =%u.",
                ret, base->baseMsHigh, base->baseMsLow, elapsed.msHigh, elapsed.msLow);
    return QURN_FAILED;
  }
  *out = elapsed;
  return QURN_OK;
}

}  // extern "C"
