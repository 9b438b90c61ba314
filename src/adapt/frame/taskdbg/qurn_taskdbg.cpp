// The legacy heart-monitor calls, each forwarded through the heart function set, and the tracing
// calls, which trace nothing. The set is written while the library is loaded and again, with the
// same values, at start-up: the calls need no lock, but each loads its operation in one piece.
#include <pthread.h>
#include <qurnadapt/legacy_fixed.h>
#include <qurnadapt/legacy_heart.h>

#include "common/unit_log.h"

constinit TovHeartFunSet g_stTovHeartFunSet{};

namespace {

constexpr char kUnit[] =
    "build/src/adapt/frame/taskdbg/CMakeFiles/adapttaskdbg.dir/src/qurn_taskdbg";

template <typename Operation>
Operation load(Operation& operation) noexcept {
  return __atomic_load_n(&operation, __ATOMIC_ACQUIRE);
}

template <typename Operation>
void store(Operation& operation, Operation value) noexcept {
  __atomic_store_n(&operation, value, __ATOMIC_RELEASE);
}

// Calls the operation, or fails when the set does not hold it.
template <typename Operation, typename... Arguments>
uint32_t forward(Operation& operation, Arguments... arguments) noexcept {
  const Operation loaded = load(operation);
  return loaded == nullptr ? QURN_FAILED : loaded(arguments...);
}

}  // namespace

extern "C" {

uint32_t ZotHeartFunReg(const TovHeartFunSet* funSet) {
  if (funSet == nullptr || funSet->pfnSetHeartMon == nullptr ||
      funSet->pfnSendHeartToMon == nullptr || funSet->pfnStopHeartToMon == nullptr ||
      funSet->pfnRegThreadDeadloopHook == nullptr || funSet->pfnReboot == nullptr) {
    return QURN_FAILED;
  }
  store(g_stTovHeartFunSet.pfnSetHeartMon, funSet->pfnSetHeartMon);
  store(g_stTovHeartFunSet.pfnSendHeartToMon, funSet->pfnSendHeartToMon);
  store(g_stTovHeartFunSet.pfnStopHeartToMon, funSet->pfnStopHeartToMon);
  store(g_stTovHeartFunSet.pfnRegThreadDeadloopHook, funSet->pfnRegThreadDeadloopHook);
  store(g_stTovHeartFunSet.pfnReboot, funSet->pfnReboot);
  return QURN_OK;
}

uint32_t ZOT_SetHeartMon(FrameDeadloopHandle* handle, uint32_t firstThreshold,
                         uint32_t secondThreshold, uint32_t thirdThreshold) {
  QURN_LOG_AS(LOG_InnerPrint, kUnit, TOV_LOG_INFO, "ZOT set heart monitor of thread (%llu).",
              static_cast<unsigned long long>(pthread_self()));
  return forward(g_stTovHeartFunSet.pfnSetHeartMon, handle, firstThreshold, secondThreshold,
                 thirdThreshold);
}

uint32_t ZOT_SendHeartToMon(const FrameDeadloopHandle* handle) {
  return forward(g_stTovHeartFunSet.pfnSendHeartToMon, handle);
}

uint32_t ZOT_StopHeartToMon(const FrameDeadloopHandle* handle) {
  return forward(g_stTovHeartFunSet.pfnStopHeartToMon, handle);
}

uint32_t ZOT_RegThreadDeadloopHook(const FrameDeadloopHandle* handle, FrameDeadloopInfoHook hook) {
  return forward(g_stTovHeartFunSet.pfnRegThreadDeadloopHook, handle, hook);
}

void ZotReboot(void) {
  if (auto* reboot = load(g_stTovHeartFunSet.pfnReboot); reboot != nullptr) {
    reboot();
  }
}

[[gnu::weak]] uint32_t TRC_RegisterFunction(...) { return 0; }
[[gnu::weak]] uint32_t TRC_SetConfigPara(...) { return 0; }
[[gnu::weak]] uint32_t TRC_InstanceEventPoint(...) { return 0; }
[[gnu::weak]] uint32_t TRC_IsTraceCompMsg(...) { return 2; }
[[gnu::weak]] uint32_t TRC_CompMsgProc(...) { return 0; }

}  // extern "C"
