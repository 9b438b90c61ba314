// The detection tick, on the detection thread.
#include <dlfcn.h>
#include <qurnadapt/keep_alive.h>
#include <qurnadapt/maintenance.h>
#include <qurnadapt/monitor.h>
#include <qurnadapt/report.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "frame_mnt.h"
#include "internal/timespec_diff.h"

namespace {

constexpr uint32_t kPluginPeriodMs = 10000;

// How much later than its period a tick may begin without anything having happened.
constexpr int64_t kUsualLatenessMs = 20;
constexpr int64_t kLongestWaitMs = 1000;
constexpr int kMostStops = 10;  // during one tick's wait

// When the last tick ended, at first when the timer was started; all zero before that.
constinit timespec g_lastTickEnd{};

// By how much this tick begins later than it should have, 0 while that is usual.
int64_t latenessMs() noexcept {
  timespec now{};
  const bool isFirst = g_lastTickEnd.tv_sec == 0 && g_lastTickEnd.tv_nsec == 0;
  if (isFirst || clock_gettime(CLOCK_MONOTONIC_COARSE, &now) != 0) {
    return 0;
  }
  const int64_t periodMs = FrameChooseDeadloopDetectTime();
  const int64_t lateMs = qurn::diffMs(g_lastTickEnd, now) - periodMs;
  return lateMs > std::max(periodMs / 10, kUsualLatenessMs) ? lateMs : 0;
}

void sleepMs(int64_t milliseconds) noexcept {
  timespec rest{milliseconds / 1000, milliseconds % 1000 * 1'000'000};
  while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
  }
}

// How much longer a sleep of so many milliseconds took, 0 while that is usual.
int64_t oversleptMs(int64_t milliseconds) noexcept {
  timespec start{};
  timespec end{};
  const bool isMeasured = clock_gettime(CLOCK_MONOTONIC_COARSE, &start) == 0;
  sleepMs(milliseconds);
  if (!isMeasured || clock_gettime(CLOCK_MONOTONIC_COARSE, &end) != 0) {
    return 0;
  }
  const int64_t moreMs = qurn::diffMs(start, end) - milliseconds;
  return moreMs > kUsualLatenessMs ? moreMs : 0;
}

// A process that was stopped, by a signal, a debugger or with its machine, goes on with every
// thread silent for that long. They get as long as the tick is late to send their next heartbeat,
// and the guard gets its own meanwhile. The process may be stopped again while they do; but where
// every sleep is late, as processor time is rationed, that is no stop, and the pass comes all the
// same.
void giveThreadsTime(int64_t lateMs) noexcept {
  int64_t leftMs = std::min(lateMs, kLongestWaitMs);
  for (int stops = 0; leftMs > 0;) {
    const int64_t pieceMs = std::min<int64_t>(leftMs, qurn::mnt::msToNextKeepAlive());
    const int64_t stoppedMs = std::min(oversleptMs(pieceMs), kLongestWaitMs);
    FRAME_KeepAliveReport();
    leftMs -= pieceMs;
    if (stoppedMs > leftMs && ++stops <= kMostStops) {
      leftMs = stoppedMs;
    }
  }
}

// The status of a capture that nobody awaits: some component raises the signal, and may do so more
// often than ticks come. It must not take the pass's place for good.
bool isStray() noexcept {
  return FrameGetDeadloopStatus() == FRAME_DEADLOOP_STATUS_CAPTURED &&
         !qurn::mnt::isCaptureAwaited();
}

}  // namespace

void qurn::mnt::dropTickAfterFork() noexcept { g_lastTickEnd = {}; }

void qurn::mnt::startTicks() noexcept { clock_gettime(CLOCK_MONOTONIC_COARSE, &g_lastTickEnd); }

extern "C" {

uint32_t FrameDeadloopDetectCallback(void* /*param*/) {
  const int64_t lateMs = latenessMs();
  FRAME_KeepAliveReport();
  giveThreadsTime(lateMs);
  const bool wasStray = isStray();
  FRAME_TaskDeadloopMonitorEntry();
  FrameWriteDeadloopInfo();
  if (wasStray) {
    FRAME_TaskDeadloopMonitorEntry();
  }
  FrameRuloPluginCheckAndRepairDeadloop();
  FrameTriggerCheckExit();
  clock_gettime(CLOCK_MONOTONIC_COARSE, &g_lastTickEnd);
  return QURN_OK;
}

void FrameRuloPluginCheckAndRepairDeadloop(void) {
  using RepairFunction = void (*)();
  static constinit bool resolved = false;
  static constinit RepairFunction repair = nullptr;
  static constinit uint32_t ticks = 0;

  if (!resolved) {
    repair =
        reinterpret_cast<RepairFunction>(dlsym(RTLD_DEFAULT, "RuloPluginCheckAndRepairDeadloop"));
    resolved = true;
  }
  if (repair == nullptr) {
    return;
  }
  const uint32_t periodMs = FrameChooseDeadloopDetectTime();
  if (periodMs <= kPluginPeriodMs) {
    // A direct call before start-up finds no period yet; it counts as a tick like any other.
    const uint32_t ticksPerRun = periodMs == 0 ? 1 : kPluginPeriodMs / periodMs;
    if (++ticks < ticksPerRun) {
      return;
    }
    ticks = 0;
  }
  repair();
}

}  // extern "C"
