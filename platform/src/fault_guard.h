// Lets a walk meet memory that is not there, as a smashed stack leads to.
#pragma once

namespace tov {

// Runs `walk`; a SIGSEGV or SIGBUS of the calling thread meanwhile ends it instead of the process,
// even where the thread blocks these signals. What other threads do wrong meanwhile reaches the
// handlers that the process has for it. Async-signal-safe, and of several threads at once one is
// guarded. Returns false when the walk was ended.
bool surviveFaults(void (*walk)(void*), void* argument) noexcept;

}  // namespace tov
