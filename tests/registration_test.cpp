// Registration, heartbeats and the stop of monitored threads, and the monitor's initialisation.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <barrier>
#include <cerrno>
#include <cstdlib>
#include <thread>

#include "support/faults.h"
#include "support/recording_platform.h"

namespace {

using Texts = std::vector<std::string>;

// Threads that stay registered until they are told to end.
class Registered {
 public:
  explicit Registered(ptrdiff_t count) : start_(count + 1), end_(count + 1) {
    for (ptrdiff_t i = 0; i < count; ++i) {
      threads_.emplace_back([this, i] {
        FrameDeadloopHandle self = FRAME_MONITOR_CAPACITY;
        EXPECT_EQ(Frame_SetHeartbeatToMon(&self, 1, 2, 3), QURN_OK);
        slots_[i] = self;
        start_.arrive_and_wait();
        end_.arrive_and_wait();
        EXPECT_EQ(Frame_StopHeartbeatToMon(&self), QURN_OK);
      });
    }
    start_.arrive_and_wait();
  }
  ~Registered() {
    end_.arrive_and_wait();
    for (std::thread& thread : threads_) {
      thread.join();
    }
  }
  [[nodiscard]] uint64_t slot(size_t i) const { return slots_[i]; }

 private:
  std::barrier<> start_;
  std::barrier<> end_;
  uint64_t slots_[FRAME_MONITOR_CAPACITY] = {};
  std::vector<std::thread> threads_;
};

TEST(Registration, RefusesBadThresholdsAndHandles) {
  FrameDeadloopHandle self = 7;
  const uint32_t bad[][3] = {{0, 5, 10}, {5, 4, 10}, {5, 10, 9}, {1, 0, 1}, {1, 1, 0}};
  for (const auto& [first, second, third] : bad) {
    EXPECT_EQ(Frame_SetHeartbeatToMon(&self, first, second, third), QURN_INVALID_ARGUMENT);
  }
  EXPECT_EQ(self, 7U);
  EXPECT_ERROR(
      "Frame task deadloop detect, threshold invalid. (first threshold = 5, "
      "second threshold = 4, third threshold = 10)");
  EXPECT_EQ(recorded::count("Set heartbeat param unsuccessfully, param invalid."), 5U);
  EXPECT_EQ(Frame_SetHeartbeatToMon(nullptr, 1, 1, 1), QURN_INVALID_ARGUMENT);
  EXPECT_EQ(Frame_SetHeartbeatToMon(&self, 1, 1, 1), QURN_OK);

  recorded::forget();
  const FrameDeadloopHandle outside = 64;
  for (const FrameDeadloopHandle* handle : {&outside, static_cast<const uint64_t*>(nullptr)}) {
    EXPECT_EQ(Frame_SendHeartbeatToMon(handle), QURN_INVALID_ARGUMENT);
    EXPECT_EQ(Frame_StopHeartbeatToMon(handle), QURN_INVALID_ARGUMENT);
    EXPECT_EQ(Frame_RegDeadloopInfoHook(handle, nullptr), QURN_INVALID_ARGUMENT);
  }
  EXPECT_EQ(recorded::count("Frame task deadloop detect, handle invalid."), 6U);
  EXPECT_EQ(recorded::count("Send heartbeat unsuccessfully, input handle invalid."), 2U);
  EXPECT_EQ(recorded::count("Stop heartbeat unsuccessfully, input handle invalid."), 2U);
}

TEST(Registration, TakesTheLowestFreeSlotAndKeepsTheCallersOwn) {
  FrameDeadloopHandle self = 9;
  ASSERT_EQ(Frame_SetHeartbeatToMon(&self, 1, 2, 3), QURN_OK);
  EXPECT_EQ(self, 0U);
  Registered other(1);
  EXPECT_EQ(other.slot(0), 1U);
  FrameDeadloopHandle again = 9;
  EXPECT_EQ(Frame_SetHeartbeatToMon(&again, 4, 5, 6), QURN_OK);
  EXPECT_EQ(again, 0U);
  EXPECT_EQ(Frame_StopHeartbeatToMon(&self), QURN_OK);
  EXPECT_EQ(Registered(1).slot(0), 0U) << "slot 0 is free again, 1 is not";
  EXPECT_TRUE(recorded::texts(100).empty());
}

TEST(Registration, The65thThreadIsRefusedAndAFreedSlotServesAgain) {
  Registered table(FRAME_MONITOR_CAPACITY);
  FrameDeadloopHandle self = 77;
  EXPECT_EQ(Frame_SetHeartbeatToMon(&self, 1, 2, 3), QURN_FAILED);
  EXPECT_EQ(self, 77U);
  EXPECT_EQ(recorded::texts(100),
            (Texts{"Frame set monitor task info, monitor task out of bounds. (max = 64)",
                   "Set heartbeat param unsuccessfully, set param unsuccessfully."}));
}

TEST(Registration, OnlyTheOwnerSendsHeartbeatsAndStops) {
  Registered other(1);
  const FrameDeadloopHandle theirs = other.slot(0);
  EXPECT_EQ(Frame_SendHeartbeatToMon(&theirs), QURN_INVALID_ARGUMENT);
  EXPECT_EQ(Frame_StopHeartbeatToMon(&theirs), QURN_FAILED);
  EXPECT_EQ(recorded::texts(100),
            (Texts{"Send heartbeat unsuccessfully, handle not match.",
                   "Frame remove monitor task info, handle not match.",
                   "Stop heartbeat unsuccessfully, monitor task not exist."}));
  const FrameDeadloopHandle nobodys = 5;
  EXPECT_EQ(Frame_StopHeartbeatToMon(&nobodys), QURN_FAILED);
  EXPECT_EQ(Frame_RegDeadloopInfoHook(&nobodys, nullptr), QURN_FAILED);
  EXPECT_ERROR("Register task deadloop hook, deadloop monitor node not exist.");
}

TEST(Registration, FailuresHaveTheirLineAndLeaveTheHandleAlone) {
  struct Case {
    fault::Call call;
    bool registered;
    const char* message;
    const char* callersMessage;
  };
  const Case cases[] = {
      {fault::Call::Prctl, false,
       "Frame add monitor task info, monitor task name set unsuccessfully. (errno: 1)",
       "Frame set monitor task info, add monitor task unsuccessfully."},
      {fault::Call::ClockGettime, false,
       "Frame update monitor task info, get current time unsuccessfully. (errno: 1)",
       "Frame add monitor task info, task key info set unsuccessfully."},
      {fault::Call::ClockGettime, true,
       "Frame update monitor task info, get current time unsuccessfully. (errno: 1)",
       "Frame set monitor task info, task key info update unsuccessfully."},
  };
  for (const Case& step : cases) {
    recorded::forget();
    FrameDeadloopHandle self = 0;
    if (step.registered) {
      ASSERT_EQ(Frame_SetHeartbeatToMon(&self, 1, 2, 3), QURN_OK);
    }
    self = 33;
    fault::arm(step.call, EPERM);
    EXPECT_EQ(Frame_SetHeartbeatToMon(&self, 1, 2, 3), QURN_FAILED);
    EXPECT_EQ(self, 33U);
    const Texts lines = recorded::texts(100);
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ(lines[0], step.message);
    EXPECT_EQ(lines[1], step.callersMessage);
  }
  const FrameDeadloopHandle self = 0;
  fault::arm(fault::Call::ClockGettime, EPERM);
  EXPECT_EQ(Frame_SendHeartbeatToMon(&self), QURN_FAILED);
  EXPECT_ERROR("Send heartbeat unsuccessfully, update detect time unsuccessfully. (errno: 1)");
  fault::arm(fault::Call::MemsetS, EPERM);
  EXPECT_EQ(Frame_StopHeartbeatToMon(&self), QURN_FAILED);
  EXPECT_ERROR("Frame remove monitor task info, task info reset unsuccessfully. (errno: 1)");
}

TEST(Registration, AFailingNodeLockIsLoggedAndTheHeartbeatGoesOn) {
  FrameDeadloopHandle self = 0;
  ASSERT_EQ(Frame_SetHeartbeatToMon(&self, 1, 2, 3), QURN_OK);
  fault::arm(fault::Call::MutexLock, EDEADLK);
  EXPECT_EQ(Frame_SendHeartbeatToMon(&self), QURN_OK);
  fault::arm(fault::Call::MutexUnlock, EPERM);
  EXPECT_EQ(Frame_SendHeartbeatToMon(&self), QURN_OK);
  EXPECT_ERROR("Frame task deadloop lock mistake, errno(35).");
  EXPECT_ERROR("Frame task deadloop unlock mistake errno(1).");
}

TEST(Registration, FillsARecordWithMillisecondsAndTheThreadsIdentity) {
  const std::pair<uint32_t, uint32_t> thresholds[] = {
      {1, 1000}, {4294966, 4294966000}, {4294967, 0xFFFFFFFF}, {0xFFFFFFFF, 0xFFFFFFFF}};
  for (const auto& [seconds, milliseconds] : thresholds) {
    FrameMonitorTaskInfo info{};
    info.ucTimeoutLevel = 2;
    ASSERT_EQ(FrameUpdateMonitorTaskKeyInfo(&info, seconds, seconds, seconds), QURN_OK);
    EXPECT_EQ(info.uiFirstThreshold, milliseconds);
    EXPECT_EQ(info.uiThirdThreshold, milliseconds);
    EXPECT_EQ(info.ucTimeoutLevel, 0);
  }
}

TEST(HeartBridge, ReachesTheMonitorFromTheLoadOnAndKeepsItsSetWhole) {
  FrameDeadloopHandle self = 9;
  ASSERT_EQ(ZOT_SetHeartMon(&self, 1, 2, 3), QURN_OK);
  EXPECT_TRUE(recorded::has(
      40, "ZOT set heart monitor of thread (" + std::to_string(pthread_self()) + ")."));
  EXPECT_EQ(FRAME_TaskDeadloopInit(), QURN_OK) << "a second initialisation changes nothing";
  EXPECT_EQ(ZOT_SendHeartToMon(&self), QURN_OK);
  EXPECT_EQ(ZOT_RegThreadDeadloopHook(&self, nullptr), QURN_OK);

  const TovHeartFunSet full = g_stTovHeartFunSet;
  TovHeartFunSet incomplete = full;
  incomplete.pfnReboot = nullptr;
  EXPECT_EQ(ZotHeartFunReg(&incomplete), QURN_FAILED);
  EXPECT_EQ(ZotHeartFunReg(nullptr), QURN_FAILED);
  EXPECT_EQ(ZOT_SendHeartToMon(&self), QURN_OK);
  EXPECT_EQ(ZOT_StopHeartToMon(&self), QURN_OK);

  recorded::forget();
  g_stTovHeartFunSet = {};
  EXPECT_EQ(ZOT_SetHeartMon(&self, 1, 2, 3), QURN_FAILED);
  EXPECT_EQ(ZOT_SendHeartToMon(&self), QURN_FAILED);
  EXPECT_EQ(ZOT_StopHeartToMon(&self), QURN_FAILED);
  EXPECT_EQ(ZOT_RegThreadDeadloopHook(&self, nullptr), QURN_FAILED);
  ZotReboot();
  EXPECT_EQ(recorded::lines().size(), 1U) << "the registration's line";
  EXPECT_EQ(ZotHeartFunReg(&full), QURN_OK);
  EXPECT_EQ(ZOT_SetHeartMon(&self, 1, 2, 3), QURN_OK);
}

// In the second process, whose library was loaded with a lock that could not be initialised.
void expectUninitialisedMonitor(const std::string& loadMessage) {
  EXPECT_EQ(recorded::texts(100),
            (Texts{loadMessage,
                   "Frame task deadloop init, ctrl init unsuccessfully. (ret = "
                   "0xffffffff)"}));
  FrameDeadloopHandle self = 0;
  EXPECT_EQ(Frame_SetHeartbeatToMon(&self, 1, 2, 3), QURN_FAILED);
  EXPECT_EQ(Frame_SendHeartbeatToMon(&self), QURN_FAILED);
  EXPECT_EQ(Frame_StopHeartbeatToMon(&self), QURN_FAILED);
  EXPECT_EQ(Frame_RegDeadloopInfoHook(&self, nullptr), QURN_FAILED);
  EXPECT_EQ(Frame_SetHeartExceptionPolicy(0, 0), QURN_FAILED);
  EXPECT_EQ(FRAME_UpdateDeadloopThresholdByName("any", 1, 2, 3), QURN_FAILED);
  EXPECT_EQ(FrameSetDetectSwitch(0, 1), QURN_FAILED);
  Frame_RegThreadDeadloopWarningHook(nullptr);
  Frame_RegThreadDeadloopHook(nullptr);
  FRAME_TaskDeadloopMonitorEntry();
  FrameDeadloopFatalAction();
  EXPECT_EQ(recorded::count("deadloop monitor not init."), 7U);
  EXPECT_EQ(recorded::count("hook unsuccessfully, deadloop monitor is not inited."), 2U);
  fault::arm(fault::Call::RwlockInit, EAGAIN);
  EXPECT_EQ(FRAME_MntInit(), QURN_FAILED);
  EXPECT_EQ(recorded::texts(100).back(),
            "Frame task deadloop init unsuccessfully, ret=0xffffffff.");
  EXPECT_EQ(FRAME_TaskDeadloopInit(), QURN_OK) << "the whole initialisation is repeated";
  EXPECT_EQ(Frame_SetHeartbeatToMon(&self, 1, 2, 3), QURN_OK);
  _exit(testing::Test::HasFailure() ? 1 : 0);
}

TEST(Monitor, RefusesEverythingUntilItsInitialisationHasSucceeded) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";  // starts the program anew
  const auto atLoad = [](fault::Call call, int after) {
    const std::string text = std::to_string(static_cast<int>(call)) + ":" + std::to_string(after);
    setenv(fault::kAtLoadVariable, text.c_str(), 1);
  };
  atLoad(fault::Call::RwlockInit, 0);
  EXPECT_EXIT(expectUninitialisedMonitor("Frame task deadloop ctrl init, ctrl mutex init "
                                         "unsuccessfully. (errno: 11)"),
              testing::ExitedWithCode(0), "");
  atLoad(fault::Call::MutexInit, 63);
  EXPECT_EXIT(expectUninitialisedMonitor("Frame task deadloop ctrl init, info mutex init "
                                         "unsuccessfully. (errno: 11)"),
              testing::ExitedWithCode(0), "");
}

