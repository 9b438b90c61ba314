#include "faults.h"

#include <dirent.h>
#include <link.h>
#include <pthread.h>
#include <qurnadapt/platform.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "interpose.h"

namespace {

struct Fault {
  std::atomic<const char*> call;
  std::atomic<int> after;
  std::atomic<int> times;
  std::atomic<int> error;
  std::atomic<int> calls;
};

constinit std::array<Fault, 64> g_faults{};

// The one of this name, a new one the first time it is asked for. Takes no lock.
Fault& faultOf(const char* call) {
  for (Fault& fault : g_faults) {
    const char* name = nullptr;
    if (fault.call.compare_exchange_strong(name, call) || strcmp(name, call) == 0) {
      return fault;
    }
  }
  abort();
}

constinit std::atomic<int> g_sweepNumber{0};
constinit std::atomic<const char*> g_swept{nullptr};
constinit std::atomic<bool> g_environmentRead{false};
constinit std::atomic<void (*)()> g_onStrike{nullptr};
constinit std::atomic<int64_t> g_frozenMs{-1};
constinit std::atomic<int> g_sleeps{0};
constinit int g_actingSleep = 0;
constinit std::atomic<void (*)()> g_onSleep{nullptr};
constinit std::atomic<const char*> g_redirected{nullptr};
constinit std::atomic<const char*> g_redirectedTo{nullptr};
constinit std::atomic<const char*> g_symbolLine{nullptr};

void armFromEnvironment() {
  const char* text = getenv(fault::kAtLoadVariable);
  if (!g_environmentRead.exchange(true) && text != nullptr) {
    fault::arm(strchr(text, ':') + 1, EAGAIN, atoi(text));
  }
}

}  // namespace

// Where that is is found at the first question.
bool isLibraryCode(const void* address) {
  struct Range {
    uintptr_t start = 0;
    uintptr_t end = 0;
  };
  static const Range library = [] {
    Range range;
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t /*size*/, void* out) {
          for (int i = 0; i < info->dlpi_phnum; ++i) {
            const ElfW(Phdr)& part = info->dlpi_phdr[i];
            if (strstr(info->dlpi_name, "libqurnadapt") != nullptr && part.p_type == PT_LOAD &&
                (part.p_flags & PF_X) != 0) {
              const uintptr_t start = info->dlpi_addr + part.p_vaddr;
              *static_cast<Range*>(out) = {start, start + part.p_memsz};
            }
          }
          return 0;
        },
        &range);
    return range;
  }();
  const auto place = reinterpret_cast<uintptr_t>(address);
  return place >= library.start && place < library.end;
}

void fault::arm(const char* call, int error, int after, int times) {
  Fault& armed = faultOf(call);
  armed.after = after;
  armed.error = error;
  armed.times = times;
}

bool fault::strikes(const char* call, const void* caller) {
  armFromEnvironment();
  Fault& armed = faultOf(call);
  ++armed.calls;
  if (g_sweepNumber > 0 && isLibraryCode(caller) && --g_sweepNumber == 0) {
    g_swept = call;
    errno = EIO;
    return true;
  }
  if (armed.times <= 0 || armed.after-- > 0) {
    return false;
  }
  --armed.times;
  if (auto* action = g_onStrike.exchange(nullptr); action != nullptr) {
    action();
  }
  errno = armed.error;
  return true;
}

int fault::calls(const char* call) { return faultOf(call).calls; }

void fault::sweep(uint32_t number) {
  g_swept = nullptr;
  isLibraryCode(nullptr);
  g_sweepNumber = static_cast<int>(number);
}

const char* fault::endSweep() {
  g_sweepNumber = 0;
  return g_swept;
}

void fault::onStrike(void (*action)()) { g_onStrike = action; }

int sleeps() { return g_sleeps; }
void onSleep(int number, void (*action)()) {
  g_actingSleep = number;
  g_onSleep = action;
}

