// The stacks of threads. A live one is stopped for as long as it takes to copy its registers and
// its stack; everything else is done when it runs again.
#pragma once

#include <vector>

#include "snapshot.h"
#include "symbols.h"
#include "target.h"

namespace qurn::inspect {

// Of these threads, as far as they can be had.
std::vector<Stack> stacksOf(const Target& target, const std::vector<pid_t>& threads,
                            const Snapshot& snapshot, Symbols& symbols);

}  // namespace qurn::inspect
