// One shape for every change that any thread may make to a registered thread's record.
#pragma once

#include <qurnadapt/api.h>
#include <qurnadapt/monitor.h>

#include <cstdint>

#include "monitor_table.h"

namespace qurn::monitor {

// How an operation tells its failures: each logs a message of the operation's own.
struct NodeChangeFailures {
  void (*notInitialised)();
  void (*notInUse)();
};

// Runs `change` on the record in the slot, under its lock, and returns its result; tells and fails
// when there is no monitor or the slot is free. The slot is in range.
template <typename Change>
uint32_t changeNode(uint64_t slot, const NodeChangeFailures& failures, Change change) noexcept {
  FrameTaskDeadloopCtrl* ctrl = monitor();
  if (ctrl == nullptr) {
    failures.notInitialised();
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
  failures.notInUse();
  return QURN_FAILED;
}

}  // namespace qurn::monitor