void frozen_clock::start() { g_frozenMs = 100'000'000; }
void frozen_clock::advance(int64_t milliseconds) { g_frozenMs += milliseconds; }
void redirectFile(const char* ending, const char* path) {
  g_redirected = ending;
  g_redirectedTo = path;
}
void symbolsReadAs(const char* line) { g_symbolLine = line; }

// Defines NAME to fail with FAILURE when its fault strikes. clock_gettime is that of
// CLOCK_MONOTONIC_COARSE alone.
#define MAY_FAIL(RETURNS, NAME, PARAMETERS, ARGUMENTS, FAILURE) \
  INTERPOSE(                                                    \
      RETURNS, NAME, PARAMETERS, ARGUMENTS, if (fault::strikes(#NAME)) { return FAILURE; })

MAY_FAIL(tm*, gmtime_r, (const time_t* time, tm* fields), (time, fields), nullptr)
MAY_FAIL(tm*, localtime_r, (const time_t* time, tm* fields), (time, fields), nullptr)
MAY_FAIL(time_t, mktime, (tm * fields), (fields), -1)
MAY_FAIL(char*, strdup, (const char* text), (text), nullptr)
MAY_FAIL(uint32_t, TovStrToMilliSeconds, (const char* text, uint32_t* milliseconds),
         (text, milliseconds), 7)
MAY_FAIL(void*, TovYamlLoadFile, (const char* path), (path), nullptr)
MAY_FAIL(uint32_t, KEM_MutexInit, (uint64_t * mutex), (mutex), 7)
MAY_FAIL(ssize_t, read, (int fd, void* to, size_t count), (fd, to, count), -1)
MAY_FAIL(int, pthread_rwlock_rdlock, (pthread_rwlock_t * lock), (lock), errno)
MAY_FAIL(int, pthread_rwlock_wrlock, (pthread_rwlock_t * lock), (lock), errno)
MAY_FAIL(uint32_t, TOV_DeadLoopRegCapability, (const FrameDeadloopCapability* capability),
         (capability), 0x77)
MAY_FAIL(uint32_t, KEM_SigcapHandleReg, (uint32_t sigId, KemSigcapHandler handler),
         (sigId, handler), 5)
MAY_FAIL(void*, KEM_MemAlloc_F,
         (uint32_t handleId, uint8_t partition, uintptr_t size, const char* file, uint32_t line),
         (handleId, partition, size, file, line), nullptr)
MAY_FAIL(uint32_t, KEM_HandleFinalize, (uint32_t handleId), (handleId), 7)
MAY_FAIL(uint32_t, KEM_HandleInitialize, (const char* name, uint32_t* handleId), (name, handleId),
         7)
MAY_FAIL(uint32_t, KEM_TaskStackInfoGet, (uint32_t selector, FrameTaskStackInfo* info),
         (selector, info), QURN_FAILED)
MAY_FAIL(uint32_t, KEM_MutexLock, (uint64_t * mutex), (mutex), 7)
MAY_FAIL(uint32_t, KEM_CpuTick2Ms, (const uint32_t tick[2], uint32_t* msHigh, uint32_t* msLow),
         (tick, msHigh, msLow), 7)
MAY_FAIL(int, epoll_create, (int size), (size), -1)
MAY_FAIL(int, epoll_ctl, (int epfd, int op, int fd, epoll_event* event), (epfd, op, fd, event), -1)
MAY_FAIL(int, epoll_wait, (int epfd, epoll_event* events, int most, int timeout),
         (epfd, events, most, timeout), -1)
MAY_FAIL(off_t, lseek, (int fd, off_t offset, int whence), (fd, offset, whence), -1)
MAY_FAIL(int, pthread_mutex_init, (pthread_mutex_t * mutex, const pthread_mutexattr_t* attributes),
         (mutex, attributes), errno)
MAY_FAIL(int, pthread_mutex_destroy, (pthread_mutex_t * mutex), (mutex), errno)
MAY_FAIL(DIR*, opendir, (const char* name), (name), nullptr)
MAY_FAIL(int, pthread_create,
         (pthread_t * thread, const pthread_attr_t* attributes, void* (*entry)(void*),
          void* argument),
         (thread, attributes, entry, argument), errno)
MAY_FAIL(int, pthread_kill, (pthread_t thread, int sig), (thread, sig), errno)
MAY_FAIL(int, pthread_rwlock_init,
         (pthread_rwlock_t * lock, const pthread_rwlockattr_t* attributes), (lock, attributes),
         errno)
MAY_FAIL(int, sigaction, (int sig, const struct sigaction* action, struct sigaction* old),
         (sig, action, old), -1)
MAY_FAIL(int, timerfd_create, (int clock, int flags), (clock, flags), -1)
MAY_FAIL(int, timerfd_settime, (int fd, int flags, const itimerspec* value, itimerspec* old),
         (fd, flags, value, old), -1)

extern "C" {

// These three do their work and fail all the same, so that nothing stays open or locked.

int close(int fd) {
  static auto* const next = real<int(int)>("close");
  const int result = next(fd);
  return fault::strikes("close") ? -1 : result;
}

int closedir(DIR* directory) noexcept {
  static auto* const next = real<int(DIR*)>("closedir");
  const int result = next(directory);
  return fault::strikes("closedir") ? -1 : result;
}

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static auto* const next = real<int(pthread_mutex_t*)>("pthread_mutex_lock");
  return fault::strikes("pthread_mutex_lock") ? errno : next(mutex);
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
  static auto* const next = real<int(pthread_mutex_t*)>("pthread_mutex_unlock");
  const int result = next(mutex);
  return fault::strikes("pthread_mutex_unlock") ? errno : result;
}

int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (clock == CLOCK_MONOTONIC_COARSE) {
    if (fault::strikes("clock_gettime")) {
      return -1;
    }
    if (const int64_t frozenMs = g_frozenMs; frozenMs >= 0) {
      *now = {frozenMs / 1000, (frozenMs % 1000) * 1'000'000};
      return 0;
    }
  }
  static auto* const next = real<int(clockid_t, timespec*)>("clock_gettime");
  return next(clock, now);
}

unsigned sleep(unsigned /*seconds*/) {
  if (++g_sleeps == g_actingSleep) {
    g_onSleep.load()();
  }
  return 0;
}

int prctl(int option, ...) noexcept {
  if (fault::strikes("prctl")) {
    return -1;
  }
  va_list args;
  va_start(args, option);
  void* argument = va_arg(args, void*);
  va_end(args);
  static auto* const next = real<int(int, ...)>("prctl");
  return next(option, argument, 0, 0, 0);
}

int open(const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = va_arg(args, mode_t);
  va_end(args);
  if (fault::strikes("open")) {
    return -1;
  }
  static auto* const next = real<int(const char*, int, ...)>("open");
  const char* to = g_redirectedTo;
  return next(to != nullptr && std::string_view(path).ends_with(g_redirected.load()) ? to : path,
              flags, mode);
}

char** backtrace_symbols(void* const* addresses, int count) noexcept {
  if (fault::strikes("backtrace_symbols")) {
    return nullptr;
  }
  if (const char* line = g_symbolLine; line != nullptr) {
    auto** lines = static_cast<char**>(malloc(sizeof(char*) + strlen(line) + 1));
    lines[0] = strcpy(reinterpret_cast<char*>(lines + 1), line);
    return lines;
  }
  static auto* const next = real<char**(void* const*, int)>("backtrace_symbols");
  return next(addresses, count);
}

int _snprintf_s_chk(char* dest, size_t capacity, size_t /*bos*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int length = vsnprintf(dest, capacity, format, args);
  va_end(args);
  return fault::strikes("snprintf_s") ? -1 : length;
}

int _memset_s_chk(void* dest, size_t capacity, int value, size_t count, size_t bos) {
  static auto* const next = real<int(void*, size_t, int, size_t, size_t)>("_memset_s_chk");
  return fault::strikes("memset_s") ? errno : next(dest, capacity, value, count, bos);
}

}  // extern "C"
