// Standing in front of the system's calls: a program's own definitions are found before them.
#pragma once

#include <dlfcn.h>

#include <atomic>

// The definition that would have been found without ours.
template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// The same, looked for once. No guard is taken on the way: a signal handler may be the caller.
template <typename Function>
Function* real(std::atomic<Function*>& found, const char* name) {
  Function* next = found.load(std::memory_order_relaxed);
  if (next == nullptr) {
    found = next = real<Function>(name);
  }
  return next;
}

// Defines NAME to do FIRST, which may return, and then to be what it would have been.
#define INTERPOSE(RETURNS, NAME, PARAMETERS, ARGUMENTS, FIRST)              \
  extern "C" RETURNS NAME PARAMETERS noexcept(noexcept(::NAME ARGUMENTS)) { \
    FIRST;                                                                  \
    static constinit std::atomic<RETURNS(*) PARAMETERS> found{nullptr};     \
    return real(found, #NAME) ARGUMENTS;                                    \
  }
