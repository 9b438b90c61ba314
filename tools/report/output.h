// Dead loops as people and as machines read them.
#pragma once

#include <ostream>
#include <vector>

#include "dead_loop.h"
#include "group.h"

namespace qurn::report {

void writeText(std::ostream& out, const std::vector<DeadLoop>& loops, bool inColour);

void writeText(std::ostream& out, const std::vector<Group>& groups, bool inColour);
void writeCollapsed(std::ostream& out, const Counts& stacks);

// How a dead loop ended, as people would say it.
std::string decisionText(const DeadLoop& loop);

// One array; times as the log has them, durations in milliseconds, null for what it does not tell.
void writeJson(std::ostream& out, const std::vector<DeadLoop>& loops);
void writeJson(std::ostream& out, const std::vector<Group>& groups);

}  // namespace qurn::report
