// A mutex that the thread which forks holds meanwhile, so that the child finds it free, and whole
// what it guards. It may be held for good, by a thread that is stuck or by the one that forks: a
// crash handler or a hook that starts a dumper must not hang for that. So the fork does not wait
// for long, and the child then gets a new mutex around what may be half changed.
#pragma once

#include <pthread.h>

#include <atomic>
#include <ctime>

#include "uncancellable.h"

namespace qurn {

// How long a fork waits for a lock: asked again every millisecond.
inline constexpr int kForkPatienceMs = 100;

inline void sleepAMillisecond() noexcept {
  const Uncancellable uncancellable;
  const timespec millisecond{0, 1'000'000};
  nanosleep(&millisecond, nullptr);
}

class ForkMutex {
 public:
  void lock() noexcept {
    pthread_mutex_lock(&mutex_);
    owner_.store(pthread_self(), std::memory_order_relaxed);
  }
  void unlock() noexcept {
    owner_.store(0, std::memory_order_relaxed);
    pthread_mutex_unlock(&mutex_);
  }

  void beforeFork() noexcept {
    if (owner_.load(std::memory_order_relaxed) == pthread_self() || !lockWithPatience()) {
      return;
    }
    owner_.store(pthread_self(), std::memory_order_relaxed);
    forker_ = pthread_self();
  }
  void afterForkInParent() noexcept { releaseIfHeld(); }
  // Returns whether what it guards is whole.
  bool afterForkInChild() noexcept {
    if (releaseIfHeld()) {
      return true;
    }
    pthread_mutex_init(&mutex_, nullptr);
    owner_.store(0, std::memory_order_relaxed);
    forker_ = 0;
    return false;
  }

 private:
  bool lockWithPatience() noexcept {
    for (int waited = 0; pthread_mutex_trylock(&mutex_) != 0; ++waited) {
      if (waited == kForkPatienceMs) {
        return false;
      }
      sleepAMillisecond();
    }
    return true;
  }

  bool releaseIfHeld() noexcept {
    if (owner_.load(std::memory_order_relaxed) != pthread_self() || forker_ != pthread_self()) {
      return false;
    }
    forker_ = 0;
    unlock();
    return true;
  }

  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  std::atomic<pthread_t> owner_{0};
  pthread_t forker_ = 0;  // who holds it for a fork; written by the owner
};

// MUTEX is a function that returns one.
template <auto mutex>
void holdAcrossFork() noexcept {
  static_cast<void>(pthread_atfork([] { mutex().beforeFork(); },
                                   [] { mutex().afterForkInParent(); },
                                   [] { static_cast<void>(mutex().afterForkInChild()); }));
}

}  // namespace qurn
