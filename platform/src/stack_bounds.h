// The mapping that holds an address, as a signal handler may ask for it.
#pragma once

#include <qurnadapt/platform.h>

#include <cstdint>

namespace tov {

// Async-signal-safe; needs little more than 1 KiB of stack. False when there is no such mapping, or
// the kernel tells of none.
bool findMapping(uint64_t address, FrameTaskStackInfo& info) noexcept;

}  // namespace tov
