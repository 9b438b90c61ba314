// A world of pretended threads: who they are, which of them have ended, who calls and what time it
// is, is up to a test, so that a whole history runs on one real thread. The pretence replaces the
// system's calls of the whole program, and keeps what the monitor says. For one source of a
// program.
#pragma once

#include <dirent.h>
#include <pthread.h>
#include <qurnadapt/platform.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "interpose.h"

struct PretendedThread {
  uint64_t id;  // an ended thread's may be given to a new one
  uint32_t tid;
  std::string name;
  bool ended;
};

struct PretendedWorld {
  std::vector<PretendedThread> threads;
  // Whom the library takes the caller for; a fuzzer has threads of its own.
  static inline constinit thread_local const PretendedThread* acting = nullptr;
  int64_t now = 1'000'000;        // milliseconds
  std::vector<std::string> said;  // log lines, "LEVEL TEXT", and what hooks were told

  [[nodiscard]] bool isAlive(uint32_t tid) const {
    return std::any_of(threads.begin(), threads.end(), [tid](const PretendedThread& thread) {
      return thread.tid == tid && !thread.ended;
    });
  }
};

inline constinit PretendedWorld world;

inline std::string formatted(const char* format, va_list args) {
  std::array<char, 512> text{};
  std::vsnprintf(text.data(), text.size(), format, args);
  return text.data();
}

__attribute__((format(printf, 1, 2))) inline std::string line(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = formatted(format, args);
  va_end(args);
  return text;
}

// The folder of a pretended thread is any there is, or none once it has ended.
inline const char* folderOf(const char* path) {
  const char* task = std::strstr(path, "/task/");
  const auto tid = static_cast<uint32_t>(task == nullptr ? 0 : std::atoi(task + 6));
  return task == nullptr ? path : world.isAlive(tid) ? "/" : "";
}

INTERPOSE(pthread_t, pthread_self, (), (), if (world.acting != nullptr) return world.acting->id)
INTERPOSE(DIR*, opendir, (const char* path), (path), path = folderOf(path))
INTERPOSE(
    int, clock_gettime, (clockid_t clock, timespec* now), (clock, now),
    if (clock == CLOCK_MONOTONIC_COARSE) {
      now->tv_sec = world.now / 1000;
      now->tv_nsec = (world.now % 1000) * 1'000'000;
      return 0;
    })

extern "C" {

// Reads as many words as any system call has, whether they were given or not.
__attribute__((no_sanitize_address)) long syscall(long number, ...) noexcept {
  if (world.acting != nullptr && number == SYS_gettid) {
    return world.acting->tid;
  }
  std::array<long, 6> words{};
  va_list args;
  va_start(args, number);
  for (long& word : words) {
    word = va_arg(args, long);
  }
  va_end(args);
  static auto* const next = real<long(long, ...)>("syscall");
  return next(number, words[0], words[1], words[2], words[3], words[4], words[5]);
}

int tgkill(pid_t /*process*/, pid_t tid, int /*sig*/) {
  errno = ESRCH;
  return world.isAlive(static_cast<uint32_t>(tid)) ? 0 : -1;
}

int pthread_kill(pthread_t /*thread*/, int /*sig*/) noexcept { return 0; }

void LOG_InnerPrint(uint32_t, const char*, uint32_t, const char*, uint32_t, uint32_t,
                    uint32_t level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  world.said.push_back(std::to_string(level) + " " + formatted(format, args) + "\n");
  va_end(args);
}

// The report's own lines, which are not the monitor's.
void LOG_InnerPrintUnsuppress(uint32_t, const char*, uint32_t, const char*, uint32_t, uint32_t,
                              uint32_t, const char*, ...) {}

uint32_t KEM_ExceptCallStackGetEx(void*, uint32_t, uint32_t, uint64_t*, uint32_t* depth) {
  return *depth = 0;
}

}  // extern "C"
