// Stands in for the framework's dead-loop library: one registered capability, one log hook, and a
// dead-loop hook for each of up to 64 threads.
#include <qurnadapt/platform.h>
#include <tovplatform/stand_in.h>

#include <array>
#include <atomic>
#include <mutex>

namespace {

constexpr uint32_t kAlreadyRegistered = 0x88000002;

struct ThreadHook {
  uint64_t threadId;
  TovDeadloopHook hook;
};

constinit std::atomic<bool> g_registered{false};
constinit std::atomic<TovDeadloopLogHook> g_logHook{nullptr};
constinit std::mutex g_hooksMutex;
constinit std::array<ThreadHook, 64> g_hooks{};

ThreadHook* findHook(uint64_t threadId) {
  for (ThreadHook& entry : g_hooks) {
    if (entry.threadId == threadId) {
      return &entry;
    }
  }
  return nullptr;
}

}  // namespace

extern "C" {

uint32_t TOV_DeadLoopRegCapability(const struct FrameDeadloopCapability* capability) {
  if (capability == nullptr) {
    return QURN_FAILED;
  }
  return g_registered.exchange(true) ? kAlreadyRegistered : QURN_OK;
}

uint32_t TOV_DeadloopLogHookSet(TovDeadloopLogHook hook) {
  g_logHook = hook;
  return QURN_OK;
}

TovDeadloopHook TovDeadloopGetHookByThreadId(uint64_t threadId) {
  const std::lock_guard lock(g_hooksMutex);
  const ThreadHook* entry = findHook(threadId);
  return entry == nullptr ? nullptr : entry->hook;
}

uint32_t TovStandInDeadloopHookSet(uint64_t threadId, TovDeadloopHook hook) {
  const std::lock_guard lock(g_hooksMutex);
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

}  // extern "C"
