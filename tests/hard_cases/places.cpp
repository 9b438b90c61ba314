// Where threads get stuck. Functions whose names start with "at_" are those that a report must
// name; they are compiled with optimisation, without frame pointers, and with every call left a
// call.
#include <alloca.h>
#include <dlfcn.h>
#include <link.h>
#include <malloc.h>
#include <pthread.h>
#include <qurnadapt/monitor.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>

#include "hard_case.h"

#define PLACE extern "C" WHOLE

std::atomic<bool> g_rescued{false};
extern "C" {
volatile int g_inside = 0;
void at_library_entry();
}

PLACE void at_spin() {
  while (!g_rescued.load(std::memory_order_relaxed)) {
  }
}

// ---- depth

PLACE void at_leaf() { at_spin(); }

template <int N>
WHOLE void at_level() {
  if constexpr (N == 1) {
    at_leaf();
  } else {
    at_level<N - 1>();
  }
}
PLACE void at_twelve() { at_level<12>(); }

PLACE void at_recurring(int depth) { depth == 0 ? at_spin() : at_recurring(depth - 1); }
PLACE void at_recursion() { at_recurring(5000); }

// ---- in the kernel

PLACE void at_mutex() {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_mutex_lock(&mutex);
  pthread_mutex_lock(&mutex);
}
PLACE void at_condition() {
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_mutex_lock(&mutex);
  pthread_cond_wait(&condition, &mutex);
}
PLACE void at_read() {
  std::array<int, 2> ends{};
  char byte = 0;
  while (pipe(ends.data()) != 0 || read(ends[0], &byte, 1) != 1) {
  }
}
PLACE void at_sleep() {
  for (timespec rest{3600, 0}; nanosleep(&rest, &rest) != 0;) {
  }
}
PLACE void at_epoll() {
  epoll_event event{};
  const int epoll = epoll_create1(0);
  while (epoll_wait(epoll, &event, 1, -1) < 1) {
  }
}
PLACE void at_join() { std::thread(pause).join(); }
PLACE void at_clock() {
  timespec now{};
  while (!g_rescued.load(std::memory_order_relaxed)) {
    clock_gettime(CLOCK_MONOTONIC, &now);
  }
}

// ---- with a lock of the process held

// Runs while the allocator prints its statistics, that is with the lock of its main heap held.
PLACE ssize_t at_allocator_lock(void* /*cookie*/, const char* /*text*/, size_t size) {
  g_inside = 1;
  at_spin();
  return static_cast<ssize_t>(size);
}
PLACE void at_allocator() {
  const cookie_io_functions_t functions{nullptr, at_allocator_lock, nullptr, nullptr};
  FILE* trap = fopencookie(nullptr, "w", functions);
  setvbuf(trap, nullptr, _IONBF, 0);
  stderr = trap;
  malloc_stats();
}
PLACE void at_churn() {
  while (!g_rescued.load(std::memory_order_relaxed)) {
    void* volatile block = malloc(static_cast<size_t>(rand() % 5000));
    free(block);
  }
}
PLACE void at_printing() {
  FILE* sink = fopen("/dev/null", "w");
  while (!g_rescued.load(std::memory_order_relaxed)) {
    fprintf(sink, "%d %f %s", 1, 2.5, "three");
  }
}
PLACE int at_one_phdr(dl_phdr_info* /*info*/, size_t /*size*/, void* /*data*/) { return 0; }
PLACE void at_walking() {
  while (!g_rescued.load(std::memory_order_relaxed)) {
    dl_iterate_phdr(at_one_phdr, nullptr);
  }
}
PLACE void at_stream() {
  flockfile(stderr);
  g_inside = 1;
  at_spin();
}
PLACE int at_phdr_callback(dl_phdr_info* /*info*/, size_t /*size*/, void* /*data*/) {
  g_inside = 1;
  at_spin();
  return 1;
}
PLACE void at_phdr() { dl_iterate_phdr(at_phdr_callback, nullptr); }
PLACE void at_loading() { dlopen(ENDLESS_CONSTRUCTOR, RTLD_NOW); }

// ---- in handlers, on other stacks

PLACE void at_handling(int /*sig*/) { at_spin(); }
PLACE void at_handler() {
  signal(SIGUSR1, at_handling);
  raise(SIGUSR1);
}

static void useAlternateStack() {
  constexpr size_t kBytes = 65536;
  const stack_t stack{malloc(kBytes), 0, kBytes};
  sigaltstack(&stack, nullptr);
}
PLACE void at_alternate_stack() {
  useAlternateStack();
  at_spin();
}
PLACE void at_on_alternate_stack() {
  useAlternateStack();
  struct sigaction action {};
  action.sa_handler = at_handling;
  action.sa_flags = SA_ONSTACK;
  sigaction(SIGUSR1, &action, nullptr);
  raise(SIGUSR1);
}

