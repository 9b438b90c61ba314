#include "start_turns.h"

#include <pthread.h>
#include <qurnadapt/api.h>

#include <utility>

#include "internal/scoped_lock.h"

namespace qurn::mnt {
namespace {

// Stands on the stack of a thread that waits.
struct Waiter {
  uint32_t result;
  bool isServed;
  Waiter* next;
};

struct StartTurns {
  pthread_mutex_t lock;
  pthread_cond_t ended;
  bool isTaken;
  pthread_t runner;
  Waiter* waiters;
};

constinit StartTurns g_turns{PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, false, 0,
                             nullptr};

}  // namespace

bool takeStartTurn(uint32_t* result) noexcept {
  const MutexLock lock(g_turns.lock);
  if (!g_turns.isTaken) {
    g_turns.isTaken = true;
    g_turns.runner = pthread_self();
    return true;
  }
  if (pthread_equal(g_turns.runner, pthread_self()) != 0) {
    *result = QURN_FAILED;
    return false;
  }
  Waiter self{QURN_FAILED, false, g_turns.waiters};
  g_turns.waiters = &self;
  while (!self.isServed) {
    pthread_cond_wait(&g_turns.ended, &g_turns.lock);
  }
  *result = self.result;
  return false;
}

void endStartTurn(uint32_t result) noexcept {
  const MutexLock lock(g_turns.lock);
  g_turns.isTaken = false;
  for (Waiter* waiter = std::exchange(g_turns.waiters, nullptr); waiter != nullptr;
       waiter = waiter->next) {
    waiter->result = result;
    waiter->isServed = true;
  }
  pthread_cond_broadcast(&g_turns.ended);
}

void dropStartTurnAfterFork() noexcept {
  pthread_mutex_init(&g_turns.lock, nullptr);
  pthread_cond_init(&g_turns.ended, nullptr);
  g_turns.isTaken = false;
  g_turns.waiters = nullptr;
}

}  // namespace qurn::mnt
