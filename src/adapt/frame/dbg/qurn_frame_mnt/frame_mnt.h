// What the files of this unit share: its log path, the process identity and the few steps that
// cross from one concern to another.
#pragma once

#include <pthread.h>
#include <qurnadapt/maintenance.h>
#include <qurnadapt/platform.h>

#include <atomic>
#include <csignal>
#include <cstdint>

#include "common/unit_log.h"

namespace qurn::mnt {

inline constexpr char kUnit[] =
    "build/src/adapt/frame/dbg/CMakeFiles/adaptmnt.dir/src/qurn_frame_mnt";

struct FrameProcInfo {
  uint32_t pid;
  char procName[FRAME_PROC_NAME_LEN];
};

extern constinit FrameProcInfo g_procInfo;
extern constinit std::atomic<uint32_t> periodDelay;  // of detection, milliseconds; 0 while unset

// Filled once a process at the start of its first start-up, before the detection thread exists.
const FrameProcInfo& procInfo() noexcept;

// Sets the detection period unless it is set already. Returns whether it did.
bool setPeriodIfUnset(uint32_t periodMs) noexcept;

// Creates the event control's epoll instance; false with errno set on failure.
bool createEpollInstance() noexcept;

// Lets the host's signals through for a scope, on the detection thread, which holds them back
// elsewhere: a hook may start a program, which would go on without them.
class HostsSignals {
 public:
  HostsSignals() noexcept;
  ~HostsSignals();
  HostsSignals(const HostsSignals&) = delete;
  HostsSignals& operator=(const HostsSignals&) = delete;

 private:
  const bool isNeeded_;
  sigset_t before_{};
};

// Read anew each time: the C library may keep more of the first ones for itself.
inline int deadloopSignal() noexcept { return SIGRTMIN + 2; }

// As FrameThreadDeadloopPrint, of a thread whose kernel thread id is known: one that has ended by
// the time of the signal is a failure. Its identifier may name freed memory then, so nothing that
// takes one may be called.
uint32_t captureThread(pthread_t thread, uint32_t tid) noexcept;

// The signal that was sent to this thread, which has ended, will never be handled: captures may be
// asked for again. A capture that has finished all the same is kept.
void withdrawSignal(uint32_t tid) noexcept;

// Calls a function of ours by its address before a signal handler does. That may be the address
// which the program has for it, and bind at the first call only.
template <typename Function, typename... Arguments>
void bindForSignals(Function* function, Arguments... arguments) noexcept {
  Function* volatile address = function;  // or the call would be made directly
  address(arguments...);
}

// In the child of a fork, which has no detection thread: a capture under way concerns the parent's
// thread, and the event loop's descriptor is the parent's too.
void dropCaptureAfterFork() noexcept;
void dropEventLoopAfterFork() noexcept;
void dropTickAfterFork() noexcept;

// The first tick is due a period from now. Detection thread only.
void startTicks() noexcept;

// Whether the capture that is asked for, or there already, is that of a third-threshold event.
bool isCaptureAwaited() noexcept;

// Milliseconds, at least a few, until the next keep-alive report is due. Detection thread only.
int64_t msToNextKeepAlive() noexcept;

}  // namespace qurn::mnt

#define MNT_LOG(level, ...) QURN_LOG_AS(LOG_InnerPrint, qurn::mnt::kUnit, level, __VA_ARGS__)
