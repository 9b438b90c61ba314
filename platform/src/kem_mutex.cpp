// Stands in for KEM mutexes: a 64-bit variable that holds the address of a heap-allocated mutex, or
// 0 while there is none.
#include <qurnadapt/platform.h>

#include <mutex>
#include <new>

namespace {
std::mutex* mutexIn(const uint64_t* variable) {
  return variable == nullptr ? nullptr : reinterpret_cast<std::mutex*>(*variable);
}
}  // namespace

extern "C" {

uint32_t KEM_MutexInit(uint64_t* mutex) {
  auto* created = mutex == nullptr ? nullptr : new (std::nothrow) std::mutex;
  if (created == nullptr) {
    return QURN_FAILED;
  }
  *mutex = reinterpret_cast<uint64_t>(created);
  return QURN_OK;
}

uint32_t KEM_MutexDestroy(uint64_t* mutex) {
  std::mutex* existing = mutexIn(mutex);
  if (existing == nullptr) {
    return QURN_FAILED;
  }
  *mutex = 0;
  delete existing;
  return QURN_OK;
}

uint32_t KEM_MutexLock(uint64_t* mutex) {
  std::mutex* existing = mutexIn(mutex);
  if (existing == nullptr) {
    return QURN_FAILED;
  }
  existing->lock();
  return QURN_OK;
}

uint32_t KEM_MutexUnlock(uint64_t* mutex) {
  std::mutex* existing = mutexIn(mutex);
  if (existing == nullptr) {
    return QURN_FAILED;
  }
  existing->unlock();
  return QURN_OK;
}

}  // extern "C"
