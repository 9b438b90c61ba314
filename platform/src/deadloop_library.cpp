// Stands in for the framework's dead-loop library: keeps the capability that the process registers
// and drives sections of threads through it, keeps a dead-loop hook for each of up to 64 threads
// until they end, and logs through the hook that it is given.
#include <pthread.h>
#include <qurnadapt/platform.h>
#include <tovplatform/stand_in.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <ctime>
#include <mutex>

#include "common/fork_mutex.h"
#include "readable.h"

namespace {

constexpr uint32_t kAlreadyRegistered = 0x88000002;
constexpr uint32_t kLogInfo = 0;
constexpr uint32_t kLogError = 2;

struct ThreadHook {
  uint64_t threadId;  // which another thread may have, once this one has ended
  clockid_t clock;    // its processor time, which ends with it
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

// False when there is no such thread. The threads library looks into its control block, which goes
// when it has ended, and may be none at all.
bool findClock(uint64_t threadId, clockid_t& clock) {
  constexpr uint64_t kLookedInto = 1024;
  return tov::isReadable(threadId) && tov::isReadable(threadId + kLookedInto) &&
         pthread_getcpuclockid(threadId, &clock) == 0;
}

bool hasEnded(const ThreadHook& entry) {
  timespec used{};
  return clock_gettime(entry.clock, &used) != 0;
}

ThreadHook* findEntry(uint64_t threadId) {
  auto* const entry = std::find_if(g_hooks.begin(), g_hooks.end(), [=](const ThreadHook& one) {
    return one.hook != nullptr && one.threadId == threadId;
  });
  return entry == g_hooks.end() ? nullptr : entry;
}

// The thread's own, or null: what one before it has left behind is dropped.
ThreadHook* findHook(uint64_t threadId) {
  ThreadHook* entry = findEntry(threadId);
  if (entry != nullptr && hasEnded(*entry)) {
    *entry = {};
    return nullptr;
  }
  return entry;
}

ThreadHook* findRoom() {
  auto* const entry = std::find_if(g_hooks.begin(), g_hooks.end(), [](const ThreadHook& one) {
    return one.hook == nullptr || hasEnded(one);
  });
  return entry == g_hooks.end() ? nullptr : entry;
}

// The forking thread goes on in the child, by another clock.
void renewOwnClock() {
  if (ThreadHook* entry = findEntry(pthread_self()); entry != nullptr) {
    static_cast<void>(pthread_getcpuclockid(pthread_self(), &entry->clock));
  }
}

// What is registered first runs while the lock is held.
__attribute__((constructor)) void watchForks() noexcept {
  static_cast<void>(
      pthread_atfork([] { static_cast<void>(findHook(pthread_self())); }, nullptr, renewOwnClock));
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
  clockid_t clock{};
  if (!findClock(threadId, clock)) {
    return QURN_FAILED;
  }
  const std::lock_guard lock(g_mutex);
  ThreadHook* entry = findHook(threadId);
  if (hook == nullptr) {
    if (entry != nullptr) {
      *entry = {};
    }
    return QURN_OK;
  }
  if (entry == nullptr) {
    entry = findRoom();
  }
  if (entry == nullptr) {
    return QURN_FAILED;
  }
  *entry = {threadId, clock, hook};
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
