// The monitor in the child of a fork, where only the forking thread goes on. A detection pass,
// whose hooks may fork, holds the monitor's locks, so these cannot be taken before a fork; they are
// made anew after it.
#include <pthread.h>

#include "internal/safe_strings.h"
#include "monitor_table.h"

namespace qurn::monitor {
namespace {

// Keeps the forking thread's registration as it was: its slot is the child's as well. The thread id
// is the parent's, so a pass of the child's frees the slot, unless the thread registers again.
void keepOnlyForkingThread() noexcept {
  FrameTaskDeadloopCtrl* ctrl = monitor();
  if (ctrl == nullptr) {
    return;
  }
  pthread_rwlock_init(&ctrl->stCtrlLock, nullptr);
  ctrl->uiTaskNum = 0;
  ctrl->fatalEvent = {};
  ctrl->changing = 0;
  ctrl->handledNode = nullptr;
  for (FrameDeadloopMonitorNode& node : ctrl->astNode) {
    pthread_mutex_init(&node.stInfoMutex, nullptr);
    if (node.stTaskInfo.ucValid != 0 && node.stTaskInfo.ulThreadId == pthread_self()) {
      ++ctrl->uiTaskNum;
    } else {
      memset_s(&node.stTaskInfo, sizeof(node.stTaskInfo), 0, sizeof(node.stTaskInfo));
    }
  }
}

__attribute__((constructor)) void watchForks() noexcept {
  static_cast<void>(pthread_atfork(nullptr, nullptr, keepOnlyForkingThread));
}

}  // namespace
}  // namespace qurn::monitor
