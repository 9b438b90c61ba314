// The monitor with all slots in use, while everything that may happen to them does; before the
// program runs; and what its hot paths cost.
#include <gtest/gtest.h>
#include <linux/seccomp.h>
#include <malloc.h>
#include <qurnadapt/qurnadapt.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <atomic>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "support/in_child.h"

extern "C" uint32_t early_answers;

namespace {

using namespace std::chrono_literals;

uint32_t goOn(FrameDeadloopHandle*, uint64_t, uint32_t) { return 0; }

// A thread's life in the monitor, over and over.
void workUntil(const std::stop_token& stop, unsigned seed) {
  std::minstd_rand generator(seed);
  const auto random = [&generator] { return static_cast<uint8_t>(generator() >> 4U); };
  prctl(PR_SET_NAME, ("load-" + std::to_string(seed % 8)).c_str());
  FrameDeadloopHandle self = 0;
  const std::function<void()> deeds[] = {
      [&] { EXPECT_EQ(FrameSetDetectSwitch(self, random() & 1U), QURN_OK); },
      [&] { EXPECT_EQ(Frame_RegDeadloopInfoHook(&self, goOn), QURN_OK); },
      [&] { EXPECT_EQ(Frame_SetHeartExceptionPolicy(self, random() & 1U), QURN_OK); },
      [] { FRAME_UpdateDeadloopThresholdByName("load-3", 100, 200, 300); },
      [] { Frame_RegThreadDeadloopWarningHook(nullptr); },
      [&] { EXPECT_EQ(Frame_SetHeartbeatToMon(&self, 200, 200, 200), QURN_OK); },
      [] { std::this_thread::sleep_for(1ms); },
      [] { std::this_thread::sleep_for(1ms); }};
  while (!stop.stop_requested()) {
    ASSERT_EQ(Frame_SetHeartbeatToMon(&self, 100, 200, 300), QURN_OK);
    for (int round = random() % 50; round > 0; --round) {
      ASSERT_EQ(Frame_SendHeartbeatToMon(&self), QURN_OK);
      deeds[random() % std::size(deeds)]();
    }
    ASSERT_EQ(Frame_StopHeartbeatToMon(&self), QURN_OK);
  }
}

std::atomic<uint32_t> g_beats{0};

TEST(Load, AllSlotsInUseUnderTicksEveryMillisecond) {
  ASSERT_EQ(FrameSetDeadloopPeriodDelay(1), QURN_OK);
  ASSERT_EQ(FRAME_KeepAliveProcSet(
                1, [](void*) -> uint32_t { return ++g_beats > 0 ? 0 : 1; }, nullptr),
            QURN_OK);
  ASSERT_EQ(FRAME_MntInit(), QURN_OK);
  std::vector<std::jthread> workers;
  for (unsigned i = 0; i < FRAME_MONITOR_CAPACITY; ++i) {
    workers.emplace_back(workUntil, i);
  }
  // A minute where a sanitizer looks on.
  std::this_thread::sleep_for(kSanitizers.empty() ? 3s : 60s);
  workers.clear();
  const uint32_t beats = g_beats;
  std::this_thread::sleep_for(1s);
  EXPECT_GT(g_beats, beats) << "the detection thread goes on";
  FrameDeadloopHandle self = 9;
  EXPECT_EQ(Frame_SetHeartbeatToMon(&self, 1, 2, 3), QURN_OK);
  EXPECT_EQ(self, 0U) << "all slots are free again";
}

TEST(Load, AComponentsConstructorCanRegisterItsThread) { EXPECT_EQ(early_answers, QURN_OK); }

// In strict mode any system call but read, write and exit ends the process, a sanitizer's too.
TEST(HotPaths, MakeNoSystemCallAndAllocateNothing) {
  if (!kSanitizers.empty()) {
    GTEST_SKIP();
  }
  ASSERT_EQ(FrameDeadloopInit(), QURN_OK);
  ASSERT_NE(nbb_handle_initialize(), 0U);
  FrameDeadloopHandle self = 0;
  ASSERT_EQ(Frame_SetHeartbeatToMon(&self, 1000, 1000, 1000), QURN_OK);
  const uint32_t handle = nbb_create_handle(&self);
  EXPECT_TRUE(inChild([&] {
    const size_t allocated = mallinfo2().uordblks;
    prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT);
    bool good = true;
    for (int i = 0; i < 1000; ++i) {
      FRAME_TaskDeadloopMonitorEntry();
      FRAME_KeepAliveReport();
      good = good && Frame_SendHeartbeatToMon(&self) == QURN_OK &&
             nbb_validate_handle(handle) == &self;
    }
    return syscall(SYS_exit, good && mallinfo2().uordblks == allocated ? 0 : 1) == 0;
  }));
}

}  // namespace
