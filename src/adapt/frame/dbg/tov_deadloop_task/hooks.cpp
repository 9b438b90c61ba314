// Hooks of the monitored threads, and the monitor's capability for the framework's dead-loop
// library.
#include "monitor_table.h"

using namespace qurn::monitor;

extern "C" {

uint32_t Frame_RegDeadloopInfoHook(const FrameDeadloopHandle* handle, FrameDeadloopInfoHook hook) {
  if (!FrameIsTaskDeadloopHandleValid(handle)) {
    MONITOR_LOG(TOV_LOG_ERROR, "Register task deadloop hook, input handle invalid.");
    return QURN_INVALID_ARGUMENT;
  }
  FrameTaskDeadloopCtrl* ctrl = monitor();
  if (ctrl == nullptr) {
    MONITOR_LOG(TOV_LOG_ERROR, "Register task deadloop hook, deadloop monitor not init.");
    return QURN_FAILED;
  }
  waitForRegistrations(*ctrl);
  FrameMonitorTaskInfo& info = ctrl->astNode[*handle].stTaskInfo;
  bool inUse = false;
  {
    const NodeLock lock(ctrl->astNode[*handle]);
    inUse = info.ucValid != 0;
    if (inUse) {
      info.pfnDeadloopInfoHook = hook;
    }
  }
  if (!inUse) {
    MONITOR_LOG(TOV_LOG_ERROR, "Register task deadloop hook, deadloop monitor node not exist.");
    return QURN_FAILED;
  }
  return QURN_OK;
}

// The monitor offers the framework's dead-loop library no sections yet, so there is nothing that
// could fail to register.
uint32_t FrameRegDeadloopCapability(void) { return QURN_OK; }

}  // extern "C"