// Leaves what the handler may need of the stack, whose bounds the thread asks for beforehand.
PLACE void at_end_of_stack() {
  pthread_attr_t attributes;
  void* start = nullptr;
  size_t size = 0;
  pthread_getattr_np(pthread_self(), &attributes);
  pthread_attr_getstack(&attributes, &start, &size);
  pthread_attr_destroy(&attributes);
  const auto here = reinterpret_cast<uint64_t>(__builtin_frame_address(0));
  const uint64_t used = here - reinterpret_cast<uint64_t>(start) - kMostHandlerStack;
  auto* volatile filler = static_cast<char*>(alloca(used));
  filler[0] = 1;
  doNotPaint();
  at_spin();
}

PLACE void at_stripped() { at_library_entry(); }

// ---- in threads that others have spoilt

PLACE void at_masked() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, nullptr);
  FrameDeadloopHandle self = 0;
  Frame_SetHeartbeatToMon(&self, 1, 1, 1);
  at_spin();
}
PLACE void at_cancelled() {
  pthread_cancel(pthread_self());
  at_spin();
}
PLACE void at_replaced() {
  signal(SIGRTMIN + 2, SIG_IGN);
  at_spin();
}
// The saved frame pointer, and where this returns to.
PLACE void at_smashing(uintptr_t framePointer, uintptr_t returnAddress) {
  auto* const frame = static_cast<volatile uintptr_t*>(__builtin_frame_address(0));
  frame[0] = framePointer;
  frame[1] = returnAddress == 0 ? frame[1] : returnAddress;
  at_spin();
}
PLACE void at_smashed_frame() {
  sigset_t faults;
  sigemptyset(&faults);
  sigaddset(&faults, SIGSEGV);
  pthread_sigmask(SIG_BLOCK, &faults, nullptr);
  auto* volatile room = static_cast<char*>(alloca(static_cast<size_t>(rand() % 64 + 64)));
  room[0] = 1;
  at_smashing(8, 0);
}
PLACE void at_smashed_return() { at_smashing(8, 0xDEADBEEF000); }

// ---- registers

#define FIRST_SIXTEEN(F) \
  F(0) F(1) F(2) F(3) F(4) F(5) F(6) F(7) F(8) F(9) F(10) F(11) F(12) F(13) F(14) F(15)
#if defined(__x86_64__)
#define EACH(F) FIRST_SIXTEEN(F)
#define LOAD(N) "movaps " #N "*16(%[before]), %%xmm" #N "\n"
#define STORE(N) "movaps %%xmm" #N ", " #N "*16(%[after])\n"
#define SPIN "1: cmpb $0, (%[flag])\n je 1b\n"
#define CLOBBER(N) , "xmm" #N
#define SPIN_CLOBBER
constexpr size_t kVectors = 16;
#else
#define EACH(F)    \
  FIRST_SIXTEEN(F) \
  F(16) F(17) F(18) F(19) F(20) F(21) F(22) F(23) F(24) F(25) F(26) F(27) F(28) F(29) F(30) F(31)
#define LOAD(N) "ldr q" #N ", [%[before], #" #N "*16]\n"
#define STORE(N) "str q" #N ", [%[after], #" #N "*16]\n"
#define SPIN "1: ldrb w9, [%[flag]]\n cbz w9, 1b\n"
#define CLOBBER(N) , "v" #N
#define SPIN_CLOBBER , "x9"
constexpr size_t kVectors = 32;
#endif

// Spins with every vector register set, and looks at them afterwards.
PLACE void at_registers() {
  alignas(16) std::array<uint64_t, 2 * kVectors> before{};
  alignas(16) std::array<uint64_t, 2 * kVectors> after{};
  for (size_t i = 0; i < before.size(); ++i) {
    before[i] = 0x0123456789ABCDEFULL * (i + 1);
  }
  errno = 1234;
  asm volatile(EACH(LOAD) SPIN EACH(STORE)
               :
               : [before] "r"(before.data()), [after] "r"(after.data()), [flag] "r"(&g_rescued)
               : "memory", "cc" SPIN_CLOBBER EACH(CLOBBER));
  const bool kept = before == after && errno == 1234;
  printf("registers and errno %s\n", kept ? "kept" : "CHANGED");
}

// ---- beside a debugger

// Stops the thread from a process of its own, as a debugger does, until long after its third
// threshold.
static void stopForAWhile(pid_t tid) {
  const bool stopped = ptrace(PTRACE_SEIZE, tid, nullptr, nullptr) == 0 &&
                       ptrace(PTRACE_INTERRUPT, tid, nullptr, nullptr) == 0 &&
                       waitpid(tid, nullptr, __WALL) == tid;
  sleep(stopped ? 4 : 0);
  say(stopped ? "the debugger lets go\n" : "no debugging here\n");
  ptrace(PTRACE_DETACH, tid, nullptr, nullptr);
  syscall(SYS_exit_group, 0);
}

PLACE void at_debugged() {
  prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
  std::array<int, 2> forked{};  // a thread that is stopped within fork would hold the log's lock
  static_cast<void>(!pipe(forked.data()));
  if (const pid_t self = gettid(); fork() == 0) {
    char byte = 0;
    static_cast<void>(!read(forked[0], &byte, 1));
    stopForAWhile(self);
  }
  static_cast<void>(!write(forked[1], "", 1));
  at_spin();
}
