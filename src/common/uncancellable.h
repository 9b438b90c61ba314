// Puts a cancellation of the calling thread off for a scope: one that ended it in the middle would
// leave a lock held, or others waiting for it, for good.
#pragma once

#include <pthread.h>

namespace qurn {

class Uncancellable {
 public:
  Uncancellable() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~Uncancellable() { pthread_setcancelstate(before_, nullptr); }
  Uncancellable(const Uncancellable&) = delete;
  Uncancellable& operator=(const Uncancellable&) = delete;

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace qurn
