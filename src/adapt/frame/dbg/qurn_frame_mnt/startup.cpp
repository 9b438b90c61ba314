// Start-up of the maintenance subsystem, and its detection thread. Start-up runs on the framework's
// thread; FrameDeadloopTaskProcEntry and what it calls run on the detection thread.
#include <fcntl.h>
#include <pthread.h>
#include <qurnadapt/capture.h>
#include <qurnadapt/event_sets.h>
#include <qurnadapt/exception.h>
#include <qurnadapt/keep_alive.h>
#include <qurnadapt/monitor.h>
#include <qurnadapt/sdk_sections.h>
#include <qurnadapt/timer.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>

#include "common/scoped_fd.h"
#include "common/uncancellable.h"
#include "frame_mnt.h"
#include "internal/safe_strings.h"
#include "start_turns.h"

namespace qurn::mnt {

constinit FrameProcInfo g_procInfo{};
constinit std::atomic<uint32_t> periodDelay{0};

namespace {

constexpr char kDetectionThreadName[] = "tovDeadloopTask";
static_assert(sizeof(kDetectionThreadName) <= FRAME_TASK_NAME_LEN);

constexpr char kTimerSetName[] = "tov_timer";

constinit std::atomic<bool> g_detectionRuns{false};
constinit std::atomic<int32_t> g_detectionTimer{-1};  // its descriptor
constinit std::atomic<pthread_t> g_detectionThread{0};
constinit sigset_t g_hostsMask{};  // of the thread that started it

struct StartStep {
  uint32_t (*run)();
  void (*logFailure)(uint32_t ret);
};

constexpr StartStep kStartSteps[] = {
    {FrameExceptionInit,
     [](uint32_t ret) {
       MNT_LOG(TOV_LOG_ERROR, "Frame exception operation unsuccessfully, ret=%#x.", ret);
     }},
    {FrameKeepAliveInit,
     [](uint32_t ret) {
       MNT_LOG(TOV_LOG_ERROR, "Frame keep alive operation unsuccessfully, ret=%#x.", ret);
     }},
    {FRAME_TaskDeadloopInit,
     [](uint32_t ret) {
       MNT_LOG(TOV_LOG_ERROR, "Frame task deadloop init unsuccessfully, ret=%#x.", ret);
     }},
    {FrameRegDeadloopCapability,
     [](uint32_t ret) {
       MNT_LOG(TOV_LOG_ERROR, "Frame register deadloop capability unsuccessfully, ret=%#x.", ret);
     }},
    {FrameDeadloopInit,
     [](uint32_t ret) { MNT_LOG(TOV_LOG_ERROR, "Deadloop init unsuccessfully, ret=%#x.", ret); }},
    {FRAME_PeriodTaskInit,
     [](uint32_t ret) {
       MNT_LOG(TOV_LOG_ERROR, "Period task create unsuccessfully, ret=%#x.", ret);
     }},
};

uint32_t runStartSteps() noexcept {
  if (g_procInfo.pid != static_cast<uint32_t>(getpid())) {  // else a report may be reading it
    FrameGetProcInfo(&g_procInfo.pid, g_procInfo.procName, sizeof(g_procInfo.procName));
  }
  for (const StartStep& step : kStartSteps) {
    if (const uint32_t ret = step.run(); ret != QURN_OK) {
      step.logFailure(ret);
      return ret;
    }
  }
  return QURN_OK;
}

// Scans the first line of a status file. The scan goes to a buffer of its own because the library's
// bounded scan does not look at the destination's size.
void readProcessName(int statusFd, char* name, uint32_t nameLen) noexcept {
  char text[128] = {};
  const ssize_t length = read(statusFd, text, sizeof(text) - 1);
  if (length < 0) {
    return;
  }
  text[length] = '\0';
  char scanned[FRAME_PROC_NAME_LEN] = {};
  if (sscanf_s(text, "Name:%31s", scanned) == 1 && strlen(scanned) < nameLen) {
    strcpy_s(name, qurn::safeCapacity(nameLen), scanned);
  }
}

// Builds the timer loop of the detection thread; false when a step failed and has been logged.
bool setUpDetection(FrameTimerCtrl** timerCtrl) noexcept {
  FrameInitMntEpollEventCtrl();
  if (!createEpollInstance()) {
    MNT_LOG(TOV_LOG_ERROR, "Frame deadloop proc entry, epoll create unsuccessfully.");
    return false;
  }
  int32_t timerFd = -1;
  if (FRAME_TimerCtrlInit(timerCtrl) != QURN_OK ||
      FRAME_TimerCreate(*timerCtrl, FrameChooseDeadloopDetectTime(), FrameDeadloopDetectCallback,
                        nullptr, &timerFd) != QURN_OK) {
    return false;
  }
  g_detectionTimer = timerFd;
  startTicks();
  if (FRAME_MntRegSetAndEventProc(kTimerSetName, FrameTimerEventProc, *timerCtrl) != QURN_OK) {
    MNT_LOG(TOV_LOG_ERROR, "Frame deadloop proc entry, reg set and event proc unsuccessfully.");
    return false;
  }
  epoll_event event{};
  if (FRAME_MntEpollCtl(kTimerSetName, EPOLL_CTL_ADD, timerFd, &event) != QURN_OK) {
    MNT_LOG(TOV_LOG_ERROR, "Frame deadloop proc entry, add event to epoll fd unsuccessfully.");
    return false;
  }
  return true;
}

// Keeps every signal but faults from the threads that are made meanwhile.
class SignalsHeldBack {
 public:
  SignalsHeldBack() noexcept {
    sigset_t signals;
    sigfillset(&signals);
    for (const int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS}) {
      sigdelset(&signals, fault);
    }
    pthread_sigmask(SIG_BLOCK, &signals, &g_hostsMask);
  }
  ~SignalsHeldBack() { pthread_sigmask(SIG_SETMASK, &g_hostsMask, nullptr); }
  SignalsHeldBack(const SignalsHeldBack&) = delete;
  SignalsHeldBack& operator=(const SignalsHeldBack&) = delete;
};

// A hook has ended the detection thread, whose locks stay taken: nothing is watched any more.
void endUnwatched(void* /*unused*/) noexcept { FrameKeepAliveStop(); }

// A service that goes on in the child starts up anew there.
void forgetDetectionInChild() noexcept {
  dropStartTurnAfterFork();
  dropCaptureAfterFork();
  dropEventLoopAfterFork();
  dropTickAfterFork();
  if (const int32_t timerFd = g_detectionTimer.exchange(-1); timerFd != -1) {
    close(timerFd);
  }
  g_detectionRuns = false;
}

}  // namespace

