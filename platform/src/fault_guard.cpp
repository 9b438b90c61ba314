#include "fault_guard.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csetjmp>
#include <csignal>

namespace tov {
namespace {

struct Guarded {
  int sig;
  struct sigaction before;  // what the process has for it
  std::atomic<bool> isHeldBack;
  siginfo_t heldBack;  // sent by somebody while the walk went on: no fault
};

constinit std::array<Guarded, 2> g_signals{{{SIGSEGV, {}, {}, {}}, {SIGBUS, {}, {}, {}}}};
constinit std::atomic<pthread_t> g_walker{0};
constinit std::atomic<bool> g_isArmed{false};  // the way out below is known
constinit sigjmp_buf g_wayOut{};
constinit sigset_t g_maskBefore{};  // of the walking thread

bool isFault(const siginfo_t& info) noexcept { return info.si_code > 0; }

void sendAgain(const Guarded& signal, siginfo_t& info) noexcept {
  syscall(SYS_rt_tgsigqueueinfo, getpid(), syscall(SYS_gettid), signal.sig, &info);
}

// As if ours were not there. Without a handler the fault happens again once this one has returned.
void handOn(Guarded& signal, siginfo_t& info, void* context) noexcept {
  const struct sigaction before = signal.before;
  if ((before.sa_flags & SA_SIGINFO) != 0) {
    before.sa_sigaction(signal.sig, &info, context);
  } else if (before.sa_handler != SIG_DFL && before.sa_handler != SIG_IGN) {
    before.sa_handler(signal.sig);
  } else if (isFault(info) || before.sa_handler == SIG_DFL) {
    struct sigaction standard {};
    sigaction(signal.sig, &standard, nullptr);
    if (!isFault(info)) {
      sendAgain(signal, info);
    }
  }
}

void onSignal(int sig, siginfo_t* info, void* context) {
  Guarded& signal = sig == g_signals[0].sig ? g_signals[0] : g_signals[1];
  if (g_walker != pthread_self() || !g_isArmed) {
    handOn(signal, *info, context);
  } else if (isFault(*info)) {
    siglongjmp(g_wayOut, 1);
  } else {
    signal.heldBack = *info;
    signal.isHeldBack = true;
  }
}

void putOursInPlace() noexcept {
  for (Guarded& signal : g_signals) {
    sigaction(signal.sig, nullptr, &signal.before);
    struct sigaction ours = signal.before;
    ours.sa_sigaction = onSignal;
    ours.sa_flags = SA_SIGINFO | SA_ONSTACK | (signal.before.sa_flags & (SA_NODEFER | SA_RESTART));
    sigaction(signal.sig, &ours, nullptr);
  }
}

// Another thread may have set a handler of its own meanwhile.
void putTheirsBack() noexcept {
  for (Guarded& signal : g_signals) {
    struct sigaction now {};
    sigaction(signal.sig, nullptr, &now);
    if ((now.sa_flags & SA_SIGINFO) != 0 && now.sa_sigaction == onSignal) {
      sigaction(signal.sig, &signal.before, nullptr);
    }
  }
}

void openSignals() noexcept {
  sigset_t signals;
  sigemptyset(&signals);
  for (const Guarded& signal : g_signals) {
    sigaddset(&signals, signal.sig);
  }
  pthread_sigmask(SIG_UNBLOCK, &signals, &g_maskBefore);
}

void sendWhatWasHeldBack() noexcept {
  for (Guarded& signal : g_signals) {
    if (signal.isHeldBack.exchange(false)) {
      sendAgain(signal, signal.heldBack);
    }
  }
}

}  // namespace

bool surviveFaults(void (*walk)(void*), void* argument) noexcept {
  pthread_t nobody = 0;
  if (!g_walker.compare_exchange_strong(nobody, pthread_self())) {
    walk(argument);
    return true;
  }
  putOursInPlace();
  const bool isWhole = sigsetjmp(g_wayOut, 0) == 0;
  if (isWhole) {
    g_isArmed = true;
    openSignals();
    walk(argument);
  }
  g_isArmed = false;
  putTheirsBack();
  pthread_sigmask(SIG_SETMASK, &g_maskBefore, nullptr);
  sendWhatWasHeldBack();
  g_walker = 0;
  return isWhole;
}

}  // namespace tov
