// The monitor table as the files of this unit share it. Lock order: stCtrlLock, then at most one
// info mutex.
#pragma once

#include <pthread.h>
#include <qurnadapt/monitor.h>
#include <qurnadapt/platform.h>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "internal/scoped_lock.h"
#include "internal/unit_log.h"

namespace qurn::monitor {

inline constexpr char kUnit[] =
    "build/src/adapt/frame/dbg/CMakeFiles/adaptmnt.dir/src/tov_deadloop_task";

// Each on cache lines of its own: neighbours' heartbeats are other threads' writes.
struct alignas(64) FrameDeadloopMonitorNode {
  pthread_mutex_t stInfoMutex;
  FrameMonitorTaskInfo stTaskInfo;
};

struct FrameTaskDeadloopCtrl {
  pthread_rwlock_t stCtrlLock;  // guards the set of registered threads and the process-wide hooks
  uint8_t ucIsInited;
  uint32_t uiTaskNum;
  uint32_t uiFatalElapsedTime;  // milliseconds; detection thread only
  uint32_t uiSignalledTid;      // whose capture is awaited, else 0; detection thread only
  uint64_t ulFatalTaskIndex;    // detection thread only
  FrameThreadDeadloopWarningHook pfnWarningHook;
  FrameThreadDeadloopHook pfnDeadloopHook;
  FrameDeadloopMonitorNode astNode[FRAME_MONITOR_CAPACITY];
};
static_assert(offsetof(FrameMonitorTaskInfo, uiTid) == 4);
static_assert(offsetof(FrameMonitorTaskInfo, ulThreadId) == 8);
static_assert(offsetof(FrameMonitorTaskInfo, uiFirstThreshold) == 16);
static_assert(offsetof(FrameMonitorTaskInfo, pfnDeadloopInfoHook) == 32);
static_assert(offsetof(FrameMonitorTaskInfo, stDetectTime) == 40);
static_assert(offsetof(FrameMonitorTaskInfo, acTaskName) == 56);
static_assert(sizeof(FrameMonitorTaskInfo) == 72);

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

// Waits out a registration or stop in progress, without keeping later ones out.
void waitForRegistrations(FrameTaskDeadloopCtrl& ctrl) noexcept;

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
