#include "pretended_threads.h"

#include <dirent.h>
#include <pthread.h>
#include <qurnadapt/platform.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "interpose.h"

namespace {

std::string formatted(const char* format, va_list args) {
  std::array<char, 512> text{};
  std::vsnprintf(text.data(), text.size(), format, args);
  return text.data();
}

int tellTime(timespec* now) {
  now->tv_sec = world.now / 1000;
  now->tv_nsec = (world.now % 1000) * 1'000'000;
  return 0;
}

// The folder of a pretended thread is any there is, or none once it has ended.
const char* folderOf(const char* path) {
  const char* task = std::strstr(path, "/task/");
  if (task == nullptr) {
    return path;
  }
  return world.isAlive(static_cast<uint32_t>(std::strtoul(task + 6, nullptr, 10))) ? "/" : "";
}

}  // namespace

constinit PretendedWorld world;

bool PretendedWorld::isAlive(uint32_t tid) const {
  return std::any_of(threads.begin(), threads.end(), [tid](const PretendedThread& thread) {
    return thread.tid == tid && !thread.ended;
  });
}

std::string line(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = formatted(format, args);
  va_end(args);
  return text;
}

INTERPOSE(pthread_t, pthread_self, (), (), if (world.acting != nullptr) return world.acting->id)
INTERPOSE(DIR*, opendir, (const char* path), (path), path = folderOf(path))
INTERPOSE(int, clock_gettime, (clockid_t clock, timespec* now), (clock, now),
          if (clock == CLOCK_MONOTONIC_COARSE) return tellTime(now))

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

void LOG_InnerPrint(uint32_t /*moduleId*/, const char* /*file*/, uint32_t /*fileLen*/,
                    const char* /*func*/, uint32_t /*funcLen*/, uint32_t /*line*/, uint32_t level,
                    const char* format, ...) {
  va_list args;
  va_start(args, format);
  world.said.push_back(std::to_string(level) + " " + formatted(format, args) + "\n");
  va_end(args);
}

// The report's own lines, which are not the monitor's.
void LOG_InnerPrintUnsuppress(uint32_t /*moduleId*/, const char* /*file*/, uint32_t /*fileLen*/,
                              const char* /*func*/, uint32_t /*funcLen*/, uint32_t /*line*/,
                              uint32_t /*level*/, const char* /*format*/, ...) {}

uint32_t KEM_ExceptCallStackGetEx(void* /*context*/, uint32_t /*most*/, uint32_t /*option*/,
                                  uint64_t* /*addresses*/, uint32_t* depth) {
  *depth = 0;
  return 0;
}

}  // extern "C"
