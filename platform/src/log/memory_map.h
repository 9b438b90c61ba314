// What is needed to name a report's addresses later, when the process is gone.
#pragma once

#include <string>

namespace tov::log {

// Writes the process's memory map and the build ids of what is mapped to PID.maps and PID.build-ids
// in a directory, where the newest few are kept. Allocates nothing, and asks the loader for
// nothing: its locks may be held for good.
void keepMemoryMap(const std::string& directory) noexcept;

}  // namespace tov::log
