// hard_case NAME: runs one case, with detection passes ten times a second; or "stepped".
#include <pthread.h>
#include <qurnadapt/qurnadapt.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "hard_case.h"

namespace {

constexpr uint32_t kPeriodMs = 100;
constexpr unsigned kSilenceSeconds = 3;

const HardCase* g_case = nullptr;
std::atomic<int> g_beats{0};
std::atomic<int> g_hooksRun{0};
std::atomic<bool> g_go{false};  // the stage is set

uint32_t beat(void* /*unused*/) {
  ++g_beats;
  return 0;
}

uint32_t rescue(FrameDeadloopHandle* /*handle*/, uint64_t /*threadId*/, uint32_t /*elapsedMs*/) {
  if (++g_hooksRun == g_case->threads) {
    g_rescued = true;
  }
  return 0;
}

// Without a hook the library ends the process.
void* getStuck(void* /*unused*/) {
  while (!g_go) {
    usleep(1000);
  }
  FrameDeadloopHandle self = 0;
  Frame_SetHeartbeatToMon(&self, 1, 1, 1);
  if (g_case->end == HardCase::End::kRescued) {
    Frame_RegDeadloopInfoHook(&self, rescue);
  }
  g_case->stick();
  Frame_StopHeartbeatToMon(&self);
  return nullptr;
}

// Heartbeats must have come, and then come no more.
int waitForSilence() {
  int last = 0;
  do {
    last = g_beats;
    sleep(kSilenceSeconds);
  } while (last != g_beats);
  static constexpr char kLine[] = "the heartbeats stopped\n";
  static_cast<void>(!write(STDERR_FILENO, kLine, sizeof(kLine) - 1));
  _exit(last > 0 ? 0 : 1);
}

// Captures the thread again and again, with no detection thread to interfere.
int sample() {
  constexpr int kSamples = 300;
  pthread_t thread{};
  FrameDeadloopInit();
  pthread_create(
      &thread, nullptr,
      [](void*) -> void* {
        g_case->stick();
        return nullptr;
      },
      nullptr);
  usleep(100'000);
  for (int i = 0; i < kSamples; ++i) {
    usleep(static_cast<useconds_t>(rand() % 500));
    FrameThreadDeadloopPrint(thread);
    while (FrameGetDeadloopStatus() != FRAME_DEADLOOP_STATUS_CAPTURED) {
      sched_yield();
    }
    FrameWriteDeadloopInfo();
  }
  g_rescued = true;
  pthread_join(thread, nullptr);
  reportHandler();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && strcmp(argv[1], "stepped") == 0) {
    return stepThroughFunction();
  }
  for (const HardCase& one : hardCases()) {
    if (argc == 2 && strcmp(argv[1], one.name) == 0) {
      g_case = &one;
    }
  }
  if (g_case == nullptr) {
    return 2;
  }
  if (g_case->end == HardCase::End::kSampled) {
    return sample();
  }
  FrameSetDeadloopPeriodDelay(kPeriodMs);
  FRAME_KeepAliveProcSet(kPeriodMs, beat, nullptr);
  if (FRAME_MntInit() != QURN_OK) {
    return 1;
  }
  sleep(1);
  // Before the allocator may be locked for good.
  std::vector<pthread_t> threads(static_cast<size_t>(g_case->threads));
  for (pthread_t& thread : threads) {
    pthread_create(&thread, nullptr, getStuck, nullptr);
  }
  if (g_case->prepare != nullptr) {
    g_case->prepare();
  }
  g_go = true;
  if (g_case->threads == 0) {
    getStuck(nullptr);
  }
  if (g_case->end == HardCase::End::kSilenced) {
    return waitForSilence();
  }
  for (const pthread_t thread : threads) {
    pthread_join(thread, nullptr);
  }
  sleep(1);
  reportHandler();
  return 0;
}
