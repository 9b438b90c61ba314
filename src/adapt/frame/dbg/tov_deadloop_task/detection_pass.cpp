// The detection pass and what each threshold does. Runs on the detection thread; during a pass the
// monitor's lock is held for reading and each node's info mutex while it is handled.
#include <dirent.h>
#include <qurnadapt/capture.h>
#include <qurnadapt/keep_alive.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <utility>

#include "../qurn_frame_mnt/frame_mnt.h"
#include "common/uncancellable.h"
#include "internal/safe_strings.h"
#include "internal/timespec_diff.h"
#include "monitor_table.h"

namespace qurn::monitor {
namespace {

constexpr uint8_t kInfoLevel = 1;
constexpr uint8_t kWarnLevel = 2;
constexpr uint8_t kFatalLevel = 3;

// From when on a signal that was sent counts as not handled; both must have passed.
constexpr uint32_t kTicksToHandleSignal = 10;
constexpr int64_t kMsToHandleSignal = 10000;

struct FrameThresholdRule {
  uint8_t level;  // reached by the action
  uint32_t (*isTimeout)(const FrameMonitorTaskInfo* info, uint32_t elapsedMs);
  void (*act)(uint64_t slot, FrameMonitorTaskInfo* info, uint32_t elapsedMs);
};

// Each action raises the level that the next rule asks for, so a long silence climbs all three in
// one pass.
constexpr std::array<FrameThresholdRule, 3> kRules{{
    {kInfoLevel, FrameIsInfoThresholdTimeout, FrameInfoThresholdTimeoutAction},
    {kWarnLevel, FrameIsWarnThresholdTimeout, FrameWarnThresholdTimeoutAction},
    {kFatalLevel, FrameIsFatalThresholdTimeout, FrameFatalThresholdTimeoutAction},
}};

enum class PassStep { kNextSlot, kEndOfPass };

bool isMeasured(const FrameMonitorTaskInfo& info) noexcept {
  return info.ucValid != 0 && info.ucDetectSwitch != 0 && timeoutLevel(info) != kFatalLevel;
}

// What FrameGetTaskElapsedTime returns, inlined into the pass.
[[gnu::always_inline]] inline uint32_t elapsedMsOf(const FrameMonitorTaskInfo& info) noexcept {
  timespec now{};
  if (clock_gettime(CLOCK_MONOTONIC_COARSE, &now) != 0) {
    MONITOR_LOG(TOV_LOG_ERROR,
                "Frame get task elapsed time, current time get unsuccessfully. (errno: %d)", errno);
    return QURN_FAILED;
  }
  return static_cast<uint32_t>(diffMs(info.stDetectTime, now));
}

// Whether any rule can fire: a level is left only at the threshold that follows it.
bool isDue(const FrameMonitorTaskInfo& info, uint32_t elapsedMs) noexcept {
  switch (timeoutLevel(info)) {
    case 0:
      return elapsedMs >= info.uiFirstThreshold;
    case kInfoLevel:
      return elapsedMs >= info.uiSecondThreshold;
    default:
      return elapsedMs >= info.uiThirdThreshold;
  }
}

// Says which node this pass handles, for as long as its rules act.
class HandledNode {
 public:
  HandledNode(FrameTaskDeadloopCtrl& ctrl, uint64_t slot) noexcept : ctrl_(ctrl) {
    ctrl.passThread.store(pthread_self(), std::memory_order_relaxed);
    ctrl.handledNode.store(&ctrl.astNode[slot], std::memory_order_relaxed);
  }
  ~HandledNode() { ctrl_.handledNode.store(nullptr, std::memory_order_relaxed); }
  HandledNode(const HandledNode&) = delete;
  HandledNode& operator=(const HandledNode&) = delete;

