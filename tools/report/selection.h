// Which dead loops the user wants to hear of.
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "dead_loop.h"
#include "log_time.h"

namespace qurn::report {

struct Selection {
  std::optional<Time> since;
  std::optional<Time> until;
  std::vector<std::string> processes;  // names or ids; none: all
  std::vector<std::string> threads;

  // One without a time is of any.
  [[nodiscard]] bool has(const DeadLoop& loop) const;
};

// When it was reported, or else last heard of.
LogTime timeOf(const DeadLoop& loop);

}  // namespace qurn::report
