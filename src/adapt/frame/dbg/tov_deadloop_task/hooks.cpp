// Hooks and policies of monitored threads, and the process-wide hooks. Called from any thread.
#include "monitor_table.h"
#include "node_change.h"

using namespace qurn::monitor;

namespace {

constexpr uint32_t kHighestPolicy = 1;

}  // namespace

extern "C" {

uint32_t Frame_RegDeadloopInfoHook(const FrameDeadloopHandle* handle, FrameDeadloopInfoHook hook) {
  if (FrameIsTaskDeadloopHandleValid(handle) == 0) {
    MONITOR_LOG(TOV_LOG_ERROR, "Register task deadloop hook, input handle invalid.");
    return QURN_INVALID_ARGUMENT;
  }
  constexpr NodeChangeFailures kFailures{
      [] { MONITOR_LOG(TOV_LOG_ERROR, "Register task deadloop hook, deadloop monitor not init."); },
      [] {
        MONITOR_LOG(TOV_LOG_ERROR, "Register task deadloop hook, deadloop monitor node not exist.");
      }};
  return changeNode(*handle, kFailures, [hook](FrameMonitorTaskInfo& info) {
    info.pfnDeadloopInfoHook = hook;
    return QURN_OK;
  });
}

uint32_t Frame_UnRegDeadloopInfoHook(const FrameDeadloopHandle* handle) {
  return Frame_RegDeadloopInfoHook(handle, nullptr);
}

uint32_t Frame_SetHeartExceptionPolicy(uint64_t slot, uint32_t policy) {
  if (slot >= FRAME_MONITOR_CAPACITY || policy > kHighestPolicy) {
    MONITOR_LOG(TOV_LOG_ERROR, "Set deadloop exception policy, parameter invalid.");
    return QURN_INVALID_ARGUMENT;
  }
  constexpr NodeChangeFailures kFailures{
      [] {
        MONITOR_LOG(TOV_LOG_ERROR, "Set deadloop exception policy, deadloop monitor not init.");
      },
      [] {
        MONITOR_LOG(TOV_LOG_ERROR,
                    "Set deadloop exception policy, deadloop monitor node not exist.");
      }};
  return changeNode(slot, kFailures, [policy](FrameMonitorTaskInfo& info) {
    info.uiExceptionPolicy = policy;
    return QURN_OK;
  });
}

void Frame_RegThreadDeadloopWarningHook(FrameThreadDeadloopWarningHook hook) {
  FrameTaskDeadloopCtrl* ctrl = monitor();
  if (ctrl == nullptr) {
    MONITOR_LOG(
        TOV_LOG_ERROR,
        "Register thread deadloop warning hook unsuccessfully, deadloop monitor is not inited.");
    return;
  }
  const qurn::WriteLock lock(ctrl->stCtrlLock);
  ctrl->pfnWarningHook = hook;
}

void Frame_RegThreadDeadloopHook(FrameThreadDeadloopHook hook) {
  FrameTaskDeadloopCtrl* ctrl = monitor();
  if (ctrl == nullptr) {
    MONITOR_LOG(TOV_LOG_ERROR,
                "Register thread deadloop hook unsuccessfully, deadloop monitor is not inited.");
    return;
  }
  const qurn::WriteLock lock(ctrl->stCtrlLock);
  ctrl->pfnDeadloopHook = hook;
}

}  // extern "C"
