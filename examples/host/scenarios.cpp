#include "scenarios.h"

#include <legacy_component.h>
#include <malloc.h>
#include <pthread.h>
#include <qurnadapt/legacy_heart.h>
#include <tovplatform/stand_in.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>

namespace {

std::atomic<bool> g_rescued{false};
pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_otherLock = PTHREAD_MUTEX_INITIALIZER;
std::atomic<int> g_deadlocking{0};

void holdLock() { pthread_mutex_lock(&g_lock); }

uint32_t rescue(FrameDeadloopHandle* /*handle*/, uint64_t /*threadId*/, uint32_t elapsedMs) {
  std::printf("host: the worker's hook was told of %u ms of silence and breaks its loop\n",
              elapsedMs);
  std::fflush(stdout);
  g_rescued = true;
  return 0;
}

void rescueEarly(uint64_t /*threadId*/, uint32_t tid, uint32_t elapsedMs, uint32_t policy) {
  std::printf("host: warned of thread %u, silent for %u ms, policy %u\n", tid, elapsedMs, policy);
  std::fflush(stdout);
  g_rescued = true;
}

void setWarningHook() { Frame_RegThreadDeadloopWarningHook(rescueEarly); }

}  // namespace

// Plain exported names, as a report shows them.
extern "C" {

__attribute__((noinline)) void spin_until_rescued() {
  while (!g_rescued.load(std::memory_order_relaxed)) {
  }
}

__attribute__((noinline)) void wait_for_lock() {
  pthread_mutex_lock(&g_lock);
  pthread_mutex_unlock(&g_lock);
}

// Each of two workers has one lock when it asks for the other's.
__attribute__((noinline)) void take_locks(pthread_mutex_t* first, pthread_mutex_t* second) {
  pthread_mutex_lock(first);
  ++g_deadlocking;
  while (g_deadlocking < 2) {
  }
  pthread_mutex_lock(second);
  pthread_mutex_unlock(second);
  pthread_mutex_unlock(first);
}

__attribute__((noinline)) void sleep_in_the_kernel() {
  timespec rest{3600, 0};
  while (nanosleep(&rest, &rest) != 0) {
  }
}

// Runs while the allocator prints its statistics, that is with the lock of its main heap held.
__attribute__((noinline)) ssize_t spin_inside_the_allocator(void* /*cookie*/, const char* /*text*/,
                                                            size_t size) {
  spin_until_rescued();
  return static_cast<ssize_t>(size);
}

// ---- what a worker does; false ends it

bool keep_working(FrameDeadloopHandle& /*self*/) { return true; }

bool end_without_stopping(FrameDeadloopHandle& /*self*/) { return false; }

bool enter_a_loop(FrameDeadloopHandle& /*self*/) {
  spin_until_rescued();
  return true;
}

bool enter_a_loop_with_a_hook(FrameDeadloopHandle& self) {
  Frame_RegDeadloopInfoHook(&self, rescue);
  spin_until_rescued();
  // Registering again starts the silence and the thresholds anew.
  return Frame_SetHeartbeatToMon(&self, 1, 2, 3) == QURN_OK;
}

bool enter_a_loop_and_be_warned(FrameDeadloopHandle& self) {
  Frame_SetHeartExceptionPolicy(self, 1);
  spin_until_rescued();
  return true;
}

// Only sections count: the thread may be silent between them for as long as it likes.
bool hang_in_a_section(FrameDeadloopHandle& /*self*/) {
  if (TovStandInSectionRegister(1, 1, 1) != QURN_OK) {
    return false;
  }
  TovStandInSectionOpen();
  TovStandInSectionClose();
  sleep(3);
  TovStandInSectionOpen();
  spin_until_rescued();
  return true;
}

bool loop_in_a_legacy_component(FrameDeadloopHandle& /*self*/) {
  return loop_in_legacy_component();
}

bool run_a_legacy_component(FrameDeadloopHandle& self) {
  const bool good = run_legacy_component();
  uint64_t blocks = 0;
  uint64_t bytes = 0;
  TovStandInMemoryHeld(TOV_STAND_IN_ALL_HANDLES, &blocks, &bytes);
  std::printf("host: the component holds %llu blocks, %llu bytes\n",
              static_cast<unsigned long long>(blocks), static_cast<unsigned long long>(bytes));
  TovStandInMemoryPrint([](const char* line) -> uint32_t { return std::puts(line) < 0 ? 1 : 0; });
  std::fflush(stdout);
  return Frame_SetHeartbeatToMon(&self, 1, 2, 3) == QURN_OK && good;  // the component stopped it
}

bool ask_for_a_reboot(FrameDeadloopHandle& /*self*/) {
  ZotReboot();
  return true;
}

bool stop_the_process(FrameDeadloopHandle& /*self*/) {
  kill(getpid(), SIGSTOP);
  return true;
}

bool provoke_ignored_signals(FrameDeadloopHandle& /*self*/) {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) {
    return false;
  }
  close(ends[0]);
  const bool brokenPipe = write(ends[1], "x", 1) < 0 && errno == EPIPE;
  close(ends[1]);
  kill(getpid(), SIGHUP);
  std::printf("host: writing to the closed pipe %s, and still here after SIGHUP\n",
              brokenPipe ? "returned EPIPE" : "did not fail");
  std::fflush(stdout);
  return true;
}

