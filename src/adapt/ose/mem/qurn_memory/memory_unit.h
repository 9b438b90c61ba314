// How the files of this unit name themselves.
#pragma once

#include <qurnadapt/platform.h>

#include "common/unit_log.h"

namespace qurn::mem {

inline constexpr char kUnit[] = "build/src/adapt/ose/mem/CMakeFiles/adaptmem.dir/src/qurn_memory";
inline constexpr const char* kBaseName = baseName(kUnit);
#define MEM_LOG(level, ...) QURN_LOG_AS(LOG_InnerPrint, ::qurn::mem::kUnit, level, __VA_ARGS__)

}  // namespace qurn::mem
