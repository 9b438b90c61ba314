// The monitor table: its initialisation at load time, registration, heartbeat and stop. Called by
// the monitored threads; nothing here allocates.
#include <qurnadapt/keep_alive.h>
#include <qurnadapt/legacy_heart.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "../qurn_frame_mnt/frame_mnt.h"
#include "common/uncancellable.h"
#include "internal/safe_strings.h"
#include "monitor_table.h"

namespace qurn::monitor {

constinit FrameTaskDeadloopCtrl g_ctrl{};

namespace {

constexpr uint32_t kMillisecondsPerSecond = 1000;
constexpr uint32_t kFirstUnrepresentableSeconds = 4294967;
constexpr uint32_t kLongestMs = 0xFFFFFFFF;

constinit std::atomic<FrameTaskDeadloopCtrl*> g_monitor{nullptr};

uint32_t thresholdMs(uint32_t seconds) noexcept {
  return seconds < kFirstUnrepresentableSeconds ? seconds * kMillisecondsPerSecond : kLongestMs;
}

bool isInUse(const FrameMonitorTaskInfo& info) noexcept {
  return __atomic_load_n(&info.ucValid, __ATOMIC_RELAXED) != 0;
}

bool isOwnedByCaller(const FrameMonitorTaskInfo& info) noexcept {
  return isInUse(info) && __atomic_load_n(&info.ulThreadId, __ATOMIC_RELAXED) == pthread_self();
}

// A service's workers often start with every signal blocked. A watched thread must take this one.
void openDeadloopSignal() noexcept {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, mnt::deadloopSignal());
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

struct Thresholds {
  uint32_t first;
  uint32_t second;
  uint32_t third;
};

// What the table says about the calling thread. FRAME_MONITOR_CAPACITY stands for "none".
struct SlotSearch {
  uint64_t owned = FRAME_MONITOR_CAPACITY;
  uint32_t renewed = QURN_FAILED;  // the result of renewing it
  uint64_t firstFree = FRAME_MONITOR_CAPACITY;
};

uint32_t callersTid() noexcept { return static_cast<uint32_t>(syscall(SYS_gettid)); }

// Renews the caller's registration in this slot; frees it when it is a leftover, so that nothing of
// its thread stays with the caller. Returns whether it was the caller's own.
bool renew(FrameTaskDeadloopCtrl& ctrl, uint64_t slot, const Thresholds& thresholds,
           SlotSearch& found) noexcept {
  FrameMonitorTaskInfo& info = ctrl.astNode[slot].stTaskInfo;
  const NodeLock lock(ctrl.astNode[slot]);
  if (info.uiTid != callersTid()) {
    memset_s(&info, sizeof(info), 0, sizeof(info));
    --ctrl.uiTaskNum;
    return false;
  }
  found.owned = slot;
  found.renewed =
      FrameUpdateMonitorTaskKeyInfo(&info, thresholds.first, thresholds.second, thresholds.third);
  return true;
}

// Looks for the caller's registration, and renews it, in the whole table before a free slot may be
// taken. Which slots are in use, and whose, changes only under the lock that is held for this, so
// no other node's lock is taken: its thread's heartbeats would keep it for long.
SlotSearch findSlots(FrameTaskDeadloopCtrl& ctrl, const Thresholds& thresholds) noexcept {
  SlotSearch found;
  for (uint64_t slot = 0; slot < FRAME_MONITOR_CAPACITY; ++slot) {
    const FrameMonitorTaskInfo& info = ctrl.astNode[slot].stTaskInfo;
    if (isOwnedByCaller(info) && renew(ctrl, slot, thresholds, found)) {
      break;
    }
    if (!isInUse(info) && found.firstFree == FRAME_MONITOR_CAPACITY) {
      found.firstFree = slot;
    }
  }
  return found;
}

}  // namespace

FrameTaskDeadloopCtrl* monitor() noexcept { return g_monitor.load(std::memory_order_acquire); }

void logLockMistake() noexcept {
  MONITOR_LOG(TOV_LOG_ERROR, "Frame task deadloop lock mistake, errno(%d).", errno);
}

void logUnlockMistake() noexcept {
  MONITOR_LOG(TOV_LOG_ERROR, "Frame task deadloop unlock mistake errno(%d).", errno);
}

}  // namespace qurn::monitor

