#undef _FORTIFY_SOURCE  // it has an inline read() of its own

#include "faults.h"

#include <dirent.h>
#include <execinfo.h>
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
constinit std::atomic<void (*)()> g_onStrike{nullptr};
constinit std::atomic<int64_t> g_frozenMs{-1};
constinit std::atomic<int> g_sleeps{0};
constinit int g_actingSleep = 0;
constinit std::atomic<void (*)()> g_onSleep{nullptr};
constinit std::atomic<const char*> g_redirected{nullptr};
constinit std::atomic<const char*> g_redirectedTo{nullptr};
constinit std::atomic<const char*> g_symbolLine{nullptr};

void armFromEnvironment() {
  static constinit std::atomic<bool> done{false};
  const char* text = getenv(fault::kAtLoadVariable);
  if (!done.exchange(true) && text != nullptr) {
    fault::arm(strchr(text, ':') + 1, EAGAIN, atoi(text));
  }
}

char** linesOfSymbol() {
  auto** lines = static_cast<char**>(malloc(sizeof(char*) + strlen(g_symbolLine) + 1));
  lines[0] = strcpy(reinterpret_cast<char*>(lines + 1), g_symbolLine);
  return lines;
}

}  // namespace

bool isLibraryCode(const void* address) {
  Dl_info info{};
  return dladdr(address, &info) != 0 && strstr(info.dli_fname, "libqurnadapt") != nullptr;
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

// Defines NAME, as it is declared, to have the result FAILURE when its fault strikes. `next()` is
// what would have been called. The definition is inline, so there when its address is asked for.
#pragma GCC diagnostic ignored "-Wattributes"
#pragma GCC diagnostic ignored "-Wignored-attributes"
#define MAY_FAIL(NAME, FAILURE)                                              \
  template <typename>                                                        \
  struct Definition_##NAME;                                                  \
  template <typename Result, typename... Arguments, bool quiet>              \
  struct Definition_##NAME<Result(Arguments...) noexcept(quiet)> {           \
    friend Result NAME(Arguments... arguments) noexcept(quiet) {             \
      static constinit std::atomic<Result (*)(Arguments...)> found{nullptr}; \
      const auto next = [&] { return real(found, #NAME)(arguments...); };    \
      return fault::strikes(#NAME) ? (FAILURE) : next();                     \
    }                                                                        \
  };                                                                         \
  template struct Definition_##NAME<decltype(::NAME)>;                       \
  [[gnu::used]] constexpr auto kAddressOf_##NAME = &::NAME;

// Not variadic here: an argument that a caller leaves out is one that nobody reads.
extern "C" int prctl(int option, void* argument) noexcept;

MAY_FAIL(KEM_CpuTick2Ms, 7)
MAY_FAIL(KEM_HandleFinalize, 7)
MAY_FAIL(KEM_HandleInitialize, 7)
MAY_FAIL(KEM_MemAlloc_F, nullptr)
MAY_FAIL(KEM_MutexInit, 7)
MAY_FAIL(KEM_MutexLock, 7)
MAY_FAIL(KEM_SigcapHandleReg, 5)
MAY_FAIL(KEM_TaskStackInfoGet, QURN_FAILED)
MAY_FAIL(TOV_DeadLoopRegCapability, 0x77)
MAY_FAIL(TovStrToMilliSeconds, 7)
MAY_FAIL(TovYamlLoadFile, nullptr)
MAY_FAIL(epoll_create, -1)
MAY_FAIL(epoll_ctl, -1)
MAY_FAIL(epoll_wait, -1)
MAY_FAIL(gmtime_r, nullptr)
MAY_FAIL(localtime_r, nullptr)
MAY_FAIL(lseek, -1)
MAY_FAIL(mktime, -1)
MAY_FAIL(opendir, nullptr)
MAY_FAIL(prctl, -1)
MAY_FAIL(pthread_create, errno)
MAY_FAIL(pthread_kill, errno)
MAY_FAIL(pthread_mutex_destroy, errno)
MAY_FAIL(pthread_mutex_init, errno)
MAY_FAIL(pthread_mutex_lock, errno)
MAY_FAIL(pthread_rwlock_init, errno)
MAY_FAIL(pthread_rwlock_rdlock, errno)
MAY_FAIL(pthread_rwlock_wrlock, errno)
MAY_FAIL(read, -1)
MAY_FAIL(sigaction, -1)
MAY_FAIL(strdup, nullptr)
MAY_FAIL(timerfd_create, -1)
MAY_FAIL(timerfd_settime, -1)
// These do their work all the same, so that nothing stays open or locked.
MAY_FAIL(close, (next(), -1))
MAY_FAIL(closedir, (next(), -1))
MAY_FAIL(pthread_mutex_unlock, (next(), errno))

// CLOCK_MONOTONIC_COARSE alone fails or stands still.
INTERPOSE(
    int, clock_gettime, (clockid_t clock, timespec* now), (clock, now),
    if (clock == CLOCK_MONOTONIC_COARSE && fault::strikes("clock_gettime")) return -1;
    if (const int64_t ms = g_frozenMs; clock == CLOCK_MONOTONIC_COARSE && ms >= 0) {
      now->tv_sec = ms / 1000;
      now->tv_nsec = ms % 1000 * 1'000'000;
      return 0;
    })

INTERPOSE(char**, backtrace_symbols, (void* const* addresses, int count), (addresses, count),
          if (fault::strikes("backtrace_symbols")) return nullptr;
          if (g_symbolLine != nullptr) return linesOfSymbol();)

extern "C" {

unsigned sleep(unsigned /*seconds*/) {
  if (++g_sleeps == g_actingSleep) {
    g_onSleep.load()();
  }
  return 0;
}

int open(const char* path, int flags, mode_t mode) {
  static auto* const next = real<int(const char*, int, mode_t)>("open");
  const char* to = g_redirectedTo;
  const bool redirected = to != nullptr && std::string_view(path).ends_with(g_redirected.load());
  return fault::strikes("open") ? -1 : next(redirected ? to : path, flags, mode);
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
