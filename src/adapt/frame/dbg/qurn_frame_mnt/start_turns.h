// Start-ups take turns: who asks for one while one runs waits for that and shares its result.
#pragma once

#include <cstdint>

namespace qurn::mnt {

// Whether the steps are the caller's to run, who then ends the turn with their result. Otherwise
// `result` is that of the start-up which the caller has waited for, or a failure when it asked from
// within one. The caller must not be cancelled meanwhile.
bool takeStartTurn(uint32_t* result) noexcept;
void endStartTurn(uint32_t result) noexcept;

// In the child of a fork, where the parent's start-up, if one runs, does not go on.
void dropStartTurnAfterFork() noexcept;

}  // namespace qurn::mnt
