#include "paths.h"

#include <pthread.h>
#include <qurnadapt/platform.h>
#include <qurnadapt/qurnadapt.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <barrier>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace bench {
namespace {

constexpr Setting kPlain{};

// ---- heartbeat

thread_local FrameDeadloopHandle t_self = 0;

void enterMonitor() { Frame_SetHeartbeatToMon(&t_self, 1000, 1000, 1000); }
void leaveMonitor() { Frame_StopHeartbeatToMon(&t_self); }
constexpr Setting kMonitored{nullptr, nullptr, enterMonitor, leaveMonitor};

void heartbeat() { Frame_SendHeartbeatToMon(&t_self); }

// One shared lock, and for each thread a mutex on a line of its own.
struct alignas(64) Line {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  timespec now{};
  uint32_t isAlive = 0;
};
struct Primitives {
  alignas(64) pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
  std::array<Line, FRAME_MONITOR_CAPACITY> lines;
};
Primitives g_primitives;
std::atomic<uint32_t> g_nextLine{0};
thread_local Line* t_line = nullptr;

void takeLine() { t_line = &g_primitives.lines.at(g_nextLine++ % FRAME_MONITOR_CAPACITY); }
constexpr Setting kOwnLine{nullptr, nullptr, takeLine, nullptr};

void heartbeatFloor() {
  pthread_rwlock_rdlock(&g_primitives.lock);
  pthread_rwlock_unlock(&g_primitives.lock);
  pthread_mutex_lock(&t_line->mutex);
  clock_gettime(CLOCK_MONOTONIC_COARSE, &t_line->now);
  pthread_mutex_unlock(&t_line->mutex);
}

// What a user would write by hand, for a watcher who only reads.
void heartbeatByHand() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  std::atomic_ref(t_line->now.tv_sec).store(now.tv_sec, std::memory_order_relaxed);
  std::atomic_ref(t_line->now.tv_nsec).store(now.tv_nsec, std::memory_order_relaxed);
  std::atomic_ref(t_line->isAlive).store(1, std::memory_order_release);
}

// ---- a guard notification a loop instead

std::unique_ptr<std::jthread> g_guard;
int g_guardSocket = -1;

void startGuard(uint64_t /*size*/) {
  const std::string name = "qurn-bench-" + std::to_string(getpid());
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path + 1, name.data(), name.size());  // in the abstract space
  g_guardSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  if (bind(g_guardSocket, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
    std::abort();
  }
  setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);
  g_guard = std::make_unique<std::jthread>([](const std::stop_token& stop) {
    std::array<char, 64> message{};
    while (!stop.stop_requested()) {
      static_cast<void>(!recv(g_guardSocket, message.data(), message.size(), 0));
    }
  });
}
void notifyGuard() { sd_notify(0, "WATCHDOG=1"); }
void stopGuard() {
  g_guard->request_stop();
  notifyGuard();
  g_guard.reset();
  close(g_guardSocket);
}
constexpr Setting kGuarded{startGuard, stopGuard, nullptr, nullptr};

// ---- idle pass

// As many registered threads as there are slots.
class FullMonitor {
 public:
  FullMonitor() {
    for (uint32_t i = 0; i < FRAME_MONITOR_CAPACITY; ++i) {
      threads_.emplace_back([this] {
        enterMonitor();
        entered_.arrive_and_wait();
        leave_.arrive_and_wait();
        leaveMonitor();
      });
    }
    entered_.arrive_and_wait();
  }
  ~FullMonitor() {
    leave_.arrive_and_wait();
    for (std::thread& thread : threads_) {
      thread.join();
    }
  }
  FullMonitor(const FullMonitor&) = delete;
  FullMonitor& operator=(const FullMonitor&) = delete;

 private:
  std::barrier<> entered_{FRAME_MONITOR_CAPACITY + 1};
  std::barrier<> leave_{FRAME_MONITOR_CAPACITY + 1};
  std::vector<std::thread> threads_;
};
std::unique_ptr<FullMonitor> g_fullMonitor;

void silence() {
  static const bool once = [] {
    FRAME_KeepAliveProcSet(
        1'000'000, [](void*) -> uint32_t { return QURN_OK; }, nullptr);
    FrameDeadloopInit();
    FRAME_KeepAliveReport();  // the next one is not due for a long time
    return true;
  }();
  static_cast<void>(once);
}
void fillMonitor(uint64_t /*size*/) {
  silence();
  g_fullMonitor = std::make_unique<FullMonitor>();
}
void emptyMonitor() { g_fullMonitor.reset(); }
constexpr Setting kFull{fillMonitor, emptyMonitor, nullptr, nullptr};

void idlePass() { FRAME_TaskDeadloopMonitorEntry(); }

// A node costs a mutex, the keep-alive report's clock read and that of the elapsed time.
void idlePassFloor() {
  pthread_rwlock_rdlock(&g_primitives.lock);
  for (Line& line : g_primitives.lines) {
    pthread_mutex_lock(&line.mutex);
    clock_gettime(CLOCK_MONOTONIC_COARSE, &line.now);
    clock_gettime(CLOCK_MONOTONIC_COARSE, &line.now);
    pthread_mutex_unlock(&line.mutex);
  }
  pthread_rwlock_unlock(&g_primitives.lock);
}

