// What the tests of the library put in front of the system's calls and the platform's: failures, a
// clock, and a record of what the library asked for.
#undef _FORTIFY_SOURCE  // it has an inline read() of its own

#include <dirent.h>
#include <execinfo.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <qurnadapt/platform.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <string_view>
#include <thread>

#include "faults.h"
#include "interpose.h"
#include "recording_platform.h"

namespace {

constinit std::atomic<int64_t> g_frozenMs{-1};
constinit std::atomic<int64_t> g_oversleepMs{0};
constinit std::atomic<int> g_oversleeps{0};  // sleeps that take so much longer
constinit std::atomic<int> g_sleeps{0};
constinit int g_actingSleep = 0;
constinit std::atomic<void (*)()> g_onSleep{nullptr};
constinit std::atomic<const char*> g_redirected{nullptr};
constinit std::atomic<const char*> g_redirectedTo{nullptr};
constinit std::atomic<const char*> g_symbolLine{nullptr};

const char* redirected(const char* path) {
  const char* to = g_redirectedTo;
  return to != nullptr && std::string_view(path).ends_with(g_redirected.load()) ? to : path;
}

char** linesOfSymbol() {
  auto** lines = static_cast<char**>(malloc(sizeof(char*) + strlen(g_symbolLine) + 1));
  lines[0] = strcpy(reinterpret_cast<char*>(lines + 1), g_symbolLine);
  return lines;
}

// Reached for the first time while the library is being loaded, before this program's own
// constructors, and never destroyed.
struct State {
  std::mutex mutex;
  std::vector<recorded::Line> lines;
  std::vector<std::string> events;
  std::string configPath;
  size_t blocksHeld = 0;
  std::function<void(const std::string&)> watcher;
};

// Locked as long as the answer lives.
std::unique_ptr<State, void (*)(State*)> state() {
  static auto* const instance = new State;
  instance->mutex.lock();
  return {instance, [](State* locked) { locked->mutex.unlock(); }};
}

void tellWatcher(const std::string& what) {
  if (const auto watcher = state()->watcher; watcher != nullptr) {
    watcher(what);
  }
}

void record(const void* caller, bool unsuppressed, uint32_t moduleId, const char* file,
            uint32_t fileLen, const char* func, uint32_t funcLen, uint32_t line, uint32_t level,
            const char* format, va_list args) {
  char text[1024];
  vsnprintf(text, sizeof(text), format, args);
  fprintf(stderr, "%u %s\n", level, text);  // for the tests of a process's end
  const std::string path(file == nullptr ? "" : file);
  const std::string unit = path.substr(path.rfind('/') + 1);
  const bool wellFormed =
      moduleId == 0 && fileLen == path.size() && path.rfind("build/src/", 0) == 0 &&
      func != nullptr && strcmp(func, "<unknown>") == 0 && funcLen == 9 && line > 0 &&
      // The framework's dead-loop library hands its texts over whole.
      (strcmp(format, "%s") != 0 || isCodeOf(caller, "FrameDeadloopLogoutHook"));
  if (!wellFormed && isLibraryCode(caller)) {
    fprintf(stderr, "That line is not passed as it has to be.\n");
    abort();
  }
  state()->lines.push_back({level, text, unit, line, unsuppressed});
  tellWatcher(text);
}

}  // namespace

int sleeps() { return g_sleeps; }
void onSleep(int number, void (*action)()) {
  g_actingSleep = number;
  g_onSleep = action;
}

void frozen_clock::start() { g_frozenMs = 100'000'000; }
void frozen_clock::advance(int64_t milliseconds) { g_frozenMs += milliseconds; }
void frozen_clock::oversleep(int64_t milliseconds, int times) {
  g_oversleepMs = milliseconds;
  g_oversleeps = times;
}
void redirectFile(const char* ending, const char* path) {
  g_redirected = ending;
  g_redirectedTo = path;
}
void symbolsReadAs(const char* line) { g_symbolLine = line; }

namespace recorded {

std::vector<Line> lines() { return state()->lines; }

std::vector<std::string> texts(uint32_t level) {
  auto chosen = lines();
  std::erase_if(chosen, [=](const Line& line) { return level != 0 && line.level != level; });
  std::vector<std::string> found(chosen.size());
  std::ranges::transform(chosen, found.begin(), &Line::text);
  return found;
}

bool has(uint32_t level, const std::string& text) {
  return std::ranges::count(texts(level), text) != 0;
}

size_t count(const std::string& part) {
  return static_cast<size_t>(
      std::ranges::count_if(texts(), [&](const auto& t) { return t.find(part) != t.npos; }));
}

size_t sourceLines(const std::string& part) {
  std::set<uint32_t> found;
  for (const Line& line : lines()) {
    if (line.text.find(part) != std::string::npos) {
      found.insert(line.sourceLine);
    }
  }
  return found.size();
}

void forget() {
  state()->lines.clear();
  state()->events.clear();
}

void watch(std::function<void(const std::string& what)> watcher) {
  state()->watcher = std::move(watcher);
}

void note(const std::string& event) { state()->events.push_back(event); }

std::vector<std::string> events() { return state()->events; }

size_t blocksHeld() { return state()->blocksHeld; }

}  // namespace recorded

void configure(const std::string& yaml) {
  const std::string path = testing::TempDir() + "/qurn-" + std::to_string(getpid()) + ".yaml";
  std::ofstream(path) << yaml;
  state()->configPath = yaml.empty() ? "" : path;
}

