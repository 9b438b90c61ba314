// Measures the hot paths and the capture beside the primitive operations that they are made of, in
// one run, and prints one line a path. Each figure is the best of several rounds.
#include <pthread.h>
#include <qurnadapt/platform.h>
#include <qurnadapt/qurnadapt.h>
#include <sched.h>
#include <sys/mman.h>
#include <unwind.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double nanosecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

// The least time of one run of `work`, over `rounds` rounds of `runs` runs each.
template <typename Work>
double bestOf(int rounds, int runs, Work work) {
  double best = 1e18;
  for (int round = 0; round < rounds; ++round) {
    const auto start = Clock::now();
    for (int run = 0; run < runs; ++run) {
      work();
    }
    best = std::min(best, nanosecondsSince(start) / runs);
  }
  return best;
}

void print(const char* path, double cost, const char* floorName, double floor, const char* unit) {
  std::printf("%-28s %10.1f %-6s %10.1f %-6s %6.2f   %s\n", path, cost, unit, floor, unit,
              cost / floor, floorName);
}

// ---- heartbeat and pass

struct Primitives {
  pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
  std::array<pthread_mutex_t, FRAME_MONITOR_CAPACITY> mutexes{};
  timespec now{};

  void heartbeat() {
    pthread_rwlock_rdlock(&lock);
    pthread_rwlock_unlock(&lock);
    pthread_mutex_lock(&mutexes[0]);
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    pthread_mutex_unlock(&mutexes[0]);
  }
  // A node of a pass costs a mutex, the keep-alive report's clock read and the elapsed time's.
  void idlePass() {
    pthread_rwlock_rdlock(&lock);
    for (pthread_mutex_t& mutex : mutexes) {
      pthread_mutex_lock(&mutex);
      clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
      clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
      pthread_mutex_unlock(&mutex);
    }
    pthread_rwlock_unlock(&lock);
  }
};

Primitives g_primitives;

// The stack that the platform knows of; with none, the library scans the memory map.
FrameTaskStackInfo g_knownStack{0, 0};

uint32_t delivered(void* /*param*/) { return QURN_OK; }

