// A mutex that the thread which forks holds meanwhile, so that the child finds it free, and whole
// what it guards. It may be held for good, by a thread that is stuck or by the one that forks: a
// crash handler or a hook that starts a dumper must not hang for that. So the fork does not wait
// for long, and the child then gets a new mutex around what may be half changed.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <ctime>

#include "common/uncancellable.h"

namespace qurn {

inline void sleepAMillisecond() noexcept {
  const Uncancellable uncancellable;
  const timespec millisecond{0, 1'000'000};
  nanosleep(&millisecond, nullptr);
}

// How long one of a fork's handlers waits, for whatever it waits.
class ForkPatience {
 public:
  // Returns false, at once, when the time is over.
  bool waitAMillisecond() noexcept {
    if (leftMs_ == 0) {
      return false;
    }
    --leftMs_;
    sleepAMillisecond();
    return true;
  }

 private:
  int leftMs_ = 100;
};

class ForkMutex {
 public:
  // Other handlers of a fork, which were there first, run while ours hold it: it is theirs, too.
  void lock() noexcept {
    if (isHeldForFork()) {
      ++nestedLocks_;
      return;
    }
    pthread_mutex_lock(&mutex_);
    owner_.store(pthread_self(), std::memory_order_relaxed);
  }
  // Returns false where another thread keeps it for longer.
  bool lockFor(int64_t milliseconds) noexcept {
    if (isHeldForFork()) {
      ++nestedLocks_;
      return true;
    }
    if (pthread_mutex_trylock(&mutex_) != 0) {
      timespec end{};
      clock_gettime(CLOCK_REALTIME, &end);
      const int64_t nanoseconds = end.tv_nsec + milliseconds * 1'000'000;
      end = {end.tv_sec + nanoseconds / 1'000'000'000, nanoseconds % 1'000'000'000};
      if (pthread_mutex_timedlock(&mutex_, &end) != 0) {
        return false;
      }
    }
    owner_.store(pthread_self(), std::memory_order_relaxed);
    return true;
  }
  void unlock() noexcept {
    if (nestedLocks_ > 0) {
      --nestedLocks_;
      return;
    }
    owner_.store(0, std::memory_order_relaxed);
    pthread_mutex_unlock(&mutex_);
  }

  // From a signal handler, a thread may fork while it forks.
  void beforeFork(ForkPatience&& patience = {}) noexcept { beforeFork(patience); }
  void beforeFork(ForkPatience& patience) noexcept {
    if (owner_.load(std::memory_order_relaxed) == pthread_self()) {
      nestedForks_ += isHeldForFork() ? 1 : 0;
    } else if (lockWithin(patience)) {
      owner_.store(pthread_self(), std::memory_order_relaxed);
      forker_ = pthread_self();
    }
  }
  void afterForkInParent() noexcept {
    if (isHeldForFork()) {
      nestedForks_ == 0 ? release() : static_cast<void>(--nestedForks_);
    }
  }
  // Returns whether what it guards is whole.
  bool afterForkInChild() noexcept {
    nestedForks_ = 0;
    if (isHeldForFork()) {
      release();
      return true;
    }
    pthread_mutex_init(&mutex_, nullptr);
    owner_.store(0, std::memory_order_relaxed);
    forker_ = 0;
    nestedLocks_ = 0;
    return false;
  }

 private:
  bool lockWithin(ForkPatience& patience) noexcept {
    while (pthread_mutex_trylock(&mutex_) != 0) {
      if (!patience.waitAMillisecond()) {
        return false;
      }
    }
    return true;
  }

  bool isHeldForFork() const noexcept {
    return owner_.load(std::memory_order_relaxed) == pthread_self() && forker_ == pthread_self();
  }

  void release() noexcept {
    forker_ = 0;
    unlock();
  }

  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  std::atomic<pthread_t> owner_{0};
  // Written by the owner.
  pthread_t forker_ = 0;  // who holds it for a fork
  int nestedForks_ = 0;   // within that one
  int nestedLocks_ = 0;
};

// MUTEX is a function that returns one.
template <auto mutex>
void holdAcrossFork() noexcept {
  static_cast<void>(pthread_atfork([] { mutex().beforeFork(); },
                                   [] { mutex().afterForkInParent(); },
                                   [] { static_cast<void>(mutex().afterForkInChild()); }));
}

}  // namespace qurn
