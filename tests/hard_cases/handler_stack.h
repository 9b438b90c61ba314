// What the signal handler needs of a thread's stack, the kernel's signal frame included. That frame
// and the compiler's unwinder, which keeps an entry for every register, make the difference.
#pragma once

#include <cstddef>

#if defined(__aarch64__)
inline constexpr std::size_t kMostHandlerStack = 12288;
#else
inline constexpr std::size_t kMostHandlerStack = 8192;
#endif