 private:
  FrameTaskDeadloopCtrl& ctrl_;
};

PassStep applyRules(FrameTaskDeadloopCtrl& ctrl, uint64_t slot, uint32_t elapsedMs) noexcept {
  const HandledNode handled(ctrl, slot);
  FrameMonitorTaskInfo& info = ctrl.astNode[slot].stTaskInfo;
  for (const FrameThresholdRule& rule : kRules) {
    if (rule.isTimeout(&info, elapsedMs) == 0) {
      continue;
    }
    if (FrameIsTerminatedTaskReleased(&info) != 0) {
      return PassStep::kNextSlot;
    }
    rule.act(slot, &info, elapsedMs);
    if (timeoutLevel(info) == kFatalLevel) {
      return PassStep::kEndOfPass;
    }
  }
  return PassStep::kNextSlot;
}

PassStep measureNode(FrameTaskDeadloopCtrl& ctrl, uint64_t slot) noexcept {
  FrameMonitorTaskInfo& info = ctrl.astNode[slot].stTaskInfo;
  int32_t elapsedMs = 0;
  constexpr int kLooks = 3;
  if (staysLocked(ctrl.astNode[slot], kLooks, [] { sched_yield(); })) [[unlikely]] {
    return PassStep::kNextSlot;
  }
  {
    const NodeLock lock(ctrl.astNode[slot]);
    if (!isMeasured(info)) {
      return PassStep::kNextSlot;
    }
    FRAME_KeepAliveReport();
    elapsedMs = static_cast<int32_t>(elapsedMsOf(info));
    if (elapsedMs >= 0) [[likely]] {
      return isDue(info, static_cast<uint32_t>(elapsedMs))
                 ? applyRules(ctrl, slot, static_cast<uint32_t>(elapsedMs))
                 : PassStep::kNextSlot;
    }
  }
  MONITOR_LOG(TOV_LOG_ERROR, "Task deadloop entry, task elapsed time error. (%d)", elapsedMs);
  return PassStep::kNextSlot;
}

// Told once of an event: nobody would see otherwise that the watch stands still.
void tellOfSuspension(FatalEvent& event, const FrameMonitorTaskInfo& info) noexcept {
  timespec now{};
  if (event.isSuspensionTold || event.ticks < kTicksToHandleSignal ||
      FrameGetDeadloopStatus() != FRAME_DEADLOOP_STATUS_SIGNALED ||
      clock_gettime(CLOCK_MONOTONIC_COARSE, &now) != 0 ||
      diffMs(event.sentAt, now) < kMsToHandleSignal) {
    return;
  }
  event.isSuspensionTold = true;
  MONITOR_LOG(TOV_LOG_ERROR, "Dead-loop signal not handled, detection suspended. (task [%s:%d])",
              info.acTaskName, static_cast<int32_t>(info.uiTid));
}

// A thread that ends before the signal reaches it is never captured: its slot is freed like that of
// any thread that ended, and passes go on. One that is there may still be captured.
void awaitCapture(FrameTaskDeadloopCtrl& ctrl) noexcept {
  FatalEvent& event = ctrl.fatalEvent;
  ++event.ticks;
  const ReadLock lock(ctrl.stCtrlLock);
  FrameDeadloopMonitorNode& node = ctrl.astNode[ctrl.ulFatalTaskIndex];
  const NodeLock nodeLock(node);
  const bool registered =
      node.stTaskInfo.ucValid != 0 && node.stTaskInfo.uiTid == event.signalledTid;
  const bool ended = registered
                         ? FrameIsTerminatedTaskReleased(&node.stTaskInfo) != 0
                         : FrameIsMonitorTaskExist(static_cast<int32_t>(event.signalledTid)) == 0;
  if (ended) {
    mnt::withdrawSignal(event.signalledTid);
    event.signalledTid = 0;
  } else if (registered) {
    tellOfSuspension(event, node.stTaskInfo);
  }
}

// One threshold's line, logged where its action is, so that each carries its own source line.
#define LOG_THRESHOLD(level, ordinal, info, elapsedMs)                                           \
  MONITOR_LOG(level,                                                                             \
              "Frame task deadloop detect, task [%s:%d] trigger " ordinal                        \
              " threshold timeout.(elapsed time = %u, first threshold = %u, second threshold = " \
              "%u, third threshold = %u)",                                                       \
              (info)->acTaskName, static_cast<int32_t>((info)->uiTid), elapsedMs,                \
              (info)->uiFirstThreshold, (info)->uiSecondThreshold, (info)->uiThirdThreshold)

bool isNodeOf(const FrameTaskDeadloopCtrl& ctrl, const FrameMonitorTaskInfo* info) noexcept {
  return std::any_of(
      std::begin(ctrl.astNode), std::end(ctrl.astNode),
      [info](const FrameDeadloopMonitorNode& node) { return &node.stTaskInfo == info; });
}

// What the fatal action needs of a node and the control, copied under their locks because the hooks
// run without any: they may stop, register or tune any thread, this one included.
struct FatalView {
  FrameMonitorTaskInfo info;
  FrameThreadDeadloopHook processHook;
};

// All zero for a slot that is none, which a caller of the exported action may have given.
FatalView viewFatalNode(FrameTaskDeadloopCtrl& ctrl) noexcept {
  if (ctrl.ulFatalTaskIndex >= FRAME_MONITOR_CAPACITY) {
    return {};
  }
  const ReadLock ctrlLock(ctrl.stCtrlLock);
  const NodeLock nodeLock(ctrl.astNode[ctrl.ulFatalTaskIndex]);
  return {ctrl.astNode[ctrl.ulFatalTaskIndex].stTaskInfo, ctrl.pfnDeadloopHook};
}

void runThreadHook(const FrameTaskDeadloopCtrl& ctrl, const FrameMonitorTaskInfo& info) noexcept {
  MONITOR_LOG(TOV_LOG_WARNING, "Frame task deadloop detect, deadloop process hook start.");
  FrameDeadloopHandle slot = ctrl.ulFatalTaskIndex;
  {
    const mnt::HostsSignals open;
    info.pfnDeadloopInfoHook(&slot, info.ulThreadId, ctrl.uiFatalElapsedTime);
  }
  MONITOR_LOG(TOV_LOG_WARNING, "Frame task deadloop detect, deadloop process hook end.");
}

void runProcessHook(const FrameTaskDeadloopCtrl& ctrl, const FatalView& view) noexcept {
  MONITOR_LOG(TOV_LOG_WARNING, "Frame task deadloop detect, deadloop process global hook start.");
  {
    const mnt::HostsSignals open;
    view.processHook(view.info.ulThreadId, view.info.uiTid, ctrl.uiFatalElapsedTime,
                     view.info.uiExceptionPolicy);
  }
  MONITOR_LOG(TOV_LOG_WARNING, "Frame task deadloop detect, deadloop process global hook end.");
}

}  // namespace
}  // namespace qurn::monitor

