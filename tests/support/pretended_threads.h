// A world of pretended threads: who they are, which of them have ended, who calls and what time it
// is, is up to a test, so that a whole history runs on one real thread. The pretence replaces the
// system's calls of the whole program, and keeps what the monitor says.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

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

  [[nodiscard]] bool isAlive(uint32_t tid) const;
};

extern PretendedWorld world;

__attribute__((format(printf, 1, 2))) std::string line(const char* format, ...);
