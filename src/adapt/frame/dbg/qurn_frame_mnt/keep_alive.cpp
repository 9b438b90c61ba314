// Keep-alive: which heartbeats the configuration asks for, sending them at their pace, and the
// calls that end the process. Configuration and registration come before the detection thread,
// reports run on it; readiness and the process's end are called from any thread.
#include <dlfcn.h>
#include <qurnadapt/keep_alive.h>
#include <qurnadapt/legacy_process.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>

#include "frame_mnt.h"
#include "internal/timespec_diff.h"
#include "keep_alive_record.h"

// Plain in the interface, because components read it as a C global; atomic in here.
constinit uint32_t g_FrameReady = 0;

constinit qurn::mnt::FrameKeepAliveCtrl qurn::mnt::g_keepAlive{};
constinit timespec qurn::mnt::lastKeepAliveTime{};

namespace {

using qurn::mnt::g_keepAlive;
using qurn::mnt::lastKeepAliveTime;

constexpr int32_t kGuardHeartbeat = 0;
constexpr int32_t kGuardReady = 1;
// A tick that comes this much early still counts as due.
constexpr uint32_t kDueToleranceMs = 10;

std::atomic_ref<uint32_t> ready() noexcept { return std::atomic_ref<uint32_t>(g_FrameReady); }

// The keep-alive period, at least this.
[[gnu::cold]] uint32_t raisePeriod(uint32_t floorMs) noexcept {
  uint32_t periodMs = 0;
  while (periodMs < floorMs &&
         !g_keepAlive.keepAlivePeriod.compare_exchange_weak(periodMs, floorMs)) {
  }
  return std::max(periodMs, floorMs);
}

using GuardNotify = int32_t (*)(int32_t);

// Looked up at each use: the guard's library may be loaded at any time.
GuardNotify findGuard() noexcept {
  auto notify = reinterpret_cast<GuardNotify>(dlsym(RTLD_DEFAULT, "bexlin_notify"));
  if (notify == nullptr) {
    MNT_LOG(TOV_LOG_INFO, "bexlin notify func not found.");
  }
  return notify;
}

bool isEmpty(const char* text) noexcept { return text == nullptr || *text == '\0'; }

uint32_t useGuard(void* yaml) noexcept {
  const char* timeout = TovYamlGetProperty(yaml, "watchDog.watchDogTimeout");
  if (isEmpty(timeout)) {
    MNT_LOG(TOV_LOG_ERROR, "Keepalive parameter init, watchDogTimeout parameter not set.");
    return QURN_FAILED;
  }
  uint32_t timeoutMs = 0;
  if (const uint32_t ret = TovStrToMilliSeconds(timeout, &timeoutMs); ret != QURN_OK) {
    MNT_LOG(TOV_LOG_ERROR,
            "Keepalive parameter init, watchDogTimeout parse unsuccessfully. (value = %s)",
            timeout);
    return ret;
  }
  const uint32_t ret = FRAME_KeepAliveProcSet(timeoutMs >> 2U, FrameKeepAliveByNotify, nullptr);
  if (ret != QURN_OK) {
    MNT_LOG(TOV_LOG_ERROR, "Keep alive parameter set unsuccessfully.");
  }
  return ret;
}

}  // namespace

int64_t qurn::mnt::msToNextKeepAlive() noexcept {
  timespec now{};
  if (g_keepAlive.keepAliveHook.load() == nullptr ||
      clock_gettime(CLOCK_MONOTONIC_COARSE, &now) != 0) {
    return std::numeric_limits<int32_t>::max();
  }
  // One that is due already has just failed and is tried again soon.
  return std::max<int64_t>(int64_t{FrameGetKeepAlivePeriod()} - diffMs(lastKeepAliveTime, now),
                           kDueToleranceMs);
}

