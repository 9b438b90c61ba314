// Guards of POSIX locks whose results nobody needs. Usable on statically initialised locks, which
// standard lock types would also allow, but not in records that are zeroed and re-initialised.
#pragma once

#include <pthread.h>

namespace qurn {

class MutexLock {
 public:
  explicit MutexLock(pthread_mutex_t& mutex) noexcept : mutex_(mutex) {
    pthread_mutex_lock(&mutex_);
  }
  ~MutexLock() { pthread_mutex_unlock(&mutex_); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  pthread_mutex_t& mutex_;
};

class ReadLock {
 public:
  explicit ReadLock(pthread_rwlock_t& lock) noexcept : lock_(lock) {
    pthread_rwlock_rdlock(&lock_);
  }
  ~ReadLock() { pthread_rwlock_unlock(&lock_); }
  ReadLock(const ReadLock&) = delete;
  ReadLock& operator=(const ReadLock&) = delete;

 private:
  pthread_rwlock_t& lock_;
};

class WriteLock {
 public:
  explicit WriteLock(pthread_rwlock_t& lock) noexcept : lock_(lock) {
    pthread_rwlock_wrlock(&lock_);
  }
  ~WriteLock() { pthread_rwlock_unlock(&lock_); }
  WriteLock(const WriteLock&) = delete;
  WriteLock& operator=(const WriteLock&) = delete;

 private:
  pthread_rwlock_t& lock_;
};

}  // namespace qurn
