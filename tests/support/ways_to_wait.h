// How threads of the program that is stuck in every way wait for each other and in the kernel, told
// by their functions' names, which are the program's own.
#pragma once

#include <fcntl.h>
#include <linux/futex.h>
#include <linux/userfaultfd.h>
#include <netinet/in.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <future>
#include <latch>
#include <mutex>
#include <thread>

namespace {

std::latch g_kept{1};
std::latch g_two{2};
std::latch g_three{3};
std::latch g_waiting{1};
std::latch g_last{1};  // whose lock the others may need to get where they belong
pthread_rwlock_t g_written = PTHREAD_RWLOCK_INITIALIZER;
pthread_rwlock_t g_read = PTHREAD_RWLOCK_INITIALIZER;
pthread_once_t g_once = PTHREAD_ONCE_INIT;
pthread_mutex_t g_wakersMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_wakersCondition = PTHREAD_COND_INITIALIZER;

// Gets the faults at a page that nobody fills; -1 where that is not permitted. Those of user space
// alone need no right.
const int g_faults = static_cast<int>(syscall(SYS_userfaultfd, O_CLOEXEC | UFFD_USER_MODE_ONLY));

pthread_mutex_t mutexOf(int type, int protocol = PTHREAD_PRIO_NONE,
                        int robust = PTHREAD_MUTEX_STALLED) {
  pthread_mutexattr_t kind;
  pthread_mutexattr_init(&kind);
  pthread_mutexattr_settype(&kind, type);
  pthread_mutexattr_setprotocol(&kind, protocol);
  pthread_mutexattr_setrobust(&kind, robust);
  pthread_mutex_t mutex;
  pthread_mutex_init(&mutex, &kind);
  return mutex;
}

pthread_mutex_t g_mutexes[] = {
    mutexOf(PTHREAD_MUTEX_NORMAL),
    mutexOf(PTHREAD_MUTEX_RECURSIVE),
    mutexOf(PTHREAD_MUTEX_ERRORCHECK),
    mutexOf(PTHREAD_MUTEX_NORMAL),
    mutexOf(PTHREAD_MUTEX_NORMAL, PTHREAD_PRIO_INHERIT),
    mutexOf(PTHREAD_MUTEX_NORMAL, PTHREAD_PRIO_NONE, PTHREAD_MUTEX_ROBUST),
};
// Two, three, the joined one's, one that is left locked, and an outsider's.
pthread_mutex_t g_ring[8] = {};

void waitForEver() {
  for (;;) {
    pause();
  }
}

template <int Number>
void lockMutex() {
  pthread_mutex_lock(&g_mutexes[Number]);
}

template <int Own, int Next, auto& Others>
void lockInTurn() {
  pthread_mutex_lock(&g_ring[Own]);
  Others.arrive_and_wait();
  pthread_mutex_lock(&g_ring[Next]);
}

void lockTwice() {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_mutex_lock(&mutex);
  pthread_mutex_lock(&mutex);
}

timespec tomorrow() {
  timespec time{};
  clock_gettime(CLOCK_REALTIME, &time);
  time.tv_sec += 86400;
  return time;
}

// Such a name must not be taken for what is waited for.
void pthread_rejoin_free_rwlock_cond() {
  const timespec until = tomorrow();
  pthread_mutex_timedlock(&g_mutexes[3], &until);
}

void lockRobustTimed() {
  const timespec until = tomorrow();
  pthread_mutex_timedlock(&g_mutexes[5], &until);
}

void keep() {
  for (pthread_mutex_t& mutex : g_mutexes) {  // NOLINT: by reference
    pthread_mutex_lock(&mutex);
  }
  pthread_rwlock_wrlock(&g_written);
  pthread_rwlock_rdlock(&g_read);
  g_kept.count_down();
  pthread_once(&g_once, waitForEver);
}

// On a word that is not private, and waits under another number once it was interrupted.
void waitForFuture() { std::promise<int>().get_future().wait_for(std::chrono::hours(24)); }

void waitForCondition(const timespec& until) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  pthread_mutex_lock(&mutex);
  pthread_cond_timedwait(&condition, &mutex, &until);
}

void waitForWaker() {
  pthread_mutex_lock(&g_wakersMutex);
  g_waiting.count_down();
  pthread_cond_wait(&g_wakersCondition, &g_wakersMutex);  // woken, it wants the mutex
}

void wakeAndKeepMutex() {
  g_waiting.wait();
  pthread_mutex_lock(&g_wakersMutex);
  pthread_cond_signal(&g_wakersCondition);
  waitForEver();
}

// On a stack that may still show a wait that is over, at words that look like a mutex's.
[[gnu::noinline]] void waitForOwnLock() {
  asm volatile("" ::"r"(alloca(600)) : "memory");  // as the stack was left
  static const pid_t words[] = {2, 0, gettid(), 1};
  syscall(SYS_futex, words, FUTEX_WAIT_PRIVATE, 2, nullptr);
}

void waitForSemaphore() {
  sem_t semaphore;
  sem_init(&semaphore, 0, 0);
  sem_wait(&semaphore);
}

void readFrom(int descriptor) {
  uint64_t bytes = 0;
  [[maybe_unused]] const ssize_t length = read(descriptor, &bytes, sizeof(bytes));
}

void readPipe() {
  int ends[2] = {};
  readFrom(pipe(ends) == 0 ? ends[0] : -1);
}

void acceptSocket() {
  const int listening = socket(AF_INET, SOCK_STREAM, 0);
  listen(listening, 1);
  accept(listening, nullptr, nullptr);
}

// What an attach interrupts.
void waitForEvent() {
  epoll_event event{};
  const int set = epoll_create1(0);
  while (epoll_wait(set, &event, 1, 86'400'000) < 0) {
    std::puts("disturbed");
  }
}

void waitForSignal() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR2);
  const timespec day{86400, 0};
  while (sigtimedwait(&set, nullptr, &day) < 0) {
    std::puts("disturbed");
  }
}

void touchMissingPage() {
  const auto bytes = static_cast<size_t>(getpagesize());
  void* page = mmap(nullptr, bytes, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  uffdio_api api{UFFD_API, 0, 0};
  uffdio_register range{
      {reinterpret_cast<uintptr_t>(page), bytes}, UFFDIO_REGISTER_MODE_MISSING, 0};
  ioctl(g_faults, UFFDIO_API, &api);
  ioctl(g_faults, UFFDIO_REGISTER, &range);
  static_cast<void>(*static_cast<volatile char*>(page));
}

}  // namespace
