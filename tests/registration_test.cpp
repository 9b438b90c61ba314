// Registration, heartbeats and the stop of monitored threads, and the monitor's initialisation.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "support/faults.h"
#include "support/recording_platform.h"
#include "support/run_program.h"

namespace {

using Texts = std::vector<std::string>;

TEST(Registration, RefusesNull) {
  EXPECT_EQ(Frame_SetHeartbeatToMon(nullptr, 1, 1, 1), QURN_INVALID_ARGUMENT);
  EXPECT_EQ(Frame_SendHeartbeatToMon(nullptr), QURN_INVALID_ARGUMENT);
  EXPECT_EQ(Frame_StopHeartbeatToMon(nullptr), QURN_INVALID_ARGUMENT);
  EXPECT_EQ(Frame_RegDeadloopInfoHook(nullptr, nullptr), QURN_INVALID_ARGUMENT);
  EXPECT_EQ(FRAME_UpdateDeadloopThresholdByName(nullptr, 1, 2, 3), QURN_INVALID_ARGUMENT);
  EXPECT_EQ(recorded::count("Frame task deadloop detect, handle invalid."), 3U);
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

// Runs in a second process, whose library was loaded with a lock that could not be initialised.
TEST(Uninitialised, DISABLED_MonitorRefusesEverything) {
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
  EXPECT_EQ(recorded::texts(100), recorded::texts());
  fault::arm(fault::Call::RwlockInit, EAGAIN);
  EXPECT_EQ(FRAME_MntInit(), QURN_FAILED);
  EXPECT_EQ(recorded::texts(100).back(),
            "Frame task deadloop init unsuccessfully, ret=0xffffffff.");
  EXPECT_EQ(FRAME_TaskDeadloopInit(), QURN_OK) << "the whole initialisation is repeated";
  EXPECT_EQ(Frame_SetHeartbeatToMon(&self, 1, 2, 3), QURN_OK);
}

TEST(Monitor, RefusesEverythingUntilItsInitialisationHasSucceeded) {
  struct Lock {
    fault::Call call;
    int number;
    const char* name;
  };
  for (const Lock& lock : {Lock{fault::Call::RwlockInit, 0, "ctrl mutex"},
                           Lock{fault::Call::MutexInit, 63, "info mutex"}}) {
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    const ProgramRun run =
        runProgram("env " + std::string(fault::kAtLoadVariable) + "=" +
                   std::to_string(static_cast<int>(lock.call)) + ":" + std::to_string(lock.number) +
                   " " QURN_EMULATOR + self +
                   " --gtest_also_run_disabled_tests --gtest_filter=Uninitialised.*");
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_TRUE(run.has("[  PASSED  ] 1 test")) << run.output;
    const size_t init = run.at("Frame task deadloop ctrl init, " + std::string(lock.name) +
                               " init unsuccessfully. (errno: 11)");
    EXPECT_LT(init,
              run.at("Frame task deadloop init, ctrl init unsuccessfully. (ret = 0xffffffff)"));
  }
}

}  // namespace
