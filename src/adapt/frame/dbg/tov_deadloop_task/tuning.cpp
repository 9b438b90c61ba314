// Tuning of monitored threads: new thresholds for the thread of a name, and switching the watch
// over one thread. Called from any thread.
#include <cerrno>
#include <cstring>
#include <optional>

#include "common/fork_mutex.h"
#include "common/uncancellable.h"
#include "monitor_table.h"
#include "node_change.h"

using namespace qurn::monitor;

namespace {

enum class NameMatch { kNone, kUpdated, kFailed };

// A free node's name is empty, so it needs no test of its own.
NameMatch updateIfNamed(FrameTaskDeadloopCtrl& ctrl, FrameDeadloopMonitorNode& node,
                        const char* name, uint32_t firstThreshold, uint32_t secondThreshold,
                        uint32_t thirdThreshold) noexcept {
  constexpr int kLooks = 100;  // a millisecond each
  std::optional<NodeLock> lock;
  if (!isHandledByCaller(ctrl, node)) {
    if (staysLocked(node, kLooks, qurn::sleepAMillisecond)) {
      return NameMatch::kNone;
    }
    lock.emplace(node);
  }
  if (strcmp(node.stTaskInfo.acTaskName, name) != 0) {
    return NameMatch::kNone;
  }
  return FrameUpdateMonitorTaskKeyInfo(&node.stTaskInfo, firstThreshold, secondThreshold,
                                       thirdThreshold) == QURN_OK
             ? NameMatch::kUpdated
             : NameMatch::kFailed;
}

NameMatch updateFirstNamed(FrameTaskDeadloopCtrl& ctrl, const char* name, uint32_t firstThreshold,
                           uint32_t secondThreshold, uint32_t thirdThreshold) noexcept {
  const qurn::ReadLock lock(ctrl.stCtrlLock);
  for (FrameDeadloopMonitorNode& node : ctrl.astNode) {
    const NameMatch match =
        updateIfNamed(ctrl, node, name, firstThreshold, secondThreshold, thirdThreshold);
    if (match != NameMatch::kNone) {
      return match;
    }
  }
  return NameMatch::kNone;
}

}  // namespace

extern "C" {

uint32_t FRAME_UpdateDeadloopThresholdByName(const char* name, uint32_t firstThreshold,
                                             uint32_t secondThreshold, uint32_t thirdThreshold) {
  if (name == nullptr ||
      FrameIsDeadloopThresholdValid(firstThreshold, secondThreshold, thirdThreshold) == 0) {
    MONITOR_LOG(TOV_LOG_ERROR, "Frame update inteval by name, param invalid.");
    return QURN_INVALID_ARGUMENT;
  }
  FrameTaskDeadloopCtrl* ctrl = monitor();
  if (ctrl == nullptr) {
    MONITOR_LOG(TOV_LOG_ERROR, "Frame update inteval by name, deadloop monitor not init.");
    return QURN_FAILED;
  }
  const qurn::Uncancellable uncancellable;
  switch (updateFirstNamed(*ctrl, name, firstThreshold, secondThreshold, thirdThreshold)) {
    case NameMatch::kUpdated:
      return QURN_OK;
    case NameMatch::kFailed:
      MONITOR_LOG(TOV_LOG_ERROR, "Frame update inteval by name, key info update unsuccessfully.");
      return QURN_FAILED;
    case NameMatch::kNone:
      break;
  }
  MONITOR_LOG(TOV_LOG_ERROR, "Frame update inteval by name, task not found.");
  return QURN_FAILED;
}

uint32_t FrameSetDetectSwitch(uint64_t slot, uint8_t detectSwitch) {
  if (slot >= FRAME_MONITOR_CAPACITY) {
    MONITOR_LOG(TOV_LOG_ERROR, "Frame deadloop set detect switch, input handle invalid.");
    return QURN_INVALID_ARGUMENT;
  }
  constexpr NodeChangeFailures kFailures{
      [] {
        MONITOR_LOG(TOV_LOG_ERROR, "Frame deadloop set detect switch, deadloop monitor not init.");
      },
      [] { MONITOR_LOG(TOV_LOG_ERROR, "Frame deadloop set detect switch, task info not exist."); }};
  bool clockFailed = false;
  const uint32_t ret = changeNode(slot, kFailures, [&](FrameMonitorTaskInfo& info) {
    if ((info.ucDetectSwitch != 0) == (detectSwitch != 0)) {
      return QURN_OK;
    }
    clockFailed = clock_gettime(CLOCK_MONOTONIC_COARSE, &info.stDetectTime) != 0;
    if (clockFailed) {
      return QURN_FAILED;
    }
    info.ucDetectSwitch = detectSwitch;
    return QURN_OK;
  });
  if (clockFailed) {
    MONITOR_LOG(TOV_LOG_ERROR,
                "Frame deadloop set detect switch, update detect time unsuccessfully. (errno: %d)",
                errno);
  }
  return ret;
}

}  // extern "C"