constexpr Setting kSilent{[](uint64_t) { silence(); }, nullptr, nullptr, nullptr};
void keepAlive() { FRAME_KeepAliveReport(); }
void clockRead() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
}

// ---- handles

uint64_t g_mutex = 0;
std::array<uint64_t, 2> g_words{};
uint32_t g_handle = 0;
uint64_t g_live = 0;

void makeHandles(uint64_t live) {
  if (g_mutex == 0) {
    KEM_MutexInit(&g_mutex);
    g_words[0] = reinterpret_cast<uint64_t>(&g_words[1]);
  }
  nbb_handle_initialize();
  for (g_live = 0; g_live < live; ++g_live) {
    const uint32_t handle = nbb_create_handle(&g_words);
    g_handle = g_live == live / 2 ? handle : g_handle;
  }
}
// Ending the table frees every page, whatever is still in use; that is told, and expected here.
void dropHandles() { NbbHandleTerminate(); }
constexpr Setting kHandles{makeHandles, dropHandles, nullptr, nullptr};

void validate() { nbb_validate_handle(g_handle); }
void createDestroy() { nbb_destroy_handle(nbb_create_handle(&g_words)); }
void lockedLoads() {
  KEM_MutexLock(&g_mutex);
  const volatile uint64_t* second =
      reinterpret_cast<const uint64_t*>(*static_cast<const volatile uint64_t*>(g_words.data()));
  static_cast<void>(*second);
  KEM_MutexUnlock(&g_mutex);
}
void twoLocks() {
  KEM_MutexLock(&g_mutex);
  KEM_MutexUnlock(&g_mutex);
  KEM_MutexLock(&g_mutex);
  KEM_MutexUnlock(&g_mutex);
}

// ---- lists and the stack

DllList g_list{};
DllNode g_node{};
RpmStack* g_stack = nullptr;

void makeList(uint64_t /*size*/) {
  g_list.head = {&g_list.head, &g_list.head};
  g_stack = RPM_CreateStack();
}
void dropList() { RPM_DestroyStack(g_stack); }
constexpr Setting kList{makeList, dropList, nullptr, nullptr};

void insertDelete() {
  DLL_Insert(&g_list, nullptr, &g_node);
  DLL_Delete(&g_list, &g_node);
}
// What a call costs that does nothing.
__attribute__((noinline)) void call(void* /*first*/, void* /*second*/) {
  asm volatile("" ::: "memory");
}
void insertDeleteFloor() {
  call(&g_list, &g_node);
  DllNode& head = g_list.head;
  g_node = {head.next, &head};
  head.next->prev = &g_node;
  head.next = &g_node;
  ++g_list.count;
  call(&g_list, &g_node);
  g_node.prev->next = g_node.next;
  g_node.next->prev = g_node.prev;
  --g_list.count;
}

void pushPop() {
  uintptr_t top = 0;
  RPM_PushStack(g_stack, 1);
  RPM_PopStack(g_stack, &top);
}
void pushPopFloor() {
  call(g_stack, nullptr);
  void* node = TOV_MemAllocF(2 * sizeof(void*), "bench", 1, 0);
  call(g_stack, node);
  TOV_MemFreeF(node, "bench", 1, 0);
}

// ---- memory that is accounted for

constexpr size_t kBlockBytes = 64;

void accountedMemory() {
  KEM_MemFree_F(0, KEM_MemAlloc_F(0, 0, kBlockBytes, "bench/paths.cpp", 1), "bench/paths.cpp", 2);
}
void plainMemory() {
  void* block = malloc(kBlockBytes);
  asm volatile("" : "+r"(block)::"memory");  // or the compiler leaves both out
  free(block);
}

constexpr Path kPaths[] = {
    {"heartbeat", heartbeat, &kMonitored},
    {"heartbeat_floor", heartbeatFloor, &kOwnLine},
    {"heartbeat_by_hand", heartbeatByHand, &kOwnLine},
    {"notify", notifyGuard, &kGuarded},
    {"idle_pass", idlePass, &kFull},
    {"idle_pass_floor", idlePassFloor, &kPlain},
    {"keep_alive", keepAlive, &kSilent},
    {"clock_read", clockRead, &kPlain},
    {"validate", validate, &kHandles},
    {"validate_floor", lockedLoads, &kHandles},
    {"create_destroy", createDestroy, &kHandles},
    {"create_destroy_floor", twoLocks, &kHandles},
    {"list", insertDelete, &kList},
    {"list_floor", insertDeleteFloor, &kList},
    {"stack", pushPop, &kList},
    {"stack_floor", pushPopFloor, &kList},
    {"memory", accountedMemory, &kPlain},
    {"memory_floor", plainMemory, &kPlain},
};

}  // namespace

std::span<const Path> paths() { return kPaths; }

const Path* findPath(const char* name) {
  for (const Path& path : kPaths) {
    if (std::strcmp(path.name, name) == 0) {
      return &path;
    }
  }
  return nullptr;
}

}  // namespace bench
