// What a forked child does, seen by its parent.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <string_view>

#include "emulated.h"

inline constexpr std::string_view kSanitizers = QURN_SANITIZE;  // as for -fsanitize=
// ThreadSanitizer and the emulator start no thread in the child of a process that had several.
inline constexpr bool kThreadsInChild = !kEmulated && kSanitizers != "thread";
// AddressSanitizer's allocator has locks that stay held in the child when another thread has one.
inline constexpr bool kAllocatorSurvivesFork = !kSanitizers.starts_with("address");

// Whether a child that does this finds it good within 20 seconds.
template <typename Action>
bool inChild(Action isGood) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(20);
    _exit(isGood() ? 0 : 1);
  }
  int status = 1;
  waitpid(child, &status, 0);
  return status == 0;
}
