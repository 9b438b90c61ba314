// Stands between the signal and the library's handler, and in front of the calls that a handler
// must not make: they may wait for a lock that the stuck thread holds.
#include <dlfcn.h>
#include <link.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/machine_context.h"
#include "hard_case.h"
#include "support/interpose.h"

namespace {

using Handler = void (*)(int, siginfo_t*, void*);

constexpr size_t kPaintedBytes = size_t{24} * 1024;
constexpr unsigned char kPaint = 0xA5;
constexpr int kErrno = 4711;

constinit std::atomic<Handler> g_handler{nullptr};
constinit std::atomic<size_t> g_stackUsed{0};
constinit std::atomic<int> g_runs{0};
constinit std::atomic<int> g_underWay{0};
constinit std::atomic<bool> g_painting{true};
constinit thread_local bool t_handling = false;

void forbid(const char* what) {
  if (t_handling) {
    t_handling = false;
    --g_underWay;
    say("forbidden: ");
    say(what);
    say("\n");
    _exit(3);
  }
}

// Below this frame lies nothing that is in use, on a stack without a red zone in sight.
__attribute__((noinline)) void runPainted(int sig, siginfo_t* info, void* context) {
  auto* const top = static_cast<unsigned char*>(__builtin_frame_address(0)) - 512;
  volatile unsigned char* const bottom = top - kPaintedBytes;
  for (volatile unsigned char* byte = bottom; byte < top; ++byte) {
    *byte = kPaint;
  }
  g_handler.load()(sig, info, context);
  const volatile unsigned char* lowest = bottom;
  while (*lowest == kPaint && lowest < top) {
    ++lowest;
  }
  const uint64_t interrupted = qurn::machineWords(context)[qurn::kStackPointerWord];
  const size_t used = interrupted - reinterpret_cast<uint64_t>(lowest);
  g_stackUsed = std::max(g_stackUsed.load(), used);
}

void watchedHandler(int sig, siginfo_t* info, void* context) {
  const int kept = errno;
  errno = kErrno;
  ++g_underWay;
  t_handling = true;
  (g_painting ? runPainted : g_handler.load())(sig, info, context);
  if (errno != kErrno) {
    forbid("a change of errno");
  }
  t_handling = false;
  errno = kept;
  ++g_runs;
  --g_underWay;
}

}  // namespace

void say(const char* line) { static_cast<void>(!write(STDERR_FILENO, line, strlen(line))); }
// The report may be out, and the process ending, before the handler has returned.
void reportHandler() {
  while (g_underWay != 0) {
    sched_yield();
  }
  std::array<char, 80> line{};
  snprintf(line.data(), line.size(), "%d captures, at most %zu bytes of stack\n", g_runs.load(),
           g_stackUsed.load());
  say(line.data());
}
void doNotPaint() { g_painting = false; }

#define FORBIDDEN(RETURNS, NAME, PARAMETERS, ARGUMENTS) \
  INTERPOSE(RETURNS, NAME, PARAMETERS, ARGUMENTS, forbid(__func__))

using PhdrCallback = int (*)(dl_phdr_info*, size_t, void*);

FORBIDDEN(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
FORBIDDEN(int, pthread_rwlock_rdlock, (pthread_rwlock_t * lock), (lock))
FORBIDDEN(int, pthread_rwlock_wrlock, (pthread_rwlock_t * lock), (lock))
FORBIDDEN(int, pthread_cond_wait, (pthread_cond_t * one, pthread_mutex_t* mutex), (one, mutex))
FORBIDDEN(int, dl_iterate_phdr, (PhdrCallback callback, void* data), (callback, data))
FORBIDDEN(int, dladdr, (const void* address, Dl_info* info), (address, info))
FORBIDDEN(int, fflush, (FILE * stream), (stream))
FORBIDDEN(int, fputs, (const char* text, FILE* stream), (text, stream))
FORBIDDEN(size_t, fwrite, (const void* data, size_t size, size_t count, FILE* stream),
          (data, size, count, stream))
FORBIDDEN(int, vsnprintf, (char* text, size_t size, const char* format, va_list args),
          (text, size, format, args))
FORBIDDEN(FILE*, fopen, (const char* path, const char* mode), (path, mode))

// Looking for the next definition would allocate.
#define FORBIDDEN_ALLOCATOR(RETURNS, NAME, PARAMETERS, ARGUMENTS) \
  RETURNS __libc_##NAME PARAMETERS;                               \
  RETURNS NAME PARAMETERS noexcept {                              \
    forbid(#NAME);                                                \
    return __libc_##NAME ARGUMENTS;                               \
  }

extern "C" {

FORBIDDEN_ALLOCATOR(void*, malloc, (size_t size), (size))
FORBIDDEN_ALLOCATOR(void*, calloc, (size_t count, size_t size), (count, size))
FORBIDDEN_ALLOCATOR(void*, realloc, (void* block, size_t size), (block, size))
FORBIDDEN_ALLOCATOR(void, free, (void* block), (block))

// However the process ends, it says what the handler needed.
void _exit(int status) {
  reportHandler();
  syscall(SYS_exit_group, status);
  __builtin_unreachable();
}

int sigaction(int sig, const struct sigaction* action, struct sigaction* old) noexcept {
  static auto* const next = real<int(int, const struct sigaction*, struct sigaction*)>("sigaction");
  if (sig != SIGRTMIN + 2 || action == nullptr) {
    const int result = next(sig, action, old);
    if (old != nullptr && old->sa_sigaction == watchedHandler) {
      old->sa_sigaction = g_handler;
    }
    return result;
  }
  struct sigaction watched = *action;
  g_handler = action->sa_sigaction;
  watched.sa_sigaction = watchedHandler;
  return next(sig, &watched, old);
}

}  // extern "C"
