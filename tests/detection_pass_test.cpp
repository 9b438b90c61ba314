// The detection pass: thresholds, hooks, threads that ended, and the fatal action.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <semaphore>
#include <utility>

#include "support/faults.h"
#include "support/recording_platform.h"
#include "support/silent_thread.h"

namespace {

using Texts = std::vector<std::string>;

int g_keepAlives = 0;
uint32_t g_hookElapsedMs = 0;

uint32_t countKeepAlive(void* /*param*/) {
  ++g_keepAlives;
  return 0;
}

uint32_t threadHook(FrameDeadloopHandle* handle, uint64_t threadId, uint32_t elapsedMs) {
  g_hookElapsedMs = elapsedMs;
  recorded::note("hook of slot " + std::to_string(*handle) +
                 (threadId == 0 ? " without thread" : ""));
  return 0;
}

class DetectionPass : public testing::Test {
 protected:
  void SetUp() override {
    frozen_clock::start();
    ASSERT_EQ(FrameDeadloopInit(), QURN_OK);
    recorded::forget();
  }
  static void passAfter(int64_t milliseconds) {
    frozen_clock::advance(milliseconds);
    FRAME_TaskDeadloopMonitorEntry();
  }
  // What a tick does after its pass, once the handler has captured.
  static void report() {
    ASSERT_TRUE(
        eventually([] { return FrameGetDeadloopStatus() == FRAME_DEADLOOP_STATUS_CAPTURED; }));
    FrameWriteDeadloopInfo();
  }
};

TEST_F(DetectionPass, FatalHandlingRunsTheThreadsHookAndReportsKeepAliveTwice) {
  SilentThread stuck("stuck", 2, 2, 2);
  Frame_RegDeadloopInfoHook(stuck.slot(), threadHook);
  passAfter(2500);
  ASSERT_EQ(FRAME_KeepAliveProcSet(1, countKeepAlive, nullptr), QURN_OK);
  ASSERT_TRUE(
      eventually([] { return FrameGetDeadloopStatus() == FRAME_DEADLOOP_STATUS_CAPTURED; }));
  frozen_clock::advance(20000);
  recorded::forget();
  FrameDeadloopFatalAction();
  EXPECT_EQ(recorded::texts(80), (Texts{"Frame task deadloop detect, deadloop process hook start.",
                                        "Frame task deadloop detect, deadloop process hook end."}));
  EXPECT_EQ(recorded::events(), Texts{"hook of slot 0"});
  EXPECT_EQ(g_hookElapsedMs, 2500U);
  EXPECT_EQ(g_keepAlives, 1) << "the second report is not due yet";
}

uint32_t useTheWholeMonitor(FrameDeadloopHandle* handle, uint64_t /*threadId*/,
                            uint32_t /*elapsedMs*/) {
  FrameDeadloopHandle own = 0;
  EXPECT_EQ(Frame_SetHeartbeatToMon(&own, 1, 2, 3), QURN_OK);
  EXPECT_EQ(Frame_RegDeadloopInfoHook(&own, threadHook), QURN_OK);
  EXPECT_EQ(Frame_StopHeartbeatToMon(&own), QURN_OK);
  EXPECT_EQ(FrameSetDetectSwitch(*handle, 0), QURN_OK);
  EXPECT_EQ(Frame_SetHeartExceptionPolicy(*handle, 1), QURN_OK);
  EXPECT_EQ(FRAME_UpdateDeadloopThresholdByName("stuck", 5, 6, 7), QURN_OK);
  EXPECT_EQ(Frame_UnRegDeadloopInfoHook(handle), QURN_OK);
  Frame_RegThreadDeadloopWarningHook(nullptr);
  Frame_RegThreadDeadloopHook([](uint64_t, uint32_t, uint32_t elapsedMs, uint32_t policy) {
    recorded::note("process hook: " + std::to_string(elapsedMs) + " ms, policy " +
                   std::to_string(policy));
  });
  return 0;
}

TEST_F(DetectionPass, AThreadsHookMayUseTheWholeMonitorAndTheProcessHookSeesIt) {
  SilentThread stuck("stuck", 2, 2, 2);
  Frame_RegDeadloopInfoHook(stuck.slot(), useTheWholeMonitor);
  passAfter(2000);
  report();
  EXPECT_EQ(recorded::events(), Texts{"process hook: 2000 ms, policy 1"});
  EXPECT_EQ(recorded::texts(80)[recorded::texts(80).size() - 2],
            "Frame task deadloop detect, deadloop process global hook start.");
  EXPECT_EQ(recorded::texts(80).back(),
            "Frame task deadloop detect, deadloop process global hook end.");
}

TEST_F(DetectionPass, WithoutAHookTheProcessEndsWithStatus88) {
  EXPECT_EXIT(
      {
        SilentThread stuck("stuck", 1, 1, 1);
        passAfter(1000);
        report();
      },
      testing::ExitedWithCode(88),
      "Task.stuck. deadloop detected with no process hook, execute default strategy.");
  EXPECT_EXIT(ZotReboot(), testing::ExitedWithCode(88), "Frame reboot announce.");
}

TEST_F(DetectionPass, AThreadThatEndsBeforeTheSignalReachesItIsReleasedAndPassesGoOn) {
  static SilentThread* leaving = nullptr;
  SilentThread first("first", 1, 1, 1);
  leaving = &first;
  fault::onStrike([] { leaving->end(); });
  fault::arm(fault::Call::PthreadKill,
             0);  // succeeds, as for a thread that ended, and sends nothing
  passAfter(1000);
  EXPECT_EQ(FrameGetDeadloopStatus(), FRAME_DEADLOOP_STATUS_SIGNALED);
  // The kernel may know a joined thread for a moment longer.
  EXPECT_TRUE(eventually([] {
    FRAME_TaskDeadloopMonitorEntry();
    return FrameGetDeadloopStatus() == FRAME_DEADLOOP_STATUS_IDLE;
  }));
  EXPECT_EQ(recorded::count("terminated"), 1U);
  SilentThread second("second", 1, 1, 1);
  fault::arm(fault::Call::PthreadKill, 0);
  passAfter(1000);
  FRAME_TaskDeadloopMonitorEntry();  // it is there, and so may still be captured
  EXPECT_EQ(FrameGetDeadloopStatus(), FRAME_DEADLOOP_STATUS_SIGNALED);
}

#if !defined(__SANITIZE_THREAD__)  // which does not see such a thread end
// A detached thread on a stack of its own, which takes the thread's control block with it.
class DetachedThread {
 public:
  DetachedThread() {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, stack_, kStackBytes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread{};
    pthread_create(&thread, &attributes, main, this);
    registered_.acquire();
  }
  void endAndUnmap() {
    end_.release();
    ASSERT_TRUE(eventually([this] { return tgkill(getpid(), tid_, 0) != 0; }));
    munmap(stack_, kStackBytes);
  }