bool eventually(const std::function<bool()>& condition) {
  for (const time_t end = time(nullptr) + 10; !condition(); usleep(2000)) {
    if (time(nullptr) > end) {
      return false;
    }
  }
  return true;
}

void startDetection(uint32_t periodMs) {
  ASSERT_EQ(FrameSetDeadloopPeriodDelay(periodMs), QURN_OK);
  ASSERT_EQ(FRAME_MntInit(), QURN_OK);
  ASSERT_TRUE(eventually([] { return std::ranges::count(recorded::events(), "exit check") != 0; }));
}

void onThread(const std::string& name, const std::function<void()>& body) {
  std::thread([&] {
    pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
    body();
  }).join();
}

// Defines NAME, as it is declared, to have the result FAILURE when the fault of CALL strikes.
// `next()` is what would have been called. The definition is inline, so there when its address is
// asked for.
#pragma GCC diagnostic ignored "-Wattributes"
#pragma GCC diagnostic ignored "-Wignored-attributes"
#define MAY_FAIL_AS(CALL, NAME, FAILURE)                                     \
  template <typename>                                                        \
  struct Definition_##NAME;                                                  \
  template <typename Result, typename... Arguments, bool quiet>              \
  struct Definition_##NAME<Result(Arguments...) noexcept(quiet)> {           \
    friend Result NAME(Arguments... arguments) noexcept(quiet) {             \
      static constinit std::atomic<Result (*)(Arguments...)> found{nullptr}; \
      const auto next = [&] { return real(found, #NAME)(arguments...); };    \
      return fault::strikes(CALL) ? (FAILURE) : next();                      \
    }                                                                        \
  };                                                                         \
  template struct Definition_##NAME<decltype(::NAME)>;                       \
  [[gnu::used]] constexpr auto kAddressOf_##NAME = &::NAME;
#define MAY_FAIL(NAME, FAILURE) MAY_FAIL_AS(#NAME, NAME, FAILURE)

// Not variadic here: an argument that a caller leaves out is one that nobody reads.
extern "C" int prctl(int option, void* argument) noexcept;
// What a compiler that checks the sizes of objects calls in place of the plain ones.
extern "C" int __poll_chk(pollfd* fds, nfds_t count, int timeout, size_t bytes);
extern "C" ssize_t __read_chk(int fd, void* bytes, size_t count, size_t capacity);

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
MAY_FAIL(poll, -1)
MAY_FAIL_AS("poll", __poll_chk, -1)
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
MAY_FAIL_AS("read", __read_chk, -1)
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

INTERPOSE(
    int, nanosleep, (const timespec* span, timespec* rest), (span, rest),
    if (g_frozenMs >= 0 && isLibraryCode(__builtin_return_address(0))) {
      const int64_t ms = span->tv_sec * 1000 + span->tv_nsec / 1'000'000;
      frozen_clock::advance(ms + (g_oversleeps-- > 0 ? g_oversleepMs.load() : 0));
      recorded::note("asleep for " + std::to_string(ms));
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
  return fault::strikes("open") ? -1 : next(redirected(path), flags, mode);
}

int __open_2(const char* path, int flags) {
  static auto* const next = real<int(const char*, int)>("__open_2");
  return fault::strikes("open") ? -1 : next(redirected(path), flags);
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

#define RECORDS(NAME, UNSUPPRESSED)                                                           \
  void NAME(uint32_t moduleId, const char* file, uint32_t fileLen, const char* func,          \
            uint32_t funcLen, uint32_t line, uint32_t level, const char* format, ...) {       \
    va_list args;                                                                             \
    va_start(args, format);                                                                   \
    record(__builtin_return_address(0), UNSUPPRESSED, moduleId, file, fileLen, func, funcLen, \
           line, level, format, args);                                                        \
    va_end(args);                                                                             \
  }
RECORDS(LOG_InnerPrint, false)
RECORDS(LOG_InnerPrintUnsuppress, true)

void LOG_InnerVprint(uint32_t moduleId, uint32_t kind, const char* file, uint32_t fileLen,
                     const char* func, uint32_t funcLen, uint32_t line, uint32_t level,
                     const char* format, va_list args) {
  if (kind == 1 && file == nullptr && func == nullptr) {
    record(nullptr, false, moduleId, file, fileLen, func, funcLen, line, level, format, args);
  }
}

const char* FrameParamGet(uint32_t id) {
  const std::string& path = state()->configPath;
  return id == 12 && !path.empty() ? path.c_str() : nullptr;
}

uint32_t FrameTriggerCheckExit(void) {
  recorded::note("exit check");
  return 0;
}

void* TOV_MemAllocF(size_t size, const char* file, uint32_t line, uint32_t reserved) {
  if (fault::strikes("TOV_MemAllocF") || file == nullptr || line == 0 || reserved != 0) {
    return nullptr;
  }
  ++state()->blocksHeld;
  return memset(malloc(size), 0xA5, size);  // the library is to clear what it gets
}

void TOV_MemFreeF(void* block, const char* /*file*/, uint32_t /*line*/, uint32_t reserved) {
  tellWatcher("free");
  state()->blocksHeld -= block != nullptr && reserved == 0 ? 1 : 0;
  free(block);
}

}  // extern "C"
