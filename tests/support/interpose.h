// Standing in front of the system's calls: a program's own definitions are found before them.
#pragma once

#include <dlfcn.h>

#include <atomic>

#pragma GCC diagnostic ignored "-Wattributes"
#pragma GCC diagnostic ignored "-Wignored-attributes"

// The definition that would have been found without ours.
template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// Defines NAME, as it was declared, to run this body, for which `next()` is what would have been
// called, its arguments included. No guard is taken on the way: a signal handler may be the caller.
#define INTERPOSE(NAME, ...)                                        \
  template <typename>                                               \
  struct Definition_##NAME;                                         \
  template <typename Result, typename... Arguments, bool quiet>     \
  struct Definition_##NAME<Result(Arguments...) noexcept(quiet)> {  \
    friend Result NAME(Arguments... arguments) noexcept(quiet) {    \
      using Function = Result(Arguments...);                        \
      static constinit std::atomic<Function*> found{nullptr};       \
      if (found.load(std::memory_order_relaxed) == nullptr) {       \
        found = real<Function>(#NAME);                              \
      }                                                             \
      const auto next = [&] { return found.load()(arguments...); }; \
      __VA_ARGS__                                                   \
    }                                                               \
  };                                                                \
  template struct Definition_##NAME<decltype(::NAME)>;              \
  /* It is inline, and so there when somebody asks for it. */       \
  [[gnu::used]] constexpr auto kAddressOf_##NAME = &::NAME;
