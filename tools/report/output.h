// Dead loops as people and as machines read them.
#pragma once

#include <ostream>
#include <vector>

#include "dead_loop.h"

namespace qurn::report {

void writeText(std::ostream& out, const std::vector<DeadLoop>& loops, bool inColour);

// One array; times as the log has them, durations in milliseconds, null for what it does not tell.
void writeJson(std::ostream& out, const std::vector<DeadLoop>& loops);

}  // namespace qurn::report
