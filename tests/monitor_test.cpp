// The monitor beyond its model: real threads that are watched, end and are handled, its
// initialisation, the legacy heart calls, and dead-loop sections.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <tovplatform/stand_in.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <semaphore>
#include <utility>

#include "support/faults.h"
#include "support/recording_platform.h"
#include "support/run_program.h"
#include "support/silent_thread.h"

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

TEST(Registration, ARenewalFindsAndChangesItsRecordUnderOneHoldOfItsLock) {
  FrameDeadloopHandle self = 9;
  ASSERT_EQ(Frame_SetHeartbeatToMon(&self, 1, 2, 3), QURN_OK);
  const int locks = fault::calls("pthread_mutex_lock");
  ASSERT_EQ(Frame_SetHeartbeatToMon(&self, 1, 2, 3), QURN_OK);
  EXPECT_EQ(fault::calls("pthread_mutex_lock"), locks + 1);
}

TEST(Registration, KeepsThresholdsInMillisecondsAsFarAsTheyFit) {
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
  EXPECT_EQ(recorded::sourceLines(), recorded::lines().size()) << "each on a line of its own";
  EXPECT_EQ(recorded::count("hook unsuccessfully, deadloop monitor is not inited."), 2U);
  EXPECT_EQ(recorded::texts(100), recorded::texts());
  fault::arm("pthread_rwlock_init", EAGAIN);
  EXPECT_EQ(FRAME_MntInit(), QURN_FAILED);
  EXPECT_EQ(recorded::texts(100).back(),
            "Frame task deadloop init unsuccessfully, ret=0xffffffff.");
  EXPECT_EQ(FRAME_TaskDeadloopInit(), QURN_OK) << "the whole initialisation is repeated";
  EXPECT_EQ(Frame_SetHeartbeatToMon(&self, 1, 2, 3), QURN_OK);
}

TEST(Monitor, RefusesEverythingUntilItsInitialisationHasSucceeded) {
  struct Lock {
    const char* call;
    int number;
    const char* name;
  };
  for (const Lock& lock : {Lock{"pthread_rwlock_init", 0, "ctrl mutex"},
                           Lock{"pthread_mutex_init", 63, "info mutex"}}) {
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    const ProgramRun run =
        runProgram("env " + std::string(fault::kAtLoadVariable) + "=" +
                   std::to_string(lock.number) + ":" + lock.call + " " QURN_EMULATOR + self +
                   " --gtest_also_run_disabled_tests --gtest_filter=Uninitialised.*");
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_TRUE(run.has("[  PASSED  ] 1 test")) << run.output;
    const size_t init = run.at("Frame task deadloop ctrl init, " + std::string(lock.name) +
                               " init unsuccessfully. (errno: 11)");
    EXPECT_LT(init,
              run.at("Frame task deadloop init, ctrl init unsuccessfully. (ret = 0xffffffff)"));
  }
}

class DetectionPass : public testing::Test {
 protected:
  void SetUp() override {
    frozen_clock::start();
    ASSERT_EQ(FrameSetDeadloopPeriodDelay(1), QURN_OK) << "every heartbeat is due";
    ASSERT_EQ(FrameDeadloopInit(), QURN_OK);
    recorded::forget();
  }
  static void passAfter(int64_t milliseconds) {
    frozen_clock::advance(milliseconds);
    FRAME_TaskDeadloopMonitorEntry();
  }
};

uint32_t useTheWholeMonitor(FrameDeadloopHandle* handle, uint64_t threadId, uint32_t elapsedMs) {
  recorded::note("hook of slot " + std::to_string(*handle) + ": " + std::to_string(elapsedMs) +
                 (threadId == 0 ? " ms, no thread" : " ms"));
  FrameDeadloopHandle own = 0;
  EXPECT_EQ(Frame_SetHeartbeatToMon(&own, 1, 2, 3), QURN_OK);
  EXPECT_EQ(Frame_RegDeadloopInfoHook(&own, useTheWholeMonitor), QURN_OK);
  EXPECT_EQ(Frame_StopHeartbeatToMon(&own), QURN_OK);
  EXPECT_EQ(FrameSetDetectSwitch(*handle, 0), QURN_OK);
  EXPECT_EQ(Frame_SetHeartExceptionPolicy(*handle, 1), QURN_OK);
  EXPECT_EQ(FRAME_UpdateDeadloopThresholdByName("stuck", 5, 6, 7), QURN_OK);
  EXPECT_EQ(Frame_UnRegDeadloopInfoHook(handle), QURN_OK);
  Frame_RegThreadDeadloopWarningHook(nullptr);
  Frame_RegThreadDeadloopHook([](uint64_t, uint32_t, uint32_t silentMs, uint32_t policy) {
    recorded::note("process hook: " + std::to_string(silentMs) + " ms, policy " +
                   std::to_string(policy));
  });
  return 0;
}

