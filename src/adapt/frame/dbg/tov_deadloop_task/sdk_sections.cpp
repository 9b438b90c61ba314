// SDK dead-loop sections and the capability record through which the framework's dead-loop library
// drives them. Sections are registered and unregistered on the thread that owns them.
#include <qurnadapt/keep_alive.h>
#include <qurnadapt/sdk_sections.h>

#include <array>
#include <atomic>

#include "monitor_table.h"

namespace {

constexpr uint32_t kAlreadyRegistered = 0x88000002;
constexpr uint8_t kOff = 0;
constexpr uint8_t kOn = 1;

// The hook that sections install; null until the capability has been registered.
constinit std::atomic<FrameDeadloopInfoHook> g_sdkAction{nullptr};

static_assert(offsetof(FrameDeadloopCapability, capability) == 0);
static_assert(offsetof(FrameDeadloopCapability, registerOp) == 8);
static_assert(offsetof(FrameDeadloopCapability, unregisterOp) == 16);
static_assert(offsetof(FrameDeadloopCapability, beginOp) == 24);
static_assert(offsetof(FrameDeadloopCapability, endOp) == 32);
static_assert(offsetof(FrameDeadloopCapability, setActionOp) == 40);
static_assert(sizeof(FrameDeadloopCapability) == 48);

}  // namespace

extern "C" {

uint32_t FrameRegSdkDeadloop(const FrameSdkDeadloopParam* param, FrameDeadloopHandle* handle) {
  if (Frame_SetHeartbeatToMon(handle, param->firstThreshold, param->secondThreshold,
                              param->thirdThreshold) != QURN_OK) {
    MONITOR_LOG(TOV_LOG_ERROR, "Frame sdk deadloop register, set to monitor unsuccessfully.");
    return QURN_FAILED;
  }
  if (FrameSetDetectSwitch(*handle, kOff) != QURN_OK) {
    MONITOR_LOG(TOV_LOG_ERROR, "Frame sdk deadloop register, set detect switch unsuccessfully.");
    return QURN_FAILED;
  }
  return QURN_OK;
}

void FrameUnRegSdkDeadloop(FrameDeadloopHandle handle) {
  if (Frame_StopHeartbeatToMon(&handle) != QURN_OK) {
    MONITOR_LOG(TOV_LOG_ERROR, "Frame sdk deadloop unregister, stop monitor unsuccessfully.");
  }
}

void FrameBeginSdkDeadloop(FrameDeadloopHandle handle) {
  if (FrameSetDetectSwitch(handle, kOn) != QURN_OK) {
    MONITOR_LOG(TOV_LOG_ERROR,
                "Frame sdk deadloop detect begin, set detect switch unsuccessfully.");
  }
}

void FrameEndSdkDeadloop(FrameDeadloopHandle handle) {
  if (FrameSetDetectSwitch(handle, kOff) != QURN_OK) {
    MONITOR_LOG(TOV_LOG_ERROR, "Frame sdk deadloop detect end, set detect switch unsuccessfully.");
  }
}

uint32_t FrameSetSdkDeadloopAction(FrameDeadloopHandle handle) {
  return Frame_RegDeadloopInfoHook(&handle, g_sdkAction);
}

uint32_t FrameRegDeadloopCapability(void) {
  const FrameDeadloopCapability capability{FRAME_DEADLOOP_CAPABILITY, FrameRegSdkDeadloop,
                                           FrameUnRegSdkDeadloop,     FrameBeginSdkDeadloop,
                                           FrameEndSdkDeadloop,       FrameSetSdkDeadloopAction};
  g_sdkAction = FrameSdkDeadloopAction;
  TOV_DeadloopLogHookSet(FrameDeadloopLogoutHook);
  const uint32_t ret = TOV_DeadLoopRegCapability(&capability);
  return ret == kAlreadyRegistered ? QURN_OK : ret;
}

uint32_t FrameSdkDeadloopAction(FrameDeadloopHandle* /*handle*/, uint64_t threadId,
                                uint32_t elapsedMs) {
  const TovDeadloopHook hook = TovDeadloopGetHookByThreadId(threadId);
  if (hook == nullptr) {
    FrameKeepAliveStop();
  }
  return hook(threadId, elapsedMs);
}

void FrameDeadloopLogoutHook(uint32_t level, const char* text) {
  constexpr std::array<uint32_t, 3> kLevels{TOV_LOG_INFO, TOV_LOG_WARNING, TOV_LOG_ERROR};
  if (level < kLevels.size()) {
    MONITOR_LOG(kLevels[level], "%s", text);
  }
}

}  // extern "C"
