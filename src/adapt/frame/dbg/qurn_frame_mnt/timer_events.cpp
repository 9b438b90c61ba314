// The event process function of timer sets, and the difference of two time stamps.
#include <qurnadapt/event_sets.h>
#include <qurnadapt/timer.h>

#include "internal/timespec_diff.h"

extern "C" {

uint32_t FrameTimerEventProc(struct epoll_event* event, void* param) {
  const auto* record = static_cast<const FrameMntEpollData*>(event->data.ptr);
  FrameTimerHookTriggerByFd(static_cast<FrameTimerCtrl*>(param), record->fd);
  return QURN_OK;
}

int64_t FRAME_GetTimespecDiff(const struct timespec* start, const struct timespec* end) {
  return qurn::diffMs(*start, *end);
}

}  // extern "C"
