// The one way a source unit logs: its build path, "<unknown>" and the line of the call are filled
// in, so that a call site holds only level, text and arguments.
#pragma once

#include <qurnadapt/platform.h>

// `print` is LOG_InnerPrint or its unsuppressed form; `unit` a character array, never a pointer,
// because its size gives the path's length.
#define QURN_LOG_AS(print, unit, level, ...) \
  print(0U, (unit), sizeof(unit) - 1U, "<unknown>", 9U, __LINE__, (level), __VA_ARGS__)

namespace qurn {

// The last component of a unit's path, as allocations and assertions name their source.
constexpr const char* baseName(const char* unit) noexcept {
  const char* base = unit;
  for (const char* c = unit; *c != '\0'; ++c) {
    base = *c == '/' ? c + 1 : base;
  }
  return base;
}

}  // namespace qurn
