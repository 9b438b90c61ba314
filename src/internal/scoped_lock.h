// Guards of POSIX locks whose results nobody needs. The standard lock types have constructors and
// destructors of their own and so cannot live in records that are zeroed and initialised anew, and
// they throw where a lock cannot be taken.
#pragma once

#include <pthread.h>

namespace qurn {

template <typename Lock, int (*acquire)(Lock*), int (*release)(Lock*)>
class ScopedLock {
 public:
  explicit ScopedLock(Lock& lock) noexcept : lock_(lock), held_(acquire(&lock_) == 0) {}
  ~ScopedLock() {
    if (held_) {
      release(&lock_);
    }
  }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

 private:
  Lock& lock_;
  const bool held_;  // one that could not be taken may be another thread's
};

using MutexLock = ScopedLock<pthread_mutex_t, pthread_mutex_lock, pthread_mutex_unlock>;
using ReadLock = ScopedLock<pthread_rwlock_t, pthread_rwlock_rdlock, pthread_rwlock_unlock>;
using WriteLock = ScopedLock<pthread_rwlock_t, pthread_rwlock_wrlock, pthread_rwlock_unlock>;

}  // namespace qurn
