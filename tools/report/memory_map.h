// A process's memory map, as the platform or the service's unit kept it: PID.maps, and
// PID.build-ids beside it where the platform did.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "dead_loop.h"

namespace qurn::report {

// Code that is in no file: the kernel's own, or what the process has made.
struct UnfiledCode {
  uint64_t start;
  uint64_t end;
  std::string name;
};

struct MemoryMap {
  std::string path;
  time_t madeAt = 0;
  bool isOfReport = false;                      // made with one, as the platform does
  std::map<std::string, std::string> buildIds;  // by file
  std::vector<UnfiledCode> unfiled;

  // Where it cannot be told it is not.
  [[nodiscard]] bool isOlderThan(const DeadLoop& loop) const;
};

std::optional<MemoryMap> readMemoryMap(const std::string& path);

// In hexadecimal digits; empty when the file has none, or is none.
std::string buildIdOf(const std::string& path);

}  // namespace qurn::report
