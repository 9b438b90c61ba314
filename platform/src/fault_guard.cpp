#include "fault_guard.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csetjmp>
#include <csignal>
#include <cstring>

namespace tov {
namespace {

using Action = struct sigaction;

// What the process has for a signal.
struct Theirs {
  Action action;
  std::atomic<bool> isSpent;  // it asked to be run once, and was
};

// A handler that is set during a walk may hand on to ours, and be what ours hands on to in the next
// walk: each time the process has changed its mind, another function of ours stands for what was
// there before.
constexpr size_t kGenerations = 4;

struct Guarded {
  int sig;
  size_t generation;
  std::array<Theirs, kGenerations> theirs;
  std::atomic<bool> isHeldBack;
  siginfo_t heldBack;  // sent by somebody while the walk went on: no fault
};

constinit std::array<Guarded, 2> g_signals{{{SIGSEGV, 0, {}, {}, {}}, {SIGBUS, 0, {}, {}, {}}}};
constinit std::atomic<pid_t> g_walker{0};
constinit std::atomic<bool> g_isArmed{false};  // the way out below is known
constinit sigjmp_buf g_wayOut{};
constinit sigset_t g_maskBefore{};  // of the walking thread

pid_t ownTid() noexcept { return static_cast<pid_t>(syscall(SYS_gettid)); }

bool isFault(const siginfo_t& info) noexcept { return info.si_code > 0; }

void sendAgain(const Guarded& signal, siginfo_t& info) noexcept {
  syscall(SYS_rt_tgsigqueueinfo, getpid(), ownTid(), signal.sig, &info);
}

// The process has the handler back at the moment at which ours runs it.
void dropIfSpent(const Guarded& signal, const Theirs& theirs) noexcept {
  Action action{};
  sigaction(signal.sig, nullptr, &action);
  if (theirs.isSpent && action.sa_sigaction == theirs.action.sa_sigaction) {
    action = {};
    sigaction(signal.sig, &action, nullptr);
  }
}

// As if ours were not there. Without a handler the fault happens again once this one has returned.
void handOn(Guarded& signal, Theirs& theirs, siginfo_t& info, void* context) noexcept {
  static_cast<void>(
      theirs.isSpent.load());  // whoever replaced the action has written this behind it
  Action action = theirs.action;
  if ((static_cast<unsigned>(action.sa_flags) & SA_RESETHAND) != 0) {
    if (theirs.isSpent.exchange(true)) {
      action = {};
    }
    dropIfSpent(signal, theirs);
  }
  if ((action.sa_flags & SA_SIGINFO) != 0) {
    action.sa_sigaction(signal.sig, &info, context);
  } else if (action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN) {
    action.sa_handler(signal.sig);
  } else if (isFault(info) || action.sa_handler == SIG_DFL) {
    const Action standard{};
    sigaction(signal.sig, &standard, nullptr);
    if (!isFault(info)) {
      sendAgain(signal, info);
    }
  }
}

template <size_t generation>
void onSignal(int sig, siginfo_t* info, void* context) {
  Guarded& signal = sig == g_signals[0].sig ? g_signals[0] : g_signals[1];
  if (!g_isArmed || g_walker != ownTid()) {
    handOn(signal, signal.theirs[generation], *info, context);
  } else if (isFault(*info)) {
    siglongjmp(g_wayOut, 1);
  } else {
    signal.heldBack = *info;
    signal.isHeldBack = true;
  }
}

constexpr std::array kOurs{onSignal<0>, onSignal<1>, onSignal<2>, onSignal<3>};
static_assert(kOurs.size() == kGenerations);

// What one of ours stands for, else null.
Theirs* theirsBehind(Guarded& signal, const Action& action) noexcept {
  const auto* const ours = std::find(kOurs.begin(), kOurs.end(), action.sa_sigaction);
  return (action.sa_flags & SA_SIGINFO) != 0 && ours != kOurs.end()
             ? &signal.theirs[static_cast<size_t>(ours - kOurs.begin())]
             : nullptr;
}

// Of a mask the C library hands out more than the kernel fills.
bool isSame(const Action& one, const Action& other) noexcept {
  constexpr size_t kKernelMaskBytes = 8;
  return one.sa_sigaction == other.sa_sigaction && one.sa_flags == other.sa_flags &&
         memcmp(&one.sa_mask, &other.sa_mask, kKernelMaskBytes) == 0;
}

// Returns whether it stands for what was there until this moment.
bool replaceByOurs(Guarded& signal, Action action) noexcept {
  if (!isSame(action, signal.theirs[signal.generation].action)) {
    signal.generation = (signal.generation + 1) % kGenerations;
    signal.theirs[signal.generation].action = action;
  }
  Theirs& theirs = signal.theirs[signal.generation];
  theirs.isSpent = false;
  action.sa_sigaction = kOurs[signal.generation];
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | (action.sa_flags & (SA_NODEFER | SA_RESTART));
  Action replaced{};
  sigaction(signal.sig, &action, &replaced);
  if (isSame(replaced, theirs.action)) {
    return true;
  }
  sigaction(signal.sig, &replaced, nullptr);
  return false;
}

void putOursInPlace() noexcept {
  for (Guarded& signal : g_signals) {
    Action action{};
    do {
      sigaction(signal.sig, nullptr, &action);
    } while (theirsBehind(signal, action) == nullptr &&  // else of a walk that never ended
             !replaceByOurs(signal, action));
  }
}

// Another thread may have set a handler of its own meanwhile, or do so this very moment.
void putTheirsBack() noexcept {
  for (Guarded& signal : g_signals) {
    Action action{};
    sigaction(signal.sig, nullptr, &action);
    if (const Theirs* theirs = theirsBehind(signal, action); theirs != nullptr) {
      const Action back = theirs->isSpent ? Action{} : theirs->action;
      sigaction(signal.sig, &back, &action);
      if (theirsBehind(signal, action) == nullptr) {
        sigaction(signal.sig, &action, nullptr);
      }
      dropIfSpent(signal, *theirs);
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

// A thread may have ended in its walk, by a call that nobody can hinder.
bool becomeWalker() noexcept {
  pid_t walker = g_walker;
  return (walker == 0 || tgkill(getpid(), walker, 0) != 0) &&
         g_walker.compare_exchange_strong(walker, ownTid());
}

void disarm() noexcept {
  g_isArmed = false;
  putTheirsBack();
}

// The child has no walk to come back to, be it another thread's or one that a handler interrupted.
// Its handlers were copied a moment before its memory, from which the walk may have gone meanwhile.
void endWalkInChild() noexcept {
  disarm();
  g_walker = 0;
}

__attribute__((constructor)) void watchForks() noexcept {
  static_cast<void>(pthread_atfork(nullptr, nullptr, endWalkInChild));
}

}  // namespace

bool surviveFaults(void (*walk)(void*), void* argument) noexcept {
  if (!becomeWalker()) {
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
  disarm();
  pthread_sigmask(SIG_SETMASK, &g_maskBefore, nullptr);
  sendWhatWasHeldBack();
  g_walker = 0;
  return isWhole;
}

}  // namespace tov
