// Broken-down time records: whether one is in range, and what moment it names. Shared by the files
// of this unit, whose name for the log is here too. Stateless.
#pragma once

#include <qurnadapt/platform.h>
#include <qurnadapt/systime.h>

#include <cstdint>
#include <ctime>

#include "common/unit_log.h"

namespace qurn::systime {

inline constexpr char kUnit[] =
    "build/src/adapt/ose/systime/CMakeFiles/adaptsystime.dir/src/qurn_systime";
inline constexpr const char* kBaseName = baseName(kUnit);
#define SYSTIME_LOG(level, ...) \
  QURN_LOG_AS(LOG_InnerPrint, ::qurn::systime::kUnit, level, __VA_ARGS__)

// Whether every field is in range; logs the first that is not. The week is not compared with the
// date.
bool ZotSystimeIsValid(const ZotSystime& time) noexcept;

// Seconds since 1970 of the fields read as UTC. As a side effect the zone settings that the C
// library keeps are up to date afterwards.
int64_t ZotSystime2Sec(const ZotSystime& time) noexcept;

ZotSystime recordOf(const tm& parts, uint32_t milliseconds) noexcept;

// The record of a moment in UTC.
ZotSystime gmtRecordOf(time_t moment, uint32_t milliseconds) noexcept;

}  // namespace qurn::systime
