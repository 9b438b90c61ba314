// The event process function of timer sets, and the difference of two time stamps.
#include <qurnadapt/event_sets.h>
#include <qurnadapt/timer.h>

#include <algorithm>

namespace {

constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr int64_t kNanosecondsPerMillisecond = 1'000'000;
constexpr int64_t kDiffCapMs = 0x7FFFFFFF;

}  // namespace

extern "C" {

uint32_t FrameTimerEventProc(struct epoll_event* event, void* param) {
  const auto* record = static_cast<const FrameMntEpollData*>(event->data.ptr);
  FrameTimerHookTriggerByFd(static_cast<FrameTimerCtrl*>(param), record->fd);
  return QURN_OK;
}

int64_t FRAME_GetTimespecDiff(const struct timespec* start, const struct timespec* end) {
  const int64_t nanoseconds =
      (end->tv_sec - start->tv_sec) * kNanosecondsPerSecond + (end->tv_nsec - start->tv_nsec);
  return std::min(nanoseconds / kNanosecondsPerMillisecond, kDiffCapMs);
}

}  // extern "C"
