// A process of its own in which a monitored thread gets stuck in an awkward place.
#pragma once

#include <atomic>
#include <cstddef>

// What the signal handler needs of a thread's stack, the kernel's signal frame included. That frame
// and the compiler's unwinder, which keeps an entry for every register, make the difference.
#if defined(__aarch64__)
inline constexpr std::size_t kMostHandlerStack = 12288;
#else
inline constexpr std::size_t kMostHandlerStack = 8192;
#endif

// A function that a stack shows as it was written.
#if defined(__clang__)
#define WHOLE __attribute__((noinline))
#else
#define WHOLE __attribute__((noinline, noclone))
#endif

// Set by the dead-loop hook of the last stuck thread.
extern std::atomic<bool> g_rescued;
// A thread is where another one is to be stuck beside it.
extern "C" volatile int g_inside;

// Writes a line past the streams, which may be locked for good.
void say(const char* line);

// Walks the stack before every instruction of a function. Returns 0 when all walks were right.
int stepThroughFunction();

// ---- the watched handler

// The dead-loop handler is called through a guard that ends the process, with a line that starts
// with "forbidden:", when it calls what a handler may not or changes errno. The stack that it needs
// below the interrupted code is measured on paint.

// Prints how often it ran and what it needed. Also when the process ends through _exit.
void reportHandler();
// The stack below is too short for paint.
void doNotPaint();
