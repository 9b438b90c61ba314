// The library's last capture, as the process keeps it.
#pragma once

#include <optional>

#include "library.h"
#include "snapshot.h"
#include "symbols.h"
#include "target.h"

namespace qurn::inspect {

// Nothing where none was ever made.
std::optional<Capture> readCapture(const Target& target, const Library& library,
                                   const Symbols& symbols);

}  // namespace qurn::inspect