 private:
  static constexpr size_t kStackBytes = 1 << 20;
  static void* main(void* self) {
    auto& thread = *static_cast<DetachedThread*>(self);
    FrameDeadloopHandle slot = 0;
    EXPECT_EQ(Frame_SetHeartbeatToMon(&slot, 1, 1, 1), QURN_OK);
    thread.tid_ = gettid();
    thread.registered_.release();
    thread.end_.acquire();
    return nullptr;
  }

  void* stack_ =
      mmap(nullptr, kStackBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  std::atomic<pid_t> tid_{0};
  std::binary_semaphore registered_{0};
  std::binary_semaphore end_{0};
};

TEST(EndedDetachedThread, IsReleasedAndItsIdentifierNeverUsed) {
  static DetachedThread* leaving = nullptr;
  frozen_clock::start();
  ASSERT_EQ(FrameSetDeadloopPeriodDelay(1), QURN_OK) << "every heartbeat is due";
  ASSERT_EQ(FrameDeadloopInit(), QURN_OK);
  DetachedThread detached;
  leaving = &detached;
  const auto endOnceReported = [](void*) -> uint32_t {
    if (recorded::count("trigger third") != 0 && leaving != nullptr) {
      std::exchange(leaving, nullptr)->endAndUnmap();
    }
    return 0;
  };
  ASSERT_EQ(FRAME_KeepAliveProcSet(1, endOnceReported, nullptr), QURN_OK);
  frozen_clock::advance(1000);
  FRAME_TaskDeadloopMonitorEntry();
  EXPECT_EQ(leaving, nullptr);
  EXPECT_EQ(recorded::count("trigger third"), 1U);
  EXPECT_EQ(recorded::count("terminated"), 1U);
  EXPECT_EQ(FrameGetDeadloopStatus(), FRAME_DEADLOOP_STATUS_IDLE);
}
#endif

}  // namespace
