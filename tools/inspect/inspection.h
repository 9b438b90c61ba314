// Looks at a process twice, a short while apart, and says what each of its threads is up to.
#pragma once

#include <chrono>

#include "library.h"
#include "snapshot.h"
#include "target.h"
#include "waits.h"

namespace qurn::inspect {

// A core is looked at once: what needs a second look is unknown there.
Snapshot inspect(const Target& target, const Library& library, const NameOfCode& nameOfCode,
                 std::chrono::milliseconds betweenLooks);

}  // namespace qurn::inspect