void measureHeartbeat() {
  FrameDeadloopHandle self = 0;
  Frame_SetHeartbeatToMon(&self, 1000, 1000, 1000);
  const double cost = bestOf(20, 100'000, [&] { Frame_SendHeartbeatToMon(&self); });
  const double floor = bestOf(20, 100'000, [] { g_primitives.heartbeat(); });
  Frame_StopHeartbeatToMon(&self);
  print("heartbeat", cost, "read lock, mutex, coarse clock", floor, "ns");
}

void measureIdlePass() {
  std::barrier<> registered(FRAME_MONITOR_CAPACITY + 1);
  std::barrier<> done(FRAME_MONITOR_CAPACITY + 1);
  std::vector<std::thread> threads;
  for (uint32_t i = 0; i < FRAME_MONITOR_CAPACITY; ++i) {
    threads.emplace_back([&] {
      FrameDeadloopHandle self = 0;
      Frame_SetHeartbeatToMon(&self, 1000, 1000, 1000);
      registered.arrive_and_wait();
      done.arrive_and_wait();
      Frame_StopHeartbeatToMon(&self);
    });
  }
  registered.arrive_and_wait();
  const double cost = bestOf(20, 2000, FRAME_TaskDeadloopMonitorEntry);
  const double floor = bestOf(20, 2000, [] { g_primitives.idlePass(); });
  done.arrive_and_wait();
  for (std::thread& thread : threads) {
    thread.join();
  }
  print("idle pass, 64 threads", cost, "64 x (mutex, two coarse clocks)", floor, "ns");
}

// ---- handles and legacy memory

// The floor of a look-up: the tables' lock and two dependent loads.
struct LockedLoads {
  uint64_t mutex = 0;
  std::array<uint64_t, 2> words{};

  LockedLoads() {
    KEM_MutexInit(&mutex);
    words[0] = reinterpret_cast<uint64_t>(&words[1]);
  }
  void run() {
    KEM_MutexLock(&mutex);
    const volatile uint64_t* second =
        reinterpret_cast<const uint64_t*>(*static_cast<const volatile uint64_t*>(words.data()));
    static_cast<void>(*second);
    KEM_MutexUnlock(&mutex);
  }
};

void measureHandles() {
  LockedLoads floor;
  nbb_handle_initialize();
  std::vector<uint32_t> live;
  for (const size_t count : {1'000U, 100'000U, 1'000'000U}) {
    while (live.size() < count) {
      live.push_back(nbb_create_handle(&floor));
    }
    const std::string suffix = ", " + std::to_string(count) + " live";
    const uint32_t handle = live[count / 2];
    const double lockedLoads = bestOf(20, 100'000, [&] { floor.run(); });
    const double validate = bestOf(20, 100'000, [&] { nbb_validate_handle(handle); });
    print(("validate" + suffix).c_str(), validate, "KEM mutex, two loads", lockedLoads, "ns");
    const double both = bestOf(20, 100'000, [&] { nbb_destroy_handle(nbb_create_handle(&floor)); });
    print(("create, destroy" + suffix).c_str(), both, "2 x (KEM mutex, two loads)", 2 * lockedLoads,
          "ns");
  }
  for (const uint32_t handle : live) {
    nbb_destroy_handle(handle);
  }
  NbbHandleTerminate();
}

void measureLegacyHandle() {
  ZotHandleRecord* record = nullptr;
  ZOT_HandleInitializeByName("measured", &record);
  volatile uint32_t result = 0;
  const auto value = reinterpret_cast<uintptr_t>(record);
  const double cost = bestOf(20, 100'000, [&] { result = ZOT_GetRelHandle(value); });
  const double raw = bestOf(20, 100'000, [&] { result = ZOT_GetRelHandle(1); });
  ZOT_HandleFinalize(record);
  print("legacy handle, of a record", cost, "the same call for a raw id", raw, "ns");
}

// ---- capture

constexpr int kEmptySignal = SIGUSR1;
constexpr unsigned char kPaint = 0xA5;

std::atomic<bool> g_handled{false};
std::atomic<uint64_t> g_spinningFrame{0};
std::atomic<bool> g_leave{false};

void noteOnly(int /*sig*/, siginfo_t* /*info*/, void* /*context*/) { g_handled = true; }

_Unwind_Reason_Code countFrame(_Unwind_Context* /*frame*/, void* depth) {
  return ++*static_cast<int*>(depth) < 20 ? _URC_NO_REASON : _URC_NORMAL_STOP;
}

// The floor of a capture: the round trip of a signal whose handler walks twenty frames.
void walkOnly(int /*sig*/, siginfo_t* /*info*/, void* /*context*/) {
  int depth = 0;
  _Unwind_Backtrace(countFrame, &depth);
  g_handled = true;
}

__attribute__((noinline)) void descend(int levels) {
  if (levels > 0) {
    descend(levels - 1);
  } else {
    g_spinningFrame = reinterpret_cast<uint64_t>(__builtin_frame_address(0));
    while (!g_leave) {
      sched_yield();
    }
  }
  asm volatile("");  // keeps the call above from becoming a jump
}

// A thread that spins at the end of twenty calls, on a painted stack of our own.
class SpinningThread {
 public:
  SpinningThread()
      : stack_(static_cast<unsigned char*>(
            mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))) {
    memset(stack_, kPaint, kBytes);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, stack_, kBytes);
    pthread_create(
        &thread_, &attributes,
        [](void*) -> void* {
          descend(20);
          return nullptr;
        },
        nullptr);
    while (g_spinningFrame == 0) {
      sched_yield();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ~SpinningThread() {
    g_leave = true;
    pthread_join(thread_, nullptr);
  }
  [[nodiscard]] pthread_t id() const { return thread_; }
  // Bytes of stack touched below the spinning function since the paint was fresh.
  [[nodiscard]] size_t touched() const {
    const unsigned char* lowest = stack_;
    while (*lowest == kPaint) {
      ++lowest;
    }
    return g_spinningFrame - reinterpret_cast<uint64_t>(lowest);
  }
  [[nodiscard]] FrameTaskStackInfo bounds() const {
    return {reinterpret_cast<uint64_t>(stack_), kBytes};
  }

 private:
  static constexpr size_t kBytes = size_t{256} * 1024;

  unsigned char* stack_;
  pthread_t thread_{};
};

template <typename Handler>
void installHandler(Handler handler) {
  struct sigaction action {};
  action.sa_sigaction = handler;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  sigaction(kEmptySignal, &action, nullptr);
}

void signalAndWait(pthread_t thread) {
  g_handled = false;
  pthread_kill(thread, kEmptySignal);
  while (!g_handled) {
  }
}

void captureAndWait(pthread_t thread) {
  FrameThreadDeadloopPrint(thread);
  while (FrameGetDeadloopStatus() != FRAME_DEADLOOP_STATUS_CAPTURED) {
  }
}

void measureCapture() {
  SpinningThread spinning;
  installHandler(noteOnly);
  signalAndWait(spinning.id());
  const size_t emptyStack = spinning.touched();
  captureAndWait(spinning.id());
  FrameWriteDeadloopInfo();
  const size_t captureStack = spinning.touched();
  print("handler's stack", static_cast<double>(captureStack),
        "an empty handler, kernel's frame included", static_cast<double>(emptyStack), "bytes");

  installHandler(walkOnly);
  const double floor = bestOf(500, 1, [&] { signalAndWait(spinning.id()); });
  const auto measure = [&](const char* path) {
    double best = 1e18;
    for (int round = 0; round < 500; ++round) {
      const auto start = Clock::now();
      captureAndWait(spinning.id());
      best = std::min(best, nanosecondsSince(start));
      FrameWriteDeadloopInfo();
    }
    print(path, best / 1000, "signal, handler, walk of 20 frames", floor / 1000, "us");
  };
  measure("captured, bounds scanned for");
  g_knownStack = spinning.bounds();
  measure("captured, bounds known");
}

}  // namespace

extern "C" uint32_t KEM_TaskStackInfoGet(uint32_t /*selector*/, FrameTaskStackInfo* info) {
  *info = g_knownStack;
  return g_knownStack.size == 0 ? QURN_FAILED : QURN_OK;
}

int main() {
  std::printf("%-28s %17s %17s %6s   %s\n", "path", "cost", "floor", "ratio", "floor is");
  FRAME_KeepAliveProcSet(1'000'000, delivered, nullptr);
  FrameDeadloopInit();
  FRAME_KeepAliveReport();
  measureHeartbeat();
  measureIdlePass();
  measureHandles();
  measureLegacyHandle();
  measureCapture();
  return 0;
}
