// Many dead loops in one process, each reported and handled by its thread's hook, and what
// the process holds after the first rounds and after the last.
#include <poll.h>
#include <qurnadapt/qurnadapt.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <mutex>
#include <thread>
#include <vector>

#include "scenarios.h"

namespace {

constexpr uint32_t kPeriodMs = 5;
constexpr int kThreads = 60;
#if defined(__SANITIZE_THREAD__)  // which takes some 40 ms in the kernel for each capture
constexpr int kRounds = 6;
#else
constexpr int kRounds = 17;
#endif
constexpr int kFirstRounds = 3;  // by then everything has been allocated once

std::array<std::atomic<bool>, FRAME_MONITOR_CAPACITY> g_handled;

// The hook's type is the interface's.
// NOLINTNEXTLINE(readability-non-const-parameter)
uint32_t release(FrameDeadloopHandle* handle, uint64_t /*threadId*/, uint32_t /*elapsedMs*/) {
  g_handled.at(*handle) = true;
  return 0;
}

// What a thread may be stuck in; the reports tell them apart. Each returns whether nothing came.
bool sleep_a_while() {
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  return true;
}

bool poll_a_while() { return poll(nullptr, 0, 20) == 0; }

bool wait_a_while() {
  static std::mutex mutex;
  static std::condition_variable never;
  std::unique_lock lock(mutex);
  return never.wait_for(lock, std::chrono::milliseconds(20)) == std::cv_status::timeout;
}

constexpr std::array<bool (*)(), 3> kWaysToBeStuck{sleep_a_while, poll_a_while, wait_a_while};

void be_silent_until_handled(size_t way) {
  FrameDeadloopHandle self = 0;
  if (Frame_SetHeartbeatToMon(&self, 1, 1, 1) != QURN_OK) {
    return;
  }
  g_handled.at(self) = false;
  Frame_RegDeadloopInfoHook(&self, release);
  while (!g_handled.at(self)) {
    static_cast<void>(kWaysToBeStuck.at(way)());
  }
  Frame_StopHeartbeatToMon(&self);
}

void runRounds(int count) {
  for (int round = 0; round < count; ++round) {
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (size_t i = 0; i < kThreads; ++i) {
      threads.emplace_back(be_silent_until_handled, i % kWaysToBeStuck.size());
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  }
}

auto entriesOf(const char* path) {
  const std::filesystem::directory_iterator entries(path);
  return std::distance(begin(entries), end(entries));
}

long residentKib() {
  FILE* status = std::fopen("/proc/self/status", "r");
  if (status == nullptr) {
    return 0;
  }
  long kib = 0;
  std::array<char, 256> line{};
  while (std::fgets(line.data(), line.size(), status) != nullptr) {
    static_cast<void>(std::sscanf(line.data(), "VmRSS: %ld", &kib));
  }
  std::fclose(status);
  return kib;
}

void printHoldings(int deadLoops) {
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // joined threads may linger
  std::printf("host: after %d dead loops: %ld KiB, %td descriptors, %td threads\n", deadLoops,
              residentKib(), entriesOf("/proc/self/fd"), entriesOf("/proc/self/task"));
  std::fflush(stdout);
}

}  // namespace

bool endure_many_dead_loops(FrameDeadloopHandle& self) {
  FrameSetDetectSwitch(self, 0);  // this thread only waits
  runRounds(kFirstRounds);
  printHoldings(kFirstRounds * kThreads);
  runRounds(kRounds - kFirstRounds);
  printHoldings(kRounds * kThreads);
  return FrameSetDetectSwitch(self, 1) == QURN_OK;
}

// One dead loop is handled a tick.
void prepare_to_endure() { FrameSetDeadloopPeriodDelay(kPeriodMs); }
