// Stands in for the framework's dead-loop library: keeps the capability that the process registers
// and drives sections of threads through it, keeps a dead-loop hook for each of up to 64 threads,
// and logs through the hook that it is given.
#include <qurnadapt/platform.h>
#include <tovplatform/stand_in.h>

#include <array>
#include <atomic>
#include <mutex>

#include "common/fork_mutex.h"

namespace {

constexpr uint32_t kAlreadyRegistered = 0x88000002;
constexpr uint32_t kLogInfo = 0;
constexpr uint32_t kLogError = 2;

struct ThreadHook {
  uint64_t threadId;
  TovDeadloopHook hook;
};

constinit qurn::ForkMutex g_mutex;  // of the records below
constinit FrameDeadloopCapability g_capability{};
constinit std::array<ThreadHook, 64> g_hooks{};
constinit std::atomic<bool> g_registered{false};  // set once the capability is complete
constinit std::atomic<TovDeadloopLogHook> g_logHook{nullptr};

struct OwnSection {
  bool registered;
  FrameDeadloopHandle handle;
};
constinit thread_local OwnSection t_section{};

void log(uint32_t level, const char* text) {
  if (const TovDeadloopLogHook hook = g_logHook; hook != nullptr) {
    hook(level, text);
  }
}

ThreadHook* findHook(uint64_t threadId) {
  for (ThreadHook& entry : g_hooks) {
    if (entry.threadId == threadId) {
      return &entry;
    }
  }
  return nullptr;
}

__attribute__((constructor)) void watchForks() noexcept {
  qurn::holdAcrossFork<[]() -> qurn::ForkMutex& { return g_mutex; }>();
}

}  // namespace

extern "C" {

uint32_t TOV_DeadLoopRegCapability(const FrameDeadloopCapability* capability) {
  if (capability == nullptr || capability->capability != FRAME_DEADLOOP_CAPABILITY) {
    return QURN_FAILED;
  }
  const std::lock_guard lock(g_mutex);
  if (g_registered) {
    return kAlreadyRegistered;
  }
  g_capability = *capability;
  g_registered = true;
  return QURN_OK;
}

uint32_t TOV_DeadloopLogHookSet(TovDeadloopLogHook hook) {
  g_logHook = hook;
  return QURN_OK;
}

TovDeadloopHook TovDeadloopGetHookByThreadId(uint64_t threadId) {
  const std::lock_guard lock(g_mutex);
  const ThreadHook* entry = findHook(threadId);
  return entry == nullptr ? nullptr : entry->hook;
}

uint32_t TovStandInDeadloopHookSet(uint64_t threadId, TovDeadloopHook hook) {
  const std::lock_guard lock(g_mutex);
  ThreadHook* entry = findHook(threadId);
  if (entry == nullptr) {
    entry = findHook(0);
  }
  if (entry == nullptr || threadId == 0) {
    return QURN_FAILED;
  }
  *entry = hook == nullptr ? ThreadHook{} : ThreadHook{threadId, hook};
  return QURN_OK;
}

uint32_t TovStandInSectionRegister(uint32_t firstThreshold, uint32_t secondThreshold,
                                   uint32_t thirdThreshold) {
  const FrameSdkDeadloopParam param{0, firstThreshold, secondThreshold, thirdThreshold};
  if (!g_registered || g_capability.registerOp(&param, &t_section.handle) != QURN_OK) {
    log(kLogError, "Section registration was refused.");
    return QURN_FAILED;
  }
  t_section.registered = true;
  log(kLogInfo, "Section registered.");
  return g_capability.setActionOp(t_section.handle);
}

void TovStandInSectionOpen(void) {
  if (t_section.registered) {
    g_capability.beginOp(t_section.handle);
  }
}

void TovStandInSectionClose(void) {
  if (t_section.registered) {
    g_capability.endOp(t_section.handle);
  }
}

void TovStandInSectionUnregister(void) {
  if (t_section.registered) {
    t_section.registered = false;
    g_capability.unregisterOp(t_section.handle);
  }
}

}  // extern "C"
