// The monitor table as the files of this unit share it. Lock order: stCtrlLock, then at most one
// info mutex.
#pragma once

#include <pthread.h>
#include <qurnadapt/monitor.h>
#include <qurnadapt/platform.h>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "common/unit_log.h"
#include "internal/scoped_lock.h"

namespace qurn::monitor {

inline constexpr char kUnit[] =
    "build/src/adapt/frame/dbg/CMakeFiles/adaptmnt.dir/src/tov_deadloop_task";

// Each on cache lines of its own: neighbours' heartbeats are other threads' writes.
struct alignas(64) FrameDeadloopMonitorNode {
  pthread_mutex_t stInfoMutex;
  FrameMonitorTaskInfo stTaskInfo;
};

// What becomes of a third-threshold event. Detection thread only.
struct FatalEvent {
  bool isActionDue;        // its fatal action has not run yet
  bool isSuspensionTold;   // that its signal is not handled
  uint32_t signalledTid;   // whose capture is awaited, else 0
  uint32_t ticks;          // since the signal was sent
  struct timespec sentAt;  // CLOCK_MONOTONIC_COARSE
};

struct FrameTaskDeadloopCtrl {
  pthread_rwlock_t stCtrlLock;  // guards the set of registered threads and the process-wide hooks
  uint8_t ucIsInited;
  uint32_t uiTaskNum;
  uint32_t uiFatalElapsedTime;  // milliseconds; detection thread only
  uint64_t ulFatalTaskIndex;    // detection thread only
  FrameThreadDeadloopWarningHook pfnWarningHook;
  FrameThreadDeadloopHook pfnDeadloopHook;
  FatalEvent fatalEvent;
  // The thread that runs a pass, and the node that it handles and has locked.
  std::atomic<pthread_t> passThread;
  std::atomic<const FrameDeadloopMonitorNode*> handledNode;
  // 1 while a registration or a stop holds stCtrlLock. Every heartbeat reads it, so it lies among
  // what is seldom written, away from the lock itself.
  std::atomic<uint32_t> changing;
  FrameDeadloopMonitorNode astNode[FRAME_MONITOR_CAPACITY];
};
static_assert(offsetof(FrameTaskDeadloopCtrl, changing) >= 64);
static_assert(offsetof(FrameMonitorTaskInfo, uiTid) == 4);
static_assert(offsetof(FrameMonitorTaskInfo, ulThreadId) == 8);
static_assert(offsetof(FrameMonitorTaskInfo, uiFirstThreshold) == 16);
static_assert(offsetof(FrameMonitorTaskInfo, pfnDeadloopInfoHook) == 32);
static_assert(offsetof(FrameMonitorTaskInfo, stDetectTime) == 40);
static_assert(offsetof(FrameMonitorTaskInfo, acTaskName) == 56);
static_assert(sizeof(FrameMonitorTaskInfo) == 72);

extern constinit FrameTaskDeadloopCtrl g_ctrl;

// The initialised monitor, or null.
FrameTaskDeadloopCtrl* monitor() noexcept;

// Out of the way of those who take a lock.
[[gnu::cold]] void logLockMistake() noexcept;
[[gnu::cold]] void logUnlockMistake() noexcept;

// Holds a node's info mutex for a scope. A failing lock is logged and the operation goes on.
class NodeLock {
 public:
  explicit NodeLock(FrameDeadloopMonitorNode& node) noexcept
      : node_(node), held_(pthread_mutex_lock(&node.stInfoMutex) == 0) {
    if (!held_) [[unlikely]] {
      logLockMistake();
    }
  }
  ~NodeLock() {
    if (held_ && pthread_mutex_unlock(&node_.stInfoMutex) != 0) [[unlikely]] {
      logUnlockMistake();
    }
  }
  NodeLock(const NodeLock&) = delete;
  NodeLock& operator=(const NodeLock&) = delete;

 private:
  FrameDeadloopMonitorNode& node_;
  const bool held_;
};

// Holds the monitor for a registration or a stop, and says so to those who wait for its end.
class ChangeLock {
 public:
  explicit ChangeLock(FrameTaskDeadloopCtrl& ctrl) noexcept
      : lock_(ctrl.stCtrlLock), changing_(ctrl.changing) {
    changing_.store(1, std::memory_order_seq_cst);
  }
  ~ChangeLock() { changing_.store(0, std::memory_order_release); }
  ChangeLock(const ChangeLock&) = delete;
  ChangeLock& operator=(const ChangeLock&) = delete;

 private:
  const WriteLock lock_;
  std::atomic<uint32_t>& changing_;
};

// Waits out a registration or stop in progress, without keeping later ones out: whoever asks while
// none is in progress takes no lock, so that heartbeats neither starve registrations nor slow each
// other down.
inline void waitForRegistrations(FrameTaskDeadloopCtrl& ctrl) noexcept {
  if (ctrl.changing.load(std::memory_order_acquire) != 0) [[unlikely]] {
    const ReadLock barrier(ctrl.stCtrlLock);
  }
}

// Whether the caller runs a pass that handles this node, and so holds its lock.
inline bool isHandledByCaller(const FrameTaskDeadloopCtrl& ctrl,
                              const FrameDeadloopMonitorNode& node) noexcept {
  return ctrl.handledNode.load(std::memory_order_relaxed) == &node &&
         ctrl.passThread.load(std::memory_order_relaxed) == pthread_self();
}

// Whether a node's lock is taken at each of so many looks, with a pause behind each. A thread that
// is stuck within its own heartbeat, in a signal's handler, holds it for good: waiting for it would
// end the watch over all others. A look at the C library's word spares the calls where, as nearly
// always, nobody has it.
template <typename Pause>
[[gnu::always_inline]] inline bool staysLocked(FrameDeadloopMonitorNode& node, int looks,
                                               Pause pause) noexcept {
  for (int i = 0; i < looks; ++i) {
    if (__atomic_load_n(&node.stInfoMutex.__data.__lock, __ATOMIC_RELAXED) == 0) [[likely]] {
      return false;
    }
    pause();
  }
  return true;
}

// The timeout level is atomic beyond its lock, so that the exported rules and diagnostics may look
// at it at any time.
inline uint8_t timeoutLevel(const FrameMonitorTaskInfo& info) noexcept {
  return __atomic_load_n(&info.ucTimeoutLevel, __ATOMIC_ACQUIRE);
}
inline void setTimeoutLevel(FrameMonitorTaskInfo& info, uint8_t level) noexcept {
  __atomic_store_n(&info.ucTimeoutLevel, level, __ATOMIC_RELEASE);
}

}  // namespace qurn::monitor

#define MONITOR_LOG(level, ...) \
  QURN_LOG_AS(LOG_InnerPrint, qurn::monitor::kUnit, level, __VA_ARGS__)