extern "C" {

uint32_t FrameKeepAliveInit(void) {
  if (g_keepAlive.keepAliveHook.load() != nullptr) {
    MNT_LOG(TOV_LOG_INFO, "Keep alive paramter already set by custom.");
    return QURN_OK;
  }
  const char* path = FrameParamGet(CF_COMP_CFG);
  if (path == nullptr) {
    MNT_LOG(TOV_LOG_INFO, "Keep alive operation, CF_COMP_CFG not set or not have file.");
    return QURN_OK;
  }
  void* yaml = TovYamlLoadFile(path);
  if (yaml == nullptr) {
    MNT_LOG(TOV_LOG_ERROR, "Keep alive operation, cannot get yaml handle. (path = %s)", path);
    return QURN_FAILED;
  }
  const uint32_t ret = FrameKeepAliveParamInit(yaml);
  if (ret != QURN_OK) {
    MNT_LOG(TOV_LOG_ERROR, "Keep alive paramter init unsuccessfully.");
  }
  TovYamFreelHandle(yaml);
  return ret;
}

uint32_t FrameKeepAliveParamInit(void* yaml) {
  if (!TovYamlIsKeyExist(yaml, "watchDog")) {
    MNT_LOG(TOV_LOG_INFO, "Keepalive parameter init, watchDog field empty.");
    return QURN_OK;
  }
  const char* type = TovYamlGetProperty(yaml, "watchDog.watchDogType");
  if (isEmpty(type)) {
    MNT_LOG(TOV_LOG_ERROR, "Keepalive parameter init, watchDogType parameter not set.");
    return QURN_FAILED;
  }
  if (strcmp(type, "notify") == 0) {
    return useGuard(yaml);
  }
  if (strcmp(type, "none") == 0) {
    MNT_LOG(TOV_LOG_WARNING, "Keepalive parameter init, watchDogType user config none.");
    return QURN_OK;
  }
  MNT_LOG(TOV_LOG_ERROR, "Keepalive parameter init, global component mode invalid. (value = %s)",
          type);
  return QURN_FAILED;
}

uint32_t FRAME_KeepAliveProcSet(uint32_t period, FrameKeepAliveHook hook, void* param) {
  if (hook == nullptr) {
    MNT_LOG(TOV_LOG_ERROR, "Keep alive proc set unsuccessfully. Input parameter is invalid.");
    return QURN_FAILED;
  }
  if (g_keepAlive.taken.exchange(true)) {
    MNT_LOG(TOV_LOG_ERROR, "Keep alive proc set unsuccessfully. Repeated register.");
    return QURN_FAILED;
  }
  uint32_t unset = 0;
  g_keepAlive.keepAlivePeriod.compare_exchange_strong(unset, period);
  g_keepAlive.keepAliveParam.store(param);
  g_keepAlive.keepAliveHook.store(hook);
  return QURN_OK;
}

uint32_t FrameGetKeepAlivePeriod(void) {
  const uint32_t floorMs = FrameChooseDeadloopDetectTime();
  const uint32_t periodMs = g_keepAlive.keepAlivePeriod.load(std::memory_order_relaxed);
  return periodMs >= floorMs ? periodMs : raisePeriod(floorMs);
}

void FRAME_KeepAliveReport(void) {
  timespec now{};
  if (clock_gettime(CLOCK_MONOTONIC_COARSE, &now) != 0) {
    MNT_LOG(TOV_LOG_ERROR, "Frame report keep alive, get clock time unsuccessfully. (errno %d)",
            errno);
    return;
  }
  const auto elapsedMs = static_cast<int32_t>(qurn::diffMs(lastKeepAliveTime, now));
  // Signed on purpose: a period below the tolerance makes every call due.
  if (static_cast<int32_t>(FrameGetKeepAlivePeriod() - kDueToleranceMs) > elapsedMs) {
    return;
  }
  if (FrameKeepAliveHookProc() == QURN_OK) {
    clock_gettime(CLOCK_MONOTONIC_COARSE, &lastKeepAliveTime);
  }
}

uint32_t FrameKeepAliveHookProc(void) {
  const FrameKeepAliveHook hook = g_keepAlive.keepAliveHook.load();
  if (hook == nullptr) {
    return QURN_NO_KEEP_ALIVE_HOOK;
  }
  if (const uint32_t ret = hook(g_keepAlive.keepAliveParam.load()); ret != QURN_OK) {
    MNT_LOG(TOV_LOG_WARNING, "User keep alive hook proc unsuccessfully. (ret = %#x)", ret);
    return QURN_FAILED;
  }
  return QURN_OK;
}

uint32_t FrameKeepAliveByNotify(void* /*param*/) {
  if (ready().load() == 0) {
    return QURN_OK;
  }
  const GuardNotify notify = findGuard();
  if (notify == nullptr) {
    return QURN_OK;
  }
  if (const int32_t ret = notify(kGuardHeartbeat); ret != 0) {
    MNT_LOG(TOV_LOG_ERROR, "bexlin notify heartbeat unsuccessfully. (ret = %#x)",
            static_cast<uint32_t>(ret));
    return QURN_FAILED;
  }
  return QURN_OK;
}

uint32_t FrameKeepAliveByNotifySendReady(void) {
  if (ready().load() == 1 || g_keepAlive.keepAliveHook.load() != FrameKeepAliveByNotify) {
    return QURN_OK;
  }
  if (const GuardNotify notify = findGuard(); notify != nullptr) {
    if (const int32_t ret = notify(kGuardReady); ret != 0) {
      MNT_LOG(TOV_LOG_ERROR, "bexlin notify ready unsuccessfully. (ret = %#x)",
              static_cast<uint32_t>(ret));
      return QURN_FAILED;
    }
  }
  ready().store(1);
  return QURN_OK;
}

void FrameKeepAliveStop(void) { ZOT_Exit(QURN_EXIT_STATUS); }

void FrameNodeReboot(void) {
  MNT_LOG(TOV_LOG_INFO, "Frame reboot announce.");
  FrameKeepAliveStop();
}

void FRAME_NodeReboot(void) { FrameNodeReboot(); }

}  // extern "C"