bool block_on_a_lock(FrameDeadloopHandle& /*self*/) {
  wait_for_lock();
  return true;
}

// The first worker asks for the locks in one order, the next one in the other.
bool deadlock_with_the_next_worker(FrameDeadloopHandle& /*self*/) {
  static std::atomic<bool> isFirstHere{false};
  const bool isFirst = !isFirstHere.exchange(true);
  take_locks(isFirst ? &g_lock : &g_otherLock, isFirst ? &g_otherLock : &g_lock);
  return true;
}

bool block_in_the_kernel(FrameDeadloopHandle& /*self*/) {
  sleep_in_the_kernel();
  return true;
}

bool get_stuck_in_the_allocator(FrameDeadloopHandle& /*self*/) {
  const cookie_io_functions_t functions{nullptr, spin_inside_the_allocator, nullptr, nullptr};
  FILE* trap = fopencookie(nullptr, "w", functions);
  setvbuf(trap, nullptr, _IONBF, 0);
  stderr = trap;  // the statistics go there; the log keeps the stream it was set up with
  malloc_stats();
  return true;
}

}  // extern "C"

namespace {

constexpr std::array<Scenario, 16> kScenarios{{
    {"loop", "a worker enters an endless loop", QURN_EXIT_STATUS, "spin_until_rescued", nullptr,
     enter_a_loop},
    {"mutex", "a worker waits for a lock that is never released", QURN_EXIT_STATUS, "wait_for_lock",
     holdLock, block_on_a_lock},
    {"deadlock", "two workers take the same two locks in opposite orders", QURN_EXIT_STATUS,
     "take_locks", nullptr, deadlock_with_the_next_worker, 2},
    {"malloc", "a worker is stuck while it holds the allocator's lock", QURN_EXIT_STATUS,
     "spin_until_rescued", nullptr, get_stuck_in_the_allocator},
    {"sleep", "a worker stays in a system call", QURN_EXIT_STATUS, "sleep_in_the_kernel", nullptr,
     block_in_the_kernel},
    {"hook", "a worker's own dead-loop hook saves the process", 0, "spin_until_rescued", nullptr,
     enter_a_loop_with_a_hook},
    {"warn", "the process-wide warning hook breaks a worker's loop in time", 0, nullptr,
     setWarningHook, enter_a_loop_and_be_warned},
    {"sdk", "a worker hangs inside a dead-loop section", QURN_EXIT_STATUS, "spin_until_rescued",
     nullptr, hang_in_a_section},
    {"bridge", "a component written against the legacy calls is watched and saved", 0,
     "component_loop", nullptr, loop_in_a_legacy_component},
    {"component", "a component written against the legacy calls does its work and finalises", 0,
     nullptr, nullptr, run_a_legacy_component},
    {"reboot", "a worker asks for a reboot", QURN_EXIT_STATUS, nullptr, nullptr, ask_for_a_reboot},
    {"freeze", "the whole process is stopped, and its guard kills it", 128 + SIGKILL, nullptr,
     nullptr, stop_the_process},
    {"ignore", "signals that the configuration ignores do not disturb", 0, nullptr, nullptr,
     provoke_ignored_signals},
    {"exit", "a worker ends without stopping its heartbeat", 0, nullptr, nullptr,
     end_without_stopping},
    {"soak", "a thousand dead loops are handled by hooks, without growth", 0, nullptr,
     prepare_to_endure, endure_many_dead_loops},
    {"healthy", "all workers keep working", 0, nullptr, nullptr, keep_working},
}};

}  // namespace

std::span<const Scenario> scenarios() { return kScenarios; }
