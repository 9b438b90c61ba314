// The dead-loop signal and what its handler captures. The handler runs on the stuck thread, in
// signal context: it works in memory prepared by FrameDeadloopInit and uses async-signal-safe calls
// only. Everything else runs at start-up or on the detection thread.
#include <pthread.h>
#include <qurnadapt/keep_alive.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>

#include "capture_record.h"
#include "common/machine_context.h"
#include "common/uncancellable.h"
#include "frame_mnt.h"
#include "internal/safe_strings.h"

namespace qurn::mnt {

constinit FrameDeadloopDumpCtrl g_dump{};

namespace {

constexpr uint32_t kDefaultPeriodMs = 10000;
constexpr uint64_t kBytesBelowStackPointer = 512;
constexpr uint16_t kBusyAttempts = 5;
constexpr int kYieldsBeforeSleep = 100;

// What the handler is installed with; components may have set signals for it to keep out.
constinit sigset_t g_handlerMask{};

// The interrupted code must not see a changed errno.
class ErrnoKeeper {
 public:
  ErrnoKeeper() noexcept : saved_(errno) {}
  ~ErrnoKeeper() { errno = saved_; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

 private:
  const int saved_;
};

void giveRecordBack() noexcept {
  g_dump.captureTid.store(0, std::memory_order_relaxed);
  g_dump.captureBusy.store(0, std::memory_order_release);
}

// While one thread's capture is awaited, and the thread is there, the signal that somebody else
// sends to another one must not pass for it.
bool isMistaken() noexcept {
  const uint32_t awaited = g_dump.awaitedTid.load();
  return awaited != 0 && FrameGetDeadloopStatus() == FRAME_DEADLOOP_STATUS_SIGNALED &&
         awaited != static_cast<uint32_t>(syscall(SYS_gettid)) &&
         syscall(SYS_tgkill, getpid(), awaited, 0) == 0;
}

// A finished record belongs to the detection thread until its report is written; a signal that
// nobody asked for must not tear it.
bool isWanted() noexcept {
  return FrameGetDeadloopStatus() != FRAME_DEADLOOP_STATUS_CAPTURED && !isMistaken();
}

// Handlers on different threads take turns with the one record; a handler that has waited for five
// seconds gives up. Before it sleeps it lets the other one finish, and one that is not wanted does
// not wait: where signals come in numbers, healthy threads would fall silent in here.
bool takeRecord() noexcept {
  for (uint16_t attempts = kBusyAttempts; attempts > 0; --attempts) {
    for (int yields = kYieldsBeforeSleep; yields > 0 && isWanted(); --yields) {
      if (g_dump.captureBusy.exchange(1, std::memory_order_seq_cst) == 0) {
        g_dump.captureTid.store(static_cast<uint32_t>(syscall(SYS_gettid)));
        return true;
      }
      sched_yield();
    }
    if (!isWanted()) {
      return false;
    }
    sleep(1);
  }
  return false;
}

// The depth and the length come before the release of the flag and the status, so that whoever sees
// the status sees the finished record. A thread whose capture has been asked for since it began
// gets the record, and its status, for itself.
void publish(uint32_t statusBefore, uint32_t depth, uint32_t stackLength) noexcept {
  g_dump.capturedDepth = depth;
  g_dump.capturedStackLength = stackLength;
  giveRecordBack();
  if (!isMistaken()) {
    g_dump.status.compare_exchange_strong(statusBefore, FRAME_DEADLOOP_STATUS_CAPTURED,
                                          std::memory_order_release);
  }
}

void capture(uint32_t statusBefore, FrameDeadloopDumpInfo* dumpInfo, void* context) noexcept {
  uint32_t depth = 0;
  uint32_t stackLength = 0;
  memcpy_s(dumpInfo->registers, sizeof(dumpInfo->registers), machineWords(context),
           sizeof(dumpInfo->registers));
  KEM_ExceptCallStackGetEx(context, FRAME_CALL_STACK_DEPTH, 0, g_dump.callStack, &depth);
  FrameStackMemoryGet(dumpInfo, &stackLength);
  FrameStackContentGet(dumpInfo, g_dump.callStack, depth);
  publish(statusBefore, depth, stackLength);
}

bool isOurs(const struct sigaction& action) noexcept {
  return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == FrameDeadLoopSignalHandle;
}

int installHandler(struct sigaction action) noexcept {
  action.sa_sigaction = FrameDeadLoopSignalHandle;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  return sigaction(deadloopSignal(), &action, nullptr);
}

// A component may have taken the signal for itself, which would then handle the stuck thread's.
bool handlerIsInstalled() noexcept {
  struct sigaction action {};
  if (sigaction(deadloopSignal(), nullptr, &action) == 0 && isOurs(action)) {
    return true;
  }
  action.sa_mask = g_handlerMask;
  return installHandler(action) == 0;
}

// Whether the signal is on its way. An id of 0 stands for a thread of which only the identifier is
// known.
bool signalThread(pthread_t thread, uint32_t tid) noexcept {
  if (tid != 0 && tgkill(getpid(), static_cast<pid_t>(tid), 0) != 0) {
    return false;
  }
  return pthread_kill(thread, deadloopSignal()) == 0;
}

uint32_t sendSignal(pthread_t thread, uint32_t tid) noexcept {
  const Uncancellable uncancellable;  // or the status would tell of a signal that was never sent
  const auto shortId = static_cast<uint32_t>(thread);
  g_dump.awaitedTid.store(tid);
  g_dump.status.store(FRAME_DEADLOOP_STATUS_SIGNALED, std::memory_order_release);
  MNT_LOG(TOV_LOG_INFO, "Signal %d send to thread %u.", deadloopSignal(), shortId);
  if (!handlerIsInstalled() || !signalThread(thread, tid)) {
    MNT_LOG(TOV_LOG_ERROR, "Signal %d send to thread %u unsuccessfully.", deadloopSignal(),
            shortId);
    g_dump.awaitedTid = 0;
    g_dump.status.store(FRAME_DEADLOOP_STATUS_IDLE, std::memory_order_release);
    return QURN_FAILED;
  }
  FRAME_KeepAliveReport();
  return QURN_OK;
}

}  // namespace

uint32_t captureThread(pthread_t thread, uint32_t tid) noexcept {
  FrameDeadloopDumpInfo* dumpInfo = g_dump.dumpInfo.load(std::memory_order_acquire);
  if (thread == 0 || thread == ~pthread_t{0} || dumpInfo == nullptr) {
    MNT_LOG(TOV_LOG_ERROR,
            "Thread deadloop print unsuccessfully, thread %x or parameter is invalid.",
            static_cast<uint32_t>(thread));
    return QURN_FAILED;
  }
  FRAME_KeepAliveReport();
  memset_s(dumpInfo, sizeof(*dumpInfo), 0, sizeof(*dumpInfo));
  if (const uint32_t ret = sendSignal(thread, tid); ret != QURN_OK) {
    MNT_LOG(TOV_LOG_ERROR, "Thread deadloop send signal unsuccessfully. (ret=%u)", ret);
    return QURN_FAILED;
  }
  return QURN_OK;
}

void dropCaptureAfterFork() noexcept {
  giveRecordBack();
  g_dump.awaitedTid = 0;
  g_dump.status.store(FRAME_DEADLOOP_STATUS_IDLE);
}

bool isCaptureAwaited() noexcept { return g_dump.awaitedTid.load() != 0; }

void withdrawSignal(uint32_t tid) noexcept {
  uint32_t signalled = FRAME_DEADLOOP_STATUS_SIGNALED;
  if (g_dump.captureTid.load() == tid) {  // it has ended in the handler
    giveRecordBack();
  }
  if (g_dump.status.compare_exchange_strong(signalled, FRAME_DEADLOOP_STATUS_IDLE)) {
    g_dump.awaitedTid = 0;
  }
}

}  // namespace qurn::mnt

using namespace qurn::mnt;

extern "C" {

uint32_t FrameDeadloopInit(void) {
  if (FrameIsDeadloopInited() != 0) {
    MNT_LOG(TOV_LOG_WARNING, "Deadloop is already inited.");
    return QURN_OK;
  }
  g_dump.captureBusy.store(0, std::memory_order_release);
  if (FrameDeadLoopSignalFuncReg() != QURN_OK) {
    return QURN_FAILED;
  }
  uint64_t* callStack = nullptr;
  char* symbolText = nullptr;
  FrameDeadloopDumpInfo* dumpInfo = nullptr;
  if (FrameDeadloopStackMemAlloc(&callStack, &symbolText, &dumpInfo) == nullptr) {
    MNT_LOG(TOV_LOG_ERROR, "Deadloop dfx init fail, stack memory alloc fail.");
    return QURN_FAILED;
  }
  g_dump.callStack = callStack;
  g_dump.symbolText = symbolText;
  g_dump.dumpInfo.store(dumpInfo, std::memory_order_release);
  g_dump.status.store(FRAME_DEADLOOP_STATUS_IDLE, std::memory_order_release);
  setPeriodIfUnset(kDefaultPeriodMs);
  g_dump.inited.store(1, std::memory_order_release);
  return QURN_OK;
}

uint32_t FrameIsDeadloopInited(void) { return g_dump.inited.load(std::memory_order_acquire); }

uint32_t FrameDeadLoopSignalFuncReg(void) {
  struct sigaction action {};
  sigaction(deadloopSignal(), nullptr, &action);
  g_handlerMask = action.sa_mask;
  bindForSignals(FrameDeadLoopSignalHandle, 0, nullptr, nullptr);
  if (const int ret = installHandler(action); ret != 0) {
    MNT_LOG(TOV_LOG_ERROR, "Deadloop dfx init fail, set sig action fail, ret = %d.", ret);
    return QURN_FAILED;
  }
  return QURN_OK;
}

void* FrameDeadloopStackMemAlloc(uint64_t** addresses, char** symbolText,
                                 FrameDeadloopDumpInfo** dumpInfo) {
  auto* memory =
      static_cast<CaptureMemory*>(TOV_MemAllocF(sizeof(CaptureMemory), kUnit, __LINE__, 0));
  if (memory == nullptr) {
    MNT_LOG(TOV_LOG_ERROR, "Deadloop dfx init fail, memory alloc fail.");
    return nullptr;
  }
  memset_s(memory, sizeof(*memory), 0, sizeof(*memory));
  *addresses = memory->callStack;
  *symbolText = memory->symbolText;
  *dumpInfo = &memory->dumpInfo;
  return memory;
}

uint32_t FrameGetDeadloopStatus(void) { return g_dump.status.load(std::memory_order_acquire); }

uint32_t FrameThreadDeadloopPrint(pthread_t thread) { return captureThread(thread, 0); }

uint32_t FrameDeadloopSignalSend(pthread_t thread) { return sendSignal(thread, 0); }

void FrameDeadLoopSignalHandle(int sig, siginfo_t* info, void* context) {
  const ErrnoKeeper errnoKeeper;
  // A pending cancellation would end the thread at the first file call, the record taken for good.
  const qurn::Uncancellable uncancellable;
  FrameDeadloopDumpInfo* dumpInfo = g_dump.dumpInfo.load(std::memory_order_acquire);
  if (sig != deadloopSignal() || info == nullptr || context == nullptr || dumpInfo == nullptr ||
      !takeRecord()) {
    return;
  }
  // It may have been finished, or asked for by another thread, at this very moment.
  const uint32_t status = FrameGetDeadloopStatus();
  if (!isWanted()) {
    giveRecordBack();
    return;
  }
  capture(status, dumpInfo, context);
}

void FrameStackMemoryGet(FrameDeadloopDumpInfo* dumpInfo, uint32_t* length) {
  FrameTaskStackInfo bounds{0, 0};
  if (KEM_TaskStackInfoGet(0, &bounds) != 0) {
    bounds = {0, 0};
    FrameTaskStackInfoGet(&bounds);
  }
  const uint64_t sp = FrameStackSpGet(dumpInfo->registers);
  if (bounds.start == 0 || bounds.size == 0 || sp == 0) {
    return;
  }
  uint32_t count = FRAME_STACK_DUMP_BYTES;
  FrameDumpStackInfoGet(sp, bounds.start, bounds.size, &dumpInfo->stackDumpStart, &count);
  count = std::min(count, FRAME_STACK_DUMP_BYTES);
  memcpy_s(dumpInfo->stackBytes, FRAME_STACK_DUMP_BYTES,
           reinterpret_cast<const void*>(dumpInfo->stackDumpStart), count);
  *length = count;
}

void FrameStackContentGet(FrameDeadloopDumpInfo* dumpInfo, const uint64_t* addresses,
                          uint32_t depth) {
  uint32_t stored = 0;
  for (uint32_t i = 0; i < std::min(depth, FRAME_CALL_STACK_DEPTH); ++i) {
    if (addresses[i] != 0) {
      dumpInfo->callStack[stored++].address = addresses[i];
    }
  }
}

uint64_t FrameStackSpGet(const uint64_t* registers) { return registers[qurn::kStackPointerWord]; }

void FrameDumpStackInfoGet(uint64_t sp, uint64_t start, uint64_t size, uint64_t* dumpStart,
                           uint32_t* length) {
  const uint64_t below = sp < kBytesBelowStackPointer ? 0 : sp - kBytesBelowStackPointer;
  const uint64_t from = std::max(start, below);
  const uint64_t end = start + size;
  *dumpStart = from;
  *length = from >= end ? 0 : static_cast<uint32_t>(std::min<uint64_t>(*length, end - from));
}

}  // extern "C"