using namespace qurn::monitor;

extern "C" {

__attribute__((constructor)) static void initialiseAtLoad(void) { FRAME_TaskDeadloopInit(); }

uint32_t FRAME_TaskDeadloopInit(void) {
  const TovHeartFunSet heart{Frame_SetHeartbeatToMon, Frame_SendHeartbeatToMon,
                             Frame_StopHeartbeatToMon, Frame_RegDeadloopInfoHook, FRAME_NodeReboot};
  if (const uint32_t ret = ZotHeartFunReg(&heart); ret != QURN_OK) {
    MONITOR_LOG(TOV_LOG_ERROR,
                "Frame task deadloop init, funcs register to zot unsuccessfully. (ret = %#x)", ret);
    return QURN_FAILED;
  }
  if (const uint32_t ret = FrameTaskDeadloopCtrlInit(); ret != QURN_OK) {
    MONITOR_LOG(TOV_LOG_ERROR, "Frame task deadloop init, ctrl init unsuccessfully. (ret = %#x)",
                ret);
    return QURN_FAILED;
  }
  return QURN_OK;
}

uint32_t FrameTaskDeadloopCtrlInit(void) {
  if (g_ctrl.ucIsInited != 0) {
    return QURN_OK;
  }
  memset_s(&g_ctrl, sizeof(g_ctrl), 0, sizeof(g_ctrl));
  if (pthread_rwlock_init(&g_ctrl.stCtrlLock, nullptr) != 0) {
    MONITOR_LOG(TOV_LOG_ERROR,
                "Frame task deadloop ctrl init, ctrl mutex init unsuccessfully. (errno: %d)",
                errno);
    return QURN_FAILED;
  }
  for (FrameDeadloopMonitorNode& node : g_ctrl.astNode) {
    if (pthread_mutex_init(&node.stInfoMutex, nullptr) != 0) {
      MONITOR_LOG(TOV_LOG_ERROR,
                  "Frame task deadloop ctrl init, info mutex init unsuccessfully. (errno: %d)",
                  errno);
      return QURN_FAILED;
    }
  }
  g_ctrl.ucIsInited = 1;
  g_monitor.store(&g_ctrl, std::memory_order_release);
  return QURN_OK;
}

uint32_t FrameIsDeadloopThresholdValid(uint32_t firstThreshold, uint32_t secondThreshold,
                                       uint32_t thirdThreshold) {
  if (firstThreshold != 0 && firstThreshold <= secondThreshold &&
      secondThreshold <= thirdThreshold) {
    return 1;
  }
  MONITOR_LOG(TOV_LOG_ERROR,
              "Frame task deadloop detect, threshold invalid. (first threshold = %u, second "
              "threshold = %u, third threshold = %u)",
              firstThreshold, secondThreshold, thirdThreshold);
  return 0;
}

uint32_t FrameIsTaskDeadloopHandleValid(const FrameDeadloopHandle* handle) {
  if (handle != nullptr && *handle < FRAME_MONITOR_CAPACITY) {
    return 1;
  }
  MONITOR_LOG(TOV_LOG_ERROR, "Frame task deadloop detect, handle invalid.");
  return 0;
}

uint32_t Frame_SetHeartbeatToMon(FrameDeadloopHandle* handle, uint32_t firstThreshold,
                                 uint32_t secondThreshold, uint32_t thirdThreshold) {
  if (handle == nullptr ||
      FrameIsDeadloopThresholdValid(firstThreshold, secondThreshold, thirdThreshold) == 0) {
    MONITOR_LOG(TOV_LOG_ERROR, "Set heartbeat param unsuccessfully, param invalid.");
    return QURN_INVALID_ARGUMENT;
  }
  FrameTaskDeadloopCtrl* ctrl = monitor();
  if (ctrl == nullptr) {
    MONITOR_LOG(TOV_LOG_ERROR, "Set heartbeat param unsuccessfully, deadloop monitor not init.");
    return QURN_FAILED;
  }
  const qurn::Uncancellable uncancellable;
  uint32_t ret = QURN_FAILED;
  {
    const ChangeLock lock(*ctrl);
    ret = FrameSetMonitorTaskInfo(handle, firstThreshold, secondThreshold, thirdThreshold);
  }
  if (ret != QURN_OK) {
    MONITOR_LOG(TOV_LOG_ERROR, "Set heartbeat param unsuccessfully, set param unsuccessfully.");
    return QURN_FAILED;
  }
  openDeadloopSignal();
  return QURN_OK;
}

uint32_t FrameSetMonitorTaskInfo(FrameDeadloopHandle* handle, uint32_t firstThreshold,
                                 uint32_t secondThreshold, uint32_t thirdThreshold) {
  const SlotSearch found = findSlots(g_ctrl, {firstThreshold, secondThreshold, thirdThreshold});
  if (found.owned != FRAME_MONITOR_CAPACITY) {
    if (found.renewed != QURN_OK) {
      MONITOR_LOG(TOV_LOG_ERROR,
                  "Frame set monitor task info, task key info update unsuccessfully.");
      return QURN_FAILED;
    }
    *handle = found.owned;
    return QURN_OK;
  }
  if (found.firstFree == FRAME_MONITOR_CAPACITY) {
    MONITOR_LOG(TOV_LOG_ERROR,
                "Frame set monitor task info, monitor task out of bounds. (max = %u)",
                FRAME_MONITOR_CAPACITY);
    return QURN_FAILED;
  }
  if (FrameAddMonitorTaskInfo(found.firstFree, pthread_self(), firstThreshold, secondThreshold,
                              thirdThreshold) != QURN_OK) {
    MONITOR_LOG(TOV_LOG_ERROR, "Frame set monitor task info, add monitor task unsuccessfully.");
    return QURN_FAILED;
  }
  *handle = found.firstFree;
  ++g_ctrl.uiTaskNum;
  return QURN_OK;
}

uint32_t FrameAddMonitorTaskInfo(uint64_t slot, uint64_t threadId, uint32_t firstThreshold,
                                 uint32_t secondThreshold, uint32_t thirdThreshold) {
  FrameMonitorTaskInfo& info = g_ctrl.astNode[slot].stTaskInfo;
  bool isNamed = false;
  uint32_t ret = QURN_FAILED;
  {
    const NodeLock lock(g_ctrl.astNode[slot]);
    isNamed = prctl(PR_GET_NAME, info.acTaskName) == 0;
    if (isNamed) {
      ret = FrameUpdateMonitorTaskKeyInfo(&info, firstThreshold, secondThreshold, thirdThreshold);
    }
    if (ret == QURN_OK) {
      info.ulThreadId = threadId;
      info.uiTid = callersTid();
      info.ucDetectSwitch = 1;
      info.ucValid = 1;
    }
  }
  if (!isNamed) {
    MONITOR_LOG(TOV_LOG_ERROR,
                "Frame add monitor task info, monitor task name set unsuccessfully. (errno: %d)",
                errno);
  } else if (ret != QURN_OK) {
    MONITOR_LOG(TOV_LOG_ERROR, "Frame add monitor task info, task key info set unsuccessfully.");
  }
  return ret;
}

uint32_t FrameUpdateMonitorTaskKeyInfo(FrameMonitorTaskInfo* info, uint32_t firstThreshold,
                                       uint32_t secondThreshold, uint32_t thirdThreshold) {
  if (clock_gettime(CLOCK_MONOTONIC_COARSE, &info->stDetectTime) != 0) {
    MONITOR_LOG(TOV_LOG_ERROR,
                "Frame update monitor task info, get current time unsuccessfully. (errno: %d)",
                errno);
    return QURN_FAILED;
  }
  setTimeoutLevel(*info, 0);
  info->uiFirstThreshold = thresholdMs(firstThreshold);
  info->uiSecondThreshold = thresholdMs(secondThreshold);
  info->uiThirdThreshold = thresholdMs(thirdThreshold);
  return QURN_OK;
}

uint32_t Frame_SendHeartbeatToMon(const FrameDeadloopHandle* handle) {
  if (FrameIsTaskDeadloopHandleValid(handle) == 0) {
    MONITOR_LOG(TOV_LOG_ERROR, "Send heartbeat unsuccessfully, input handle invalid.");
    return QURN_INVALID_ARGUMENT;
  }
  FrameTaskDeadloopCtrl* ctrl = monitor();
  if (ctrl == nullptr) {
    MONITOR_LOG(TOV_LOG_ERROR, "Send heartbeat unsuccessfully, deadloop monitor not init.");
    return QURN_FAILED;
  }
  waitForRegistrations(*ctrl);
  FrameDeadloopMonitorNode& node = ctrl->astNode[*handle];
  bool isOwner = false;
  int clockResult = 0;
  {
    const NodeLock lock(node);
    isOwner = isOwnedByCaller(node.stTaskInfo);
    if (isOwner) {
      clockResult = clock_gettime(CLOCK_MONOTONIC_COARSE, &node.stTaskInfo.stDetectTime);
    }
  }
  if (!isOwner) {
    MONITOR_LOG(TOV_LOG_ERROR, "Send heartbeat unsuccessfully, handle not match.");
    return QURN_INVALID_ARGUMENT;
  }
  if (clockResult != 0) {
    MONITOR_LOG(TOV_LOG_ERROR,
                "Send heartbeat unsuccessfully, update detect time unsuccessfully. (errno: %d)",
                errno);
    return QURN_FAILED;
  }
  return QURN_OK;
}

uint32_t Frame_StopHeartbeatToMon(const FrameDeadloopHandle* handle) {
  if (FrameIsTaskDeadloopHandleValid(handle) == 0) {
    MONITOR_LOG(TOV_LOG_ERROR, "Stop heartbeat unsuccessfully, input handle invalid.");
    return QURN_INVALID_ARGUMENT;
  }
  FrameTaskDeadloopCtrl* ctrl = monitor();
  if (ctrl == nullptr) {
    MONITOR_LOG(TOV_LOG_ERROR, "Stop heartbeat unsuccessfully, deadloop monitor not init.");
    return QURN_FAILED;
  }
  const qurn::Uncancellable uncancellable;
  uint32_t ret = QURN_FAILED;
  {
    const ChangeLock lock(*ctrl);
    ret = FrameRemoveMonitorTaskInfo(*handle);
    if (ret == QURN_OK) {
      --ctrl->uiTaskNum;
    }
  }
  if (ret != QURN_OK) {
    MONITOR_LOG(TOV_LOG_ERROR, "Stop heartbeat unsuccessfully, monitor task not exist.");
    return QURN_FAILED;
  }
  return QURN_OK;
}

uint32_t FrameRemoveMonitorTaskInfo(uint64_t slot) {
  FrameDeadloopMonitorNode& node = g_ctrl.astNode[slot];
  bool isOwner = false;
  int resetResult = 0;
  {
    const NodeLock lock(node);
    isOwner = isOwnedByCaller(node.stTaskInfo);
    if (isOwner) {
      resetResult = memset_s(&node.stTaskInfo, sizeof(node.stTaskInfo), 0, sizeof(node.stTaskInfo));
    }
  }
  if (!isOwner) {
    MONITOR_LOG(TOV_LOG_ERROR, "Frame remove monitor task info, handle not match.");
    return QURN_FAILED;
  }
  if (resetResult != 0) {
    MONITOR_LOG(TOV_LOG_ERROR,
                "Frame remove monitor task info, task info reset unsuccessfully. (errno: %d)",
                errno);
    return QURN_FAILED;
  }
  return QURN_OK;
}

}  // extern "C"
