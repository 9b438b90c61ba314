// The bounds-checked string and memory functions. A copy that does not fit fails with a code and
// empties the destination; formatting that does not fit fails with a negative code. sscanf_s is
// not to be trusted with a bound: it ignores the destination's size.
#pragma once

#include <safeclib/safe_mem_lib.h>
#include <safeclib/safe_str_lib.h>

#include <algorithm>
#include <cstddef>

namespace qurn {

// They refuse capacities above a maximum of their own; a destination that is larger has at least
// that much room.
inline size_t safeCapacity(size_t capacity) noexcept {
  return std::min<size_t>(capacity, RSIZE_MAX_STR);
}

}  // namespace qurn