TEST_F(DetectionPass, HooksRunBetweenHeartbeatsAndTheThreadsMayUseTheWholeMonitor) {
  SilentThread stuck("stuck", 2, 2, 2);
  Frame_RegDeadloopInfoHook(stuck.slot(), useTheWholeMonitor);
  const auto noteBeat = [](void*) -> uint32_t {
    recorded::note("keep-alive");
    return 0;
  };
  ASSERT_EQ(FRAME_KeepAliveProcSet(1, noteBeat, nullptr), QURN_OK);
  passAfter(2500);
  ASSERT_TRUE(
      eventually([] { return FrameGetDeadloopStatus() == FRAME_DEADLOOP_STATUS_CAPTURED; }));
  frozen_clock::advance(20000);
  recorded::forget();
  FrameWriteDeadloopInfo();
  EXPECT_EQ(recorded::events(),
            (Texts{"keep-alive", "keep-alive", "hook of slot 0: 2500 ms", "keep-alive",
                   "process hook: 2500 ms, policy 1", "keep-alive"}));
  const Texts said = recorded::texts(80);
  EXPECT_EQ(Texts(said.end() - 4, said.end()),
            (Texts{"Frame task deadloop detect, deadloop process hook start.",
                   "Frame task deadloop detect, deadloop process hook end.",
                   "Frame task deadloop detect, deadloop process global hook start.",
                   "Frame task deadloop detect, deadloop process global hook end."}));
}

TEST_F(DetectionPass, ARecordOfTheCallersOwnIsSignalledByItsPosixIdAloneAndNeverReleased) {
  FrameMonitorTaskInfo own{};
  own.ulThreadId = pthread_self();
  own.uiTid = 0x7FFFFFFF;  // nobody's
  fault::arm("pthread_kill", ESRCH);
  FrameFatalThresholdTimeoutAction(64, &own, 5);
  FrameDeadloopFatalAction();  // of a slot that is none
  EXPECT_EQ(own.ucTimeoutLevel, 3);
  EXPECT_EQ(recorded::count("Check thread exist"), 0U);
  FrameFatalThresholdTimeoutAction(0, &own, 5);
  EXPECT_TRUE(
      eventually([] { return FrameGetDeadloopStatus() == FRAME_DEADLOOP_STATUS_CAPTURED; }));
}

