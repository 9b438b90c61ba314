#include "pretended_threads.h"

#include <dirent.h>
#include <pthread.h>
#include <qurnadapt/platform.h>
#include <sys/prctl.h>
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

extern "C" {

pthread_t pthread_self() noexcept {
  static auto* const next = real<pthread_t()>("pthread_self");
  return world.acting != nullptr ? world.acting->id : next();
}

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

int prctl(int option, ...) noexcept {
  va_list args;
  va_start(args, option);
  void* argument = va_arg(args, void*);
  va_end(args);
  if (world.acting != nullptr && option == PR_GET_NAME) {
    std::strcpy(static_cast<char*>(argument), world.acting->name.c_str());
    return 0;
  }
  static auto* const next = real<int(int, ...)>("prctl");
  return next(option, argument, 0, 0, 0);
}

int tgkill(pid_t /*process*/, pid_t tid, int /*sig*/) {
  errno = ESRCH;
  return world.isAlive(static_cast<uint32_t>(tid)) ? 0 : -1;
}

int pthread_kill(pthread_t /*thread*/, int /*sig*/) noexcept { return 0; }

DIR* opendir(const char* path) {
  static auto* const next = real<DIR*(const char*)>("opendir");
  const char* task = std::strstr(path, "/task/");
  if (task == nullptr) {
    return next(path);
  }
  return world.isAlive(static_cast<uint32_t>(std::strtoul(task + 6, nullptr, 10))) ? next("/")
                                                                                   : nullptr;
}

int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (clock == CLOCK_MONOTONIC_COARSE) {
    *now = {world.now / 1000, (world.now % 1000) * 1'000'000};
    return 0;
  }
  static auto* const next = real<int(clockid_t, timespec*)>("clock_gettime");
  return next(clock, now);
}

void LOG_InnerPrint(uint32_t /*moduleId*/, const char* /*file*/, uint32_t /*fileLen*/,
                    const char* /*func*/, uint32_t /*funcLen*/, uint32_t /*line*/, uint32_t level,
                    const char* format, ...) {
  va_list args;
  va_start(args, format);
  world.said.push_back(std::to_string(level) + " " + formatted(format, args));
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
