// Finds dead loops in a log.
#pragma once

#include <istream>
#include <vector>

#include "dead_loop.h"

namespace qurn::report {

// In the order in which their third thresholds, or else their reports, stand in the log. Lines of
// several processes may be mixed if what stands before their messages tells them apart.
std::vector<DeadLoop> readLog(std::istream& log);

}  // namespace qurn::report
