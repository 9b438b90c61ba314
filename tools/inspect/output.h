// An inspection as people, machines and collectors read it.
#pragma once

#include <ostream>

#include "snapshot.h"

namespace qurn::inspect {

void writeText(std::ostream& out, const Snapshot& snapshot);
void writeJson(std::ostream& out, const Snapshot& snapshot);
// The Prometheus text format.
void writeMetrics(std::ostream& out, const Snapshot& snapshot);

}  // namespace qurn::inspect
