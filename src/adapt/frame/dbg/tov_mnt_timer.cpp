// Periodic timers on timer descriptors. A control and its timers are used on one thread, in this
// system the detection thread, so there is no lock.
#include <qurnadapt/timer.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>

#include "common/scoped_fd.h"
#include "common/unit_log.h"
#include "internal/safe_strings.h"

namespace {

constexpr char kUnit[] = "build/src/adapt/frame/dbg/CMakeFiles/adaptmnt.dir/src/tov_mnt_timer";
#define TIMER_LOG(level, ...) QURN_LOG_AS(LOG_InnerPrint, kUnit, level, __VA_ARGS__)

struct TimerLinks {
  TimerLinks* next;
  TimerLinks* prev;
};

struct FrameTimerNode : TimerLinks {
  int32_t fd;
  uint32_t period;                  // milliseconds
  struct timespec lastTriggerTime;  // CLOCK_MONOTONIC_COARSE
  void* hookParam;
  FrameTimerHook hook;
};

void* allocate(size_t size) noexcept { return TOV_MemAllocF(size, kUnit, __LINE__, 0); }
void release(void* block) noexcept { TOV_MemFreeF(block, kUnit, __LINE__, 0); }

int armPeriodic(int fd, uint32_t periodMs) noexcept {
  const timespec period{periodMs / 1000, static_cast<long>(periodMs % 1000) * 1'000'000};
  const itimerspec arming{period, period};
  return timerfd_settime(fd, 0, &arming, nullptr);
}

// Lateness counts from the end of one handling to the start of the next: it shows when the thread
// was kept from dispatching, not when a hook itself runs long.
void reportLateness(const FrameTimerNode& node) noexcept {
  timespec now{};
  if (clock_gettime(CLOCK_MONOTONIC_COARSE, &now) != 0) {
    TIMER_LOG(TOV_LOG_ERROR, "Timer current time get unsuccessfully. (errno = %d)", errno);
    return;
  }
  const auto elapsedMs = static_cast<uint32_t>(FRAME_GetTimespecDiff(&node.lastTriggerTime, &now));
  if (elapsedMs >= 3U * node.period) {
    TIMER_LOG(TOV_LOG_WARNING, "Timer hook trigger delay. (elasped time = %u)", elapsedMs);
  }
}

// The hook runs once a readiness, however many expirations the counter holds.
void handleExpiry(FrameTimerNode& node) noexcept {
  reportLateness(node);
  node.hook(node.hookParam);
  uint64_t expirations = 0;
  const ssize_t length = read(node.fd, &expirations, sizeof(expirations));
  if (length != static_cast<ssize_t>(sizeof(expirations))) {
    TIMER_LOG(TOV_LOG_ERROR, "Timer restart failed %zd.", length);
  }
  clock_gettime(CLOCK_MONOTONIC_COARSE, &node.lastTriggerTime);
}

}  // namespace

struct FrameTimerCtrl : TimerLinks {};

extern "C" {

uint32_t FRAME_TimerCtrlInit(FrameTimerCtrl** ctrl) {
  auto* created = static_cast<FrameTimerCtrl*>(allocate(sizeof(FrameTimerCtrl)));
  if (created == nullptr) {
    TIMER_LOG(TOV_LOG_ERROR, "Frame timer control init, control handle malloc unsuccessfully.");
    return QURN_FAILED;
  }
  created->next = created;
  created->prev = created;
  *ctrl = created;
  return QURN_OK;
}

uint32_t FRAME_TimerCreate(FrameTimerCtrl* ctrl, uint32_t periodMs, FrameTimerHook hook,
                           void* hookParam, int32_t* fd) {
  qurn::ScopedFd timer(timerfd_create(CLOCK_MONOTONIC, 0));
  if (!timer.valid()) {
    TIMER_LOG(TOV_LOG_ERROR, "Timer fd create unsuccessfully, (errno = %d).", errno);
    return QURN_FAILED;
  }
  if (armPeriodic(timer.get(), periodMs) != 0) {
    TIMER_LOG(TOV_LOG_ERROR, "Timer fd set time unsuccessfully, (errno = %d).", errno);
    return QURN_FAILED;
  }
  auto* node = static_cast<FrameTimerNode*>(allocate(sizeof(FrameTimerNode)));
  if (node == nullptr) {
    close(timer.release());
    TIMER_LOG(TOV_LOG_ERROR, "Timer node malloc unsuccessfully, no enough memory.");
    return QURN_FAILED;
  }
  memset_s(node, sizeof(*node), 0, sizeof(*node));
  node->fd = timer.release();
  node->period = periodMs;
  node->hook = hook;
  node->hookParam = hookParam;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &node->lastTriggerTime);

  node->prev = ctrl;
  node->next = ctrl->next;
  ctrl->next->prev = node;
  ctrl->next = node;
  *fd = node->fd;
  return QURN_OK;
}

void FrameTimerHookTriggerByFd(FrameTimerCtrl* ctrl, int32_t fd) {
  for (TimerLinks* link = ctrl->next; link != ctrl; link = link->next) {
    auto& node = *static_cast<FrameTimerNode*>(link);
    if (node.fd == fd) {
      handleExpiry(node);
    }
  }
}

void FRAME_TimerCtrlRuin(FrameTimerCtrl* ctrl) {
  while (ctrl->next != ctrl) {
    auto* node = static_cast<FrameTimerNode*>(ctrl->next);
    ctrl->next = node->next;
    node->next->prev = ctrl;
    if (node->fd > 0) {
      close(node->fd);
    }
    release(node);
  }
  release(ctrl);
}

}  // extern "C"