using namespace qurn::monitor;

extern "C" {

void FRAME_TaskDeadloopMonitorEntry(void) {
  const qurn::Uncancellable uncancellable;
  FrameTaskDeadloopCtrl* ctrl = monitor();
  if (ctrl == nullptr) {
    return;
  }
  const uint32_t status = FrameGetDeadloopStatus();
  if (status == FRAME_DEADLOOP_STATUS_SIGNALED && ctrl->fatalEvent.signalledTid != 0) {
    awaitCapture(*ctrl);
  }
  if (status != FRAME_DEADLOOP_STATUS_IDLE) {
    return;
  }
  ctrl->fatalEvent.signalledTid = 0;
  const qurn::ReadLock lock(ctrl->stCtrlLock);
  if (ctrl->uiTaskNum == 0) {
    return;
  }
  for (uint64_t slot = 0; slot < FRAME_MONITOR_CAPACITY; ++slot) {
    if (measureNode(*ctrl, slot) == PassStep::kEndOfPass) {
      return;
    }
  }
}

uint32_t FrameGetTaskElapsedTime(const FrameMonitorTaskInfo* info) { return elapsedMsOf(*info); }

uint32_t FrameIsTerminatedTaskReleased(FrameMonitorTaskInfo* info) {
  const auto tid = static_cast<int32_t>(info->uiTid);
  if (FrameIsMonitorTaskExist(tid) != 0) {
    return 0;
  }
  MONITOR_LOG(TOV_LOG_INFO, "Task deadloop entry, task[%s:%d] terminated.", info->acTaskName, tid);
  if (memset_s(info, sizeof(*info), 0, sizeof(*info)) != 0) {
    MONITOR_LOG(TOV_LOG_ERROR, "Task deadloop entry, task[%s:%d] reset unsuccessfully. (errno: %d)",
                info->acTaskName, tid, errno);
  } else if (FrameTaskDeadloopCtrl* ctrl = monitor(); ctrl != nullptr && isNodeOf(*ctrl, info)) {
    --ctrl->uiTaskNum;  // of which a record of the caller's own is none
  }
  return 1;
}

uint32_t FrameIsMonitorTaskExist(int32_t tid) {
  char path[64] = {};
  if (snprintf_s(path, sizeof(path), "/proc/%d/task/%d", getpid(), tid) < 0) {
    return 0;
  }
  DIR* directory = opendir(path);
  if (directory == nullptr) {
    MONITOR_LOG(TOV_LOG_ERROR, "Check thread exist, tid %d not exist.", tid);
    return 0;
  }
  if (closedir(directory) != 0) {
    MONITOR_LOG(TOV_LOG_ERROR, "Check thread exist, tid dir close unsuccessfully. (errno: %d)",
                errno);
    return 0;
  }
  return 1;
}

uint32_t FrameIsInfoThresholdTimeout(const FrameMonitorTaskInfo* info, uint32_t elapsedMs) {
  return elapsedMs >= info->uiFirstThreshold && timeoutLevel(*info) == 0 ? 1 : 0;
}

uint32_t FrameIsWarnThresholdTimeout(const FrameMonitorTaskInfo* info, uint32_t elapsedMs) {
  return elapsedMs >= info->uiSecondThreshold && timeoutLevel(*info) == kInfoLevel ? 1 : 0;
}

uint32_t FrameIsFatalThresholdTimeout(const FrameMonitorTaskInfo* info, uint32_t elapsedMs) {
  return elapsedMs >= info->uiThirdThreshold && timeoutLevel(*info) == kWarnLevel ? 1 : 0;
}

void FrameInfoThresholdTimeoutAction(uint64_t /*slot*/, FrameMonitorTaskInfo* info,
                                     uint32_t elapsedMs) {
  LOG_THRESHOLD(TOV_LOG_INFO, "first", info, elapsedMs);
  setTimeoutLevel(*info, kInfoLevel);
  FRAME_KeepAliveReport();
}

void FrameWarnThresholdTimeoutAction(uint64_t /*slot*/, FrameMonitorTaskInfo* info,
                                     uint32_t elapsedMs) {
  LOG_THRESHOLD(TOV_LOG_WARNING, "second", info, elapsedMs);
  setTimeoutLevel(*info, kWarnLevel);
  const FrameTaskDeadloopCtrl* ctrl = monitor();
  if (ctrl != nullptr && ctrl->pfnWarningHook != nullptr) {
    MONITOR_LOG(TOV_LOG_WARNING, "Frame task deadloop detect, global warn hook start.");
    {
      const qurn::mnt::HostsSignals open;
      ctrl->pfnWarningHook(info->ulThreadId, info->uiTid, elapsedMs, info->uiExceptionPolicy);
    }
    MONITOR_LOG(TOV_LOG_WARNING, "Frame task deadloop detect, global warn hook end.");
  }
  FRAME_KeepAliveReport();
}

void FrameFatalThresholdTimeoutAction(uint64_t slot, FrameMonitorTaskInfo* info,
                                      uint32_t elapsedMs) {
  LOG_THRESHOLD(TOV_LOG_ERROR, "third", info, elapsedMs);
  setTimeoutLevel(*info, kFatalLevel);
  FrameTaskDeadloopCtrl* ctrl = monitor();
  // Of a record that is the caller's own only the POSIX thread id is taken at its word.
  const uint32_t tid = ctrl != nullptr && isNodeOf(*ctrl, info) ? info->uiTid : 0;
  const uint32_t signalled = qurn::mnt::captureThread(info->ulThreadId, tid);
  FRAME_KeepAliveReport();
  if (tid != 0 && signalled != QURN_OK && FrameIsTerminatedTaskReleased(info) != 0) {
    return;
  }
  if (ctrl != nullptr) {
    FatalEvent& event = ctrl->fatalEvent;
    event = {};
    event.isActionDue = true;
    event.signalledTid = signalled == QURN_OK ? tid : 0;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &event.sentAt);
    ctrl->uiFatalElapsedTime = elapsedMs;
    ctrl->ulFatalTaskIndex = slot;
  }
}

void FrameDeadloopFatalAction(void) {
  FrameTaskDeadloopCtrl* ctrl = monitor();
  if (ctrl == nullptr) {
    return;
  }
  // A signal that somebody else raised is captured and reported too, but no event of its own.
  const bool isDue = std::exchange(ctrl->fatalEvent.isActionDue, false);
  const FatalView atStart = viewFatalNode(*ctrl);
  if (!isDue || atStart.info.ucTimeoutLevel != kFatalLevel) {
    return;
  }
  if (atStart.info.pfnDeadloopInfoHook == nullptr) {
    MONITOR_LOG(TOV_LOG_ERROR,
                "Task(%s) deadloop detected with no process hook, execute default strategy.",
                atStart.info.acTaskName);
    FrameKeepAliveStop();
  }
  runThreadHook(*ctrl, atStart.info);
  FRAME_KeepAliveReport();
  // The thread's hook may have changed either; the process-wide one acts on what holds now.
  if (const FatalView now = viewFatalNode(*ctrl); now.processHook != nullptr) {
    runProcessHook(*ctrl, now);
  }
  FRAME_KeepAliveReport();
}

}  // extern "C"