const FrameProcInfo& procInfo() noexcept { return g_procInfo; }

HostsSignals::HostsSignals() noexcept : isNeeded_(g_detectionThread == pthread_self()) {
  if (isNeeded_) {
    pthread_sigmask(SIG_SETMASK, &g_hostsMask, &before_);
  }
}

HostsSignals::~HostsSignals() {
  if (isNeeded_) {
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
}

bool setPeriodIfUnset(uint32_t periodMs) noexcept {
  uint32_t unset = 0;
  return periodDelay.compare_exchange_strong(unset, periodMs, std::memory_order_relaxed);
}

}  // namespace qurn::mnt

using namespace qurn::mnt;

extern "C" {

__attribute__((constructor)) static void watchForks(void) {
  static_cast<void>(pthread_atfork(nullptr, nullptr, forgetDetectionInChild));
}

uint32_t FRAME_MntInit(void) {
  const qurn::Uncancellable uncancellable;
  uint32_t ret = QURN_FAILED;
  if (const uint32_t turn = takeStartTurn(&ret); turn != 0) {
    ret = runStartSteps();
    endStartTurn(turn, ret);
  }
  return ret;
}

void FrameGetProcInfo(uint32_t* pid, char* name, uint32_t nameLen) {
  if (name == nullptr || pid == nullptr) {
    return;
  }
  *pid = static_cast<uint32_t>(getpid());
  char path[128] = {};
  if (snprintf_s(path, sizeof(path), "/proc/%u/status", *pid) < 0) {
    return;
  }
  const qurn::ScopedFd status(open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (status.valid()) {
    readProcessName(status.get(), name, nameLen);
  }
}

uint32_t FRAME_PeriodTaskInit(void) {
  if (g_detectionRuns.exchange(true)) {
    return QURN_OK;
  }
  pthread_t thread{};
  int ret = 0;
  {
    const SignalsHeldBack heldBack;
    ret = pthread_create(&thread, nullptr, FrameDeadloopTaskProcEntry, nullptr);
  }
  if (ret != 0) {
    g_detectionRuns = false;
    MNT_LOG(TOV_LOG_ERROR, "Frame period task init unsuccessfully. (ret = %d)", ret);
    return QURN_FAILED;
  }
  pthread_detach(thread);
  return QURN_OK;
}

void* FrameDeadloopTaskProcEntry(void* /*arg*/) {
  // Whoever cancelled it would leave its locks held.
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  prctl(PR_SET_NAME, kDetectionThreadName);
  g_detectionThread = pthread_self();
  FrameTimerCtrl* timerCtrl = nullptr;
  if (setUpDetection(&timerCtrl)) {
    pthread_cleanup_push(endUnwatched, nullptr);
    FRAME_MntDispatch();
    pthread_cleanup_pop(0);
  }
  g_detectionThread = 0;
  FrameMntClearEpollEventCtrl();
  g_detectionTimer = -1;
  if (timerCtrl != nullptr) {
    FRAME_TimerCtrlRuin(timerCtrl);
  }
  g_detectionRuns = false;
  return nullptr;
}

uint32_t FrameChooseDeadloopDetectTime(void) { return periodDelay.load(std::memory_order_relaxed); }

uint32_t FrameSetDeadloopPeriodDelay(uint32_t value) {
  if (FrameIsDeadloopInited() != 0) {
    MNT_LOG(TOV_LOG_ERROR, "Deadloop is already inited, set periodDelay unsuccessfully.");
    return QURN_FAILED;
  }
  if (value == 0 && FrameChooseDeadloopDetectTime() == 0) {
    MNT_LOG(TOV_LOG_ERROR, "Deadloop periodDelay is invalid. (value = %u)", value);
    return QURN_FAILED;
  }
  // Fails when it is set already, also by a caller that was faster; 0 would change nothing.
  if (value == 0 || !setPeriodIfUnset(value)) {
    MNT_LOG(TOV_LOG_ERROR,
            "Deadloop periodDelay is already inited, set periodDelay unsuccessfully.");
    return QURN_FAILED;
  }
  return QURN_OK;
}

}  // extern "C"
