// Which addresses are live blocks, and who freed the others. Answers about any address and never
// reads what is there. Takes no lock, so a fork finds nothing half done.
#pragma once

#include <cstdint>

namespace tov {

// A thread's number as one who frees.
using FreerId = uint16_t;
inline constexpr FreerId kNobody = 0;
inline constexpr FreerId kMostFreers = 0xFFFE;

// Returns false without memory to remember it in.
bool markLive(uintptr_t block) noexcept;
// False when it is not live. Of several threads that free a block at once, one is told true.
bool markFreed(uintptr_t block, FreerId freer) noexcept;
// Who freed it last; nobody if it is live, or never was a block.
FreerId freerOf(uintptr_t block) noexcept;

}  // namespace tov
