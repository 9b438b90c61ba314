// One shape for every change that any thread may make to a registered thread's record.
#pragma once

#include <qurnadapt/api.h>
#include <qurnadapt/monitor.h>
#include <qurnadapt/platform.h>

#include <cstdint>

#include "monitor_table.h"

namespace qurn::monitor {

struct NodeChangeFailures {
  const char* notInitialised;
  const char* notInUse;
};

// Runs `change` on the record in the slot, under its lock, and returns its result; logs and fails
// when there is no monitor or the slot is free. The slot is in range.
template <typename Change>
uint32_t changeNode(uint64_t slot, const NodeChangeFailures& failures, Change change) noexcept {
  FrameTaskDeadloopCtrl* ctrl = monitor();
  if (ctrl == nullptr) {
    MONITOR_LOG(TOV_LOG_ERROR, "%s", failures.notInitialised);
    return QURN_FAILED;
  }
  waitForRegistrations(*ctrl);
  FrameDeadloopMonitorNode& node = ctrl->astNode[slot];
  {
    const NodeLock lock(node);
    if (node.stTaskInfo.ucValid != 0) {
      return change(node.stTaskInfo);
    }
  }
  MONITOR_LOG(TOV_LOG_ERROR, "%s", failures.notInUse);
  return QURN_FAILED;
}

}  // namespace qurn::monitor
