// Detection among threads that end, are cancelled or get stuck where it hurts, and signals that
// nobody asked for.
#include <sys/syscall.h>

#include <semaphore>

#include "support/detection_pass.h"
#include "support/in_child.h"
#include "support/silent_thread.h"

namespace {

TEST_F(DetectionPass, OneEventHasOneActionWhoeverRaisesTheSignalAfterIt) {
  static std::atomic<int> actions{0};
  SilentThread stuck;
  Frame_RegDeadloopInfoHook(stuck.slot(), [](FrameDeadloopHandle*, uint64_t, uint32_t) -> uint32_t {
    return static_cast<uint32_t>(++actions);
  });
  passAfter(1000);
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(eventually(isCaptured));
    FrameWriteDeadloopInfo();
    EXPECT_EQ(actions, 1);
    stuck.interrupt();
  }
}

TEST_F(DetectionPass, ThatIsSuspendedSaysSoOnceAfterTenTicksAndTenSeconds) {
  SilentThread stuck;
  const std::string told = "Dead-loop signal not handled, detection suspended. (task [silent:" +
                           std::to_string(stuck.tid()) + "])";
  fault::arm("pthread_kill", 0);  // succeeds, sends nothing
  EXPECT_EQ(passAfter(1000), 3U);
  const auto ticks = [](int count, int64_t milliseconds) {
    for (int i = 0; i < count; ++i) {
      passAfter(milliseconds);
    }
    return recorded::texts(100).size() - 1;  // without the third threshold's
  };
  EXPECT_EQ(ticks(9, 2000), 0U);
  EXPECT_EQ(ticks(1, 0), 1U);
  EXPECT_EQ(ticks(20, 2000), 1U);
  EXPECT_ERROR(told);
}

// Somebody else raises the signal before each tick: only the second tick finds the thread's
// capture.
TEST_F(DetectionPass, GoesOnBesideStraySignalsAndTheirCapturesAreNoOnesReport) {
  SilentThread stuck;
  const auto tickAfterAStray = [](int64_t milliseconds) {
    frozen_clock::advance(milliseconds);
    recorded::forget();
    raise(SIGRTMIN + 2);
    FrameDeadloopDetectCallback(nullptr);
  };
  fault::arm("pthread_kill", 0);
  tickAfterAStray(1000);
  EXPECT_EQ(recorded::count("trigger third threshold"), 1U);
  raise(SIGRTMIN + 2);
  EXPECT_EQ(FrameGetDeadloopStatus(), FRAME_DEADLOOP_STATUS_SIGNALED) << "not for this one";
  stuck.interrupt();
  EXPECT_TRUE(eventually(isCaptured));
}

TEST_F(DetectionPass, AThreadThatEndsInItsHandlerLeavesTheRecordToTheNextOne) {
  if (kSanitizers == "thread") {
    GTEST_SKIP();  // it waits for the thread itself
  }
  SilentThread stuck;
  fault::arm("KEM_TaskStackInfoGet", EIO);
  fault::onStrike([] { syscall(SYS_exit, 0); });
  EXPECT_EQ(passAfter(1000), 3U);
  stuck.end();
  passAfter(0);
  raise(SIGRTMIN + 2);
  EXPECT_TRUE(isCaptured());
}

TEST_F(DetectionPass, AStrayCaptureUnderWayIsNotTakenForOneThatIsAskedForMeanwhile) {
  if (kSanitizers == "thread") {
    GTEST_SKIP();  // its handlers come late
  }
  SilentThread stuck;
  fault::arm("KEM_TaskStackInfoGet", EIO);
  fault::onStrike([] {
    passAfter(1000);
    EXPECT_TRUE(eventually([] { return sleeps() == 5; })) << "it waits its turn";
    std::thread([] {
      FrameDeadloopHandle self = 0;  // opens the signal, which a handler's threads are born without
      EXPECT_EQ(Frame_SetHeartbeatToMon(&self, 9, 9, 9), QURN_OK);
      raise(SIGRTMIN + 2);
    }).join();
    EXPECT_EQ(sleeps(), 5) << "nobody waits for this one's";
  });
  raise(SIGRTMIN + 2);
  EXPECT_EQ(FrameGetDeadloopStatus(), FRAME_DEADLOOP_STATUS_SIGNALED);
  stuck.interrupt();
  EXPECT_TRUE(eventually(isCaptured));
}

// Its heartbeat reads the clock under its own lock, and never comes back.
TEST_F(DetectionPass, IsNotHeldUpByAThreadStuckInItsHeartbeat) {
  static std::binary_semaphore isStuck{0};
  static std::binary_semaphore end{0};
  std::thread inside([] {
    FrameDeadloopHandle self = 0;
    ASSERT_EQ(Frame_SetHeartbeatToMon(&self, 1, 1, 1), QURN_OK);
    fault::arm("clock_gettime", EIO);
    fault::onStrike([] {
      isStuck.release();
      end.acquire();
    });
    Frame_SendHeartbeatToMon(&self);
    EXPECT_EQ(Frame_StopHeartbeatToMon(&self), QURN_OK);
  });
  isStuck.acquire();
  const SilentThread stuck;
  Frame_RegThreadDeadloopWarningHook([](uint64_t, uint32_t, uint32_t, uint32_t) {
    EXPECT_EQ(FRAME_UpdateDeadloopThresholdByName("silent", 1, 1, 1), QURN_OK);
  });
  EXPECT_EQ(passAfter(1000), 2U);
  Frame_RegThreadDeadloopWarningHook(nullptr);
  EXPECT_EQ(passAfter(1000), 3U);
  EXPECT_EQ(recorded::count("task [silent:"), 5U);
  end.release();
  inside.join();
}

// Where it would end the thread: in the log's writing, under a lock.
TEST_F(DetectionPass, AThreadThatIsCancelledLeavesNoLockBehind) {
  ASSERT_NE(nbb_handle_initialize(), 0U);
  pthread_t thread{};
  const auto body = [](void*) -> void* {
    const FrameDeadloopHandle nobodys = 5;
    pthread_cancel(pthread_self());
    EXPECT_EQ(Frame_StopHeartbeatToMon(&nobodys), QURN_FAILED);
    EXPECT_EQ(nbb_validate_handle(0), nullptr);
    EXPECT_EQ(FrameThreadDeadloopPrint(pthread_self()), QURN_OK);
    return nullptr;
  };
  recorded::watch([](const std::string&) { pthread_testcancel(); });
  ASSERT_EQ(pthread_create(&thread, nullptr, body, nullptr), 0);
  pthread_join(thread, nullptr);
  recorded::watch(nullptr);
  FrameDeadloopHandle self = 9;
  EXPECT_EQ(Frame_SetHeartbeatToMon(&self, 1, 2, 3), QURN_OK);
  EXPECT_NE(nbb_create_handle(&self), 0U);
  EXPECT_TRUE(isCaptured());
}

}  // namespace
