// Process-level calls of the legacy platform.
#include <qurnadapt/legacy_fixed.h>

#include "internal/unit_log.h"

namespace {
constexpr char kUnit[] = "build/src/adapt/frame/dbg/CMakeFiles/adaptmnt.dir/src/qurn_process";
}

extern "C" {

void TOV_SetProcessSlotId(uint32_t slotId) {
  QURN_LOG_AS(LOG_InnerPrint, kUnit, TOV_LOG_INFO, "tOV process slot id (%u) set success.", slotId);
}

}  // extern "C"
