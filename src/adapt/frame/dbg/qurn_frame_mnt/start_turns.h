// Start-ups take turns: who asks for one while one runs waits for that and shares its result.
// Without a lock: a thread may fork, end or be interrupted by a signal handler in the middle of
// either.
#pragma once

#include <cstdint>

namespace qurn::mnt {

// The number of a turn that is the caller's, who then runs the steps and ends it with their result.
// Otherwise 0, and `result` is that of the start-up which the caller has waited for, or a failure
// when it asked from within one.
uint32_t takeStartTurn(uint32_t* result) noexcept;
void endStartTurn(uint32_t number, uint32_t result) noexcept;

// In the child of a fork, where nobody waits for the parent's start-up.
void dropStartTurnAfterFork() noexcept;

}  // namespace qurn::mnt