// For ThreadSanitizer: everything that may happen to the table at once.
TEST(Monitor, RegistrationsHeartbeatsStopsAndPassesMayOverlap) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> workers;
  for (int i = 0; i < 6; ++i) {
    workers.emplace_back([&] {
      while (!stop) {
        FrameDeadloopHandle self = 0;
        EXPECT_EQ(Frame_SetHeartbeatToMon(&self, 100, 200, 300), QURN_OK);
        for (int beat = 0; beat < 20; ++beat) {
          EXPECT_EQ(Frame_SendHeartbeatToMon(&self), QURN_OK);
          EXPECT_EQ(Frame_UnRegDeadloopInfoHook(&self), QURN_OK);
          EXPECT_EQ(FrameSetDetectSwitch(self, beat % 2 == 0 ? 0 : 1), QURN_OK);
          EXPECT_EQ(Frame_SetHeartExceptionPolicy(self, 1), QURN_OK);
        }
        Frame_RegThreadDeadloopWarningHook(nullptr);
        Frame_RegThreadDeadloopHook(nullptr);
        EXPECT_EQ(FRAME_UpdateDeadloopThresholdByName("library_test", 7, 8, 9), QURN_OK);
        EXPECT_EQ(Frame_StopHeartbeatToMon(&self), QURN_OK);
      }
    });
  }
  for (int pass = 0; pass < 500; ++pass) {
    FRAME_TaskDeadloopMonitorEntry();
    FrameDeadloopFatalAction();
  }
  stop = true;
  for (std::thread& worker : workers) {
    worker.join();
  }
  EXPECT_TRUE(recorded::texts(100).empty());
}

}  // namespace