TEST_F(DetectionPass, AThreadThatEndsBeforeTheSignalReachesItIsReleasedAndPassesGoOn) {
  static SilentThread* leaving = nullptr;
  SilentThread first("first", 1, 1, 1);
  leaving = &first;
  fault::onStrike([] { leaving->end(); });
  fault::arm("pthread_kill", 0);  // as for a thread that ended: succeeds, sends nothing
  passAfter(1000);
  EXPECT_EQ(FrameGetDeadloopStatus(), FRAME_DEADLOOP_STATUS_SIGNALED);
  // The kernel may know a joined thread for a moment longer.
  EXPECT_TRUE(eventually([] {
    FRAME_TaskDeadloopMonitorEntry();
    return FrameGetDeadloopStatus() == FRAME_DEADLOOP_STATUS_IDLE;
  }));
  EXPECT_EQ(recorded::count("terminated"), 1U);
  SilentThread second("second", 1, 1, 1);
  fault::arm("pthread_kill", 0);
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

TEST_F(DetectionPass, AnEndedDetachedThreadIsReleasedAndItsIdentifierNeverUsed) {
  static DetachedThread* leaving = nullptr;
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

// How many threshold lines this pass writes after so much more silence.
size_t eventsAfter(int64_t milliseconds) {
  const size_t before = recorded::count("trigger");
  frozen_clock::advance(milliseconds);
  FRAME_TaskDeadloopMonitorEntry();
  return recorded::count("trigger") - before;
}

class Tuning : public testing::Test {
 protected:
  void SetUp() override {
    frozen_clock::start();
    ASSERT_EQ(FrameRegDeadloopCapability(), QURN_OK);
    recorded::forget();
  }
};

TEST_F(Tuning, SectionsAloneAreWatchedAndAThresholdIsReportedOnce) {
  EXPECT_EQ(FrameRegDeadloopCapability(), QURN_OK) << "already registered counts as success";
  onThread("section", [] {
    EXPECT_NE(TovStandInSectionRegister(3, 2, 1), QURN_OK);
    EXPECT_ERROR("Frame sdk deadloop register, set to monitor unsuccessfully.");
    EXPECT_ERROR("Section registration was refused.");
    ASSERT_EQ(TovStandInSectionRegister(2, 4, 9), QURN_OK);
    EXPECT_EQ(eventsAfter(60000), 0U) << "no section is open";
    TovStandInSectionOpen();
    EXPECT_EQ(eventsAfter(1999), 0U);
    TovStandInSectionOpen();
    EXPECT_EQ(eventsAfter(1), 1U) << "opening twice changes nothing";
    TovStandInSectionClose();
    EXPECT_EQ(eventsAfter(60000), 0U);
    TovStandInSectionOpen();
    EXPECT_EQ(eventsAfter(3999), 0U) << "the first threshold has been reported";
    EXPECT_EQ(eventsAfter(1), 1U);
    TovStandInSectionUnregister();
    EXPECT_EQ(recorded::count("sdk deadloop"), 1U);
  });
}

TEST_F(Tuning, SectionOperationsLogTheirFailures) {
  FrameBeginSdkDeadloop(3);
  FrameEndSdkDeadloop(3);
  FrameUnRegSdkDeadloop(3);
  EXPECT_EQ(FrameSetSdkDeadloopAction(3), QURN_FAILED);
  FrameDeadloopHandle handle = 0;
  const FrameSdkDeadloopParam param{0, 1, 2, 3};
  fault::arm("clock_gettime", EPERM, 1);  // the registration's own read succeeds
  EXPECT_EQ(FrameRegSdkDeadloop(&param, &handle), QURN_FAILED);
  for (const char* line : {"Frame sdk deadloop detect begin, set detect switch unsuccessfully.",
                           "Frame sdk deadloop detect end, set detect switch unsuccessfully.",
                           "Frame sdk deadloop unregister, stop monitor unsuccessfully.",
                           "Frame sdk deadloop register, set detect switch unsuccessfully."}) {
    EXPECT_ERROR(line);
  }
  EXPECT_EQ(Frame_StopHeartbeatToMon(&handle), QURN_OK) << "the registration stays";
}

TEST_F(Tuning, ASectionsActionIsTheFrameworksHookOfTheThreadOrTheProcessesEnd) {
  EXPECT_EXIT(FrameSdkDeadloopAction(nullptr, 1, 2), testing::ExitedWithCode(88), "code 88");
  ASSERT_EQ(TovStandInDeadloopHookSet(77,
                                      [](uint64_t threadId, uint32_t elapsedMs) {
                                        return static_cast<uint32_t>(threadId) + elapsedMs;
                                      }),
            QURN_OK);
  EXPECT_EQ(FrameSdkDeadloopAction(nullptr, 77, 1000), 1077U);
}

TEST_F(Tuning, TheFrameworksLogTextsKeepTheirLevel) {
  for (uint32_t level = 0; level < 4; ++level) {
    FrameDeadloopLogoutHook(level, "100%s");
  }
  EXPECT_EQ(recorded::texts(), Texts(3, "100%s"));
  EXPECT_EQ(recorded::texts(40).size() + recorded::texts(80).size(), 2U);
}

}  // namespace
