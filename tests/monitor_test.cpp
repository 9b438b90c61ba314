// The monitor beyond its model: real threads that are watched, end and are handled, its
// initialisation, the legacy heart calls, and dead-loop sections.
#include <barrier>
#include <filesystem>
#include <semaphore>

#include "support/detection_pass.h"
#include "support/in_child.h"
#include "support/library_test.h"
#include "support/run_program.h"
#include "support/silent_thread.h"

namespace {

Codes useTheMonitor(FrameDeadloopHandle* handle, const char* name) {
  return {Frame_SetHeartbeatToMon(handle, 1, 2, 3), Frame_SendHeartbeatToMon(handle),
          Frame_RegDeadloopInfoHook(handle, nullptr), Frame_StopHeartbeatToMon(handle),
          FRAME_UpdateDeadloopThresholdByName(name, 1, 2, 3)};
}

Codes useTheHeartBridge(FrameDeadloopHandle* handle) {
  return {ZOT_SetHeartMon(handle, 1, 2, 3), ZOT_SendHeartToMon(handle),
          ZOT_RegThreadDeadloopHook(handle, nullptr), ZOT_StopHeartToMon(handle)};
}

TEST(Registration, ARenewalFindsAndChangesItsRecordUnderOneHoldOfItsLock) {
  FrameDeadloopHandle self = 9;
  ASSERT_EQ(Frame_SetHeartbeatToMon(&self, 1, 2, 3), QURN_OK);
  const int locks = fault::calls("pthread_mutex_lock");
  ASSERT_EQ(Frame_SetHeartbeatToMon(&self, 1, 2, 3), QURN_OK);
  EXPECT_EQ(fault::calls("pthread_mutex_lock"), locks + 1);
}

TEST(Registration, InProgressIsWaitedForByHeartbeatsAndChanges) {
  static std::binary_semaphore goesOn{0};
  static std::binary_semaphore isRegistered{0};
  static std::atomic<int> done{0};
  std::thread other([] {
    FrameDeadloopHandle own = 0;
    EXPECT_EQ(Frame_SetHeartbeatToMon(&own, 1, 2, 3), QURN_OK);
    isRegistered.release();
    goesOn.acquire();
    EXPECT_EQ(Frame_SendHeartbeatToMon(&own), QURN_OK);
    EXPECT_EQ(++done, 1);
    EXPECT_EQ(FrameSetDetectSwitch(own, 0), QURN_OK);
    EXPECT_EQ(++done, 2);
  });
  isRegistered.acquire();
  fault::arm("clock_gettime", EPERM);
  fault::onStrike([] {
    goesOn.release();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(done, 0);
  });
  FrameDeadloopHandle self = 0;
  EXPECT_EQ(Frame_SetHeartbeatToMon(&self, 1, 2, 3), QURN_FAILED);
  other.join();
}

TEST(Registration, RefusesNullAndKeepsThresholdsInMillisecondsAsFarAsTheyFit) {
  EXPECT_EQ(useTheMonitor(nullptr, nullptr), Codes(5, QURN_INVALID_ARGUMENT));
  EXPECT_EQ(recorded::count("Frame task deadloop detect, handle invalid."), 3U);
  const std::pair<uint32_t, uint32_t> thresholds[] = {
      {1, 1000}, {4294966, 4294966000}, {4294967, 0xFFFFFFFF}, {0xFFFFFFFF, 0xFFFFFFFF}};
  for (const auto& [seconds, milliseconds] : thresholds) {
    FrameMonitorTaskInfo info{};
    info.ucTimeoutLevel = 2;
    ASSERT_EQ(FrameUpdateMonitorTaskKeyInfo(&info, seconds, seconds, seconds), QURN_OK);
    EXPECT_CODES((Codes{milliseconds, milliseconds, 0}), info.uiFirstThreshold,
                 info.uiThirdThreshold, info.ucTimeoutLevel);
  }
}

TEST(HeartBridge, ReachesTheMonitorFromTheLoadOnAndKeepsItsSetWhole) {
  FrameDeadloopHandle self = 9;
  EXPECT_EQ(useTheHeartBridge(&self), Codes(4, QURN_OK));
  EXPECT_TEXTS(40, "ZOT set heart monitor of thread (" + std::to_string(pthread_self()) + ").");
  EXPECT_CODES(Codes(3, 0), ZOT_SetHeartMon(&self, 1, 2, 3), FRAME_TaskDeadloopInit(),
               ZOT_SendHeartToMon(&self))
      << "a second initialisation changes nothing";

  const TovHeartFunSet full = g_stTovHeartFunSet;
  EXPECT_EQ(ZotHeartFunReg(nullptr), QURN_FAILED);
  for (size_t missing = 0; missing < sizeof(full); missing += sizeof(void*)) {
    TovHeartFunSet incomplete = full;
    memset(reinterpret_cast<char*>(&incomplete) + missing, 0, sizeof(void*));
    EXPECT_EQ(ZotHeartFunReg(&incomplete), QURN_FAILED) << missing;
  }
  EXPECT_EQ(useTheHeartBridge(&self), Codes(4, QURN_OK));

  recorded::forget();
  g_stTovHeartFunSet = {};
  EXPECT_EQ(useTheHeartBridge(&self), Codes(4, QURN_FAILED));
  ZotReboot();
  EXPECT_EQ(recorded::lines().size(), 1U) << "the registration's line";
  EXPECT_EQ(ZotHeartFunReg(&full), QURN_OK);
  EXPECT_EQ(useTheHeartBridge(&self), Codes(4, QURN_OK));
}

// Runs in a second process, whose library was loaded with a lock that could not be initialised.
TEST(Uninitialised, DISABLED_MonitorRefusesEverything) {
  FrameDeadloopHandle self = 0;
  EXPECT_EQ(useTheMonitor(&self, "any"), Codes(5, QURN_FAILED));
  EXPECT_EQ(Frame_SetHeartExceptionPolicy(0, 0), QURN_FAILED);
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
  EXPECT_ERROR("Frame task deadloop init unsuccessfully, ret=0xffffffff.");
  // The whole initialisation is repeated.
  EXPECT_CODES(Codes(2, 0), FRAME_TaskDeadloopInit(), Frame_SetHeartbeatToMon(&self, 1, 2, 3));
}

TEST(Monitor, RefusesEverythingUntilItsInitialisationHasSucceeded) {
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  for (const auto& [failing, lock] : {std::pair{"0:pthread_rwlock_init", "ctrl mutex"},
                                      std::pair{"63:pthread_mutex_init", "info mutex"}}) {
    const ProgramRun run = runProgram(
        "env " + std::string(fault::kAtLoadVariable) + "=" + failing + " " QURN_EMULATOR + self +
        " --gtest_also_run_disabled_tests --gtest_filter=Uninitialised.*");
    EXPECT_TRUE(run.status == 0 && run.has("[  PASSED  ] 1 test")) << run.output;
    EXPECT_LT(run.at("Frame task deadloop ctrl init, " + std::string(lock) +
                     " init unsuccessfully. (errno: 11)"),
              run.at("Frame task deadloop init, ctrl init unsuccessfully. (ret = 0xffffffff)"));
  }
}

void noteProcessHook(uint64_t /*threadId*/, uint32_t /*tid*/, uint32_t elapsedMs, uint32_t policy) {
  recorded::note("process " + std::to_string(elapsedMs) + " " + std::to_string(policy));
}

uint32_t useTheMonitorInAHook(FrameDeadloopHandle* handle, uint64_t /*threadId*/,
                              uint32_t elapsedMs) {
  recorded::note("thread " + std::to_string(elapsedMs));
  FrameDeadloopHandle own = 0;
  EXPECT_EQ(useTheMonitor(&own, "silent"), Codes(5, QURN_OK));
  EXPECT_CODES(Codes(3, 0), FrameSetDetectSwitch(*handle, 0),
               Frame_SetHeartExceptionPolicy(*handle, 1), Frame_UnRegDeadloopInfoHook(handle));
  Frame_RegThreadDeadloopWarningHook(nullptr);
  Frame_RegThreadDeadloopHook(noteProcessHook);
  return 0;
}

TEST_F(DetectionPass, HooksRunBetweenHeartbeatsAndTheThreadsMayUseTheWholeMonitor) {
  SilentThread stuck;
  Frame_RegDeadloopInfoHook(stuck.slot(), useTheMonitorInAHook);
  const auto noteBeat = [](void*) -> uint32_t {
    recorded::note("beat");
    return 0;
  };
  ASSERT_EQ(FRAME_KeepAliveProcSet(1, noteBeat, nullptr), QURN_OK);
  passAfter(2500);
  ASSERT_TRUE(eventually(isCaptured));
  frozen_clock::advance(20000);
  recorded::forget();
  FrameWriteDeadloopInfo();
  EXPECT_EQ(recorded::events(),
            (Texts{"beat", "beat", "thread 2500", "beat", "process 2500 1", "beat"}));
  Frame_RegDeadloopInfoHook(stuck.slot(), useTheMonitorInAHook);
  stuck.interrupt();
  ASSERT_TRUE(eventually(isCaptured));
  recorded::forget();
  FrameWriteDeadloopInfo();
  EXPECT_EQ(recorded::events(), (Texts{"beat", "beat"})) << "no second action for the one event";
}

TEST_F(DetectionPass, TheWarningHookMayTuneTheThreadThatItIsToldAbout) {
  SilentThread stuck;
  Frame_RegThreadDeadloopWarningHook([](uint64_t, uint32_t, uint32_t, uint32_t) {
    EXPECT_EQ(FRAME_UpdateDeadloopThresholdByName("silent", 5, 6, 7), QURN_OK);
  });
  EXPECT_EQ(passAfter(1000), 2U) << "its third threshold is far again";
  EXPECT_EQ(passAfter(4999), 0U);
  EXPECT_EQ(passAfter(1), 1U);
}

TEST_F(DetectionPass, ARecordOfTheCallersOwnIsSignalledByItsPosixIdAloneAndNeverReleased) {
  FrameMonitorTaskInfo own{};
  own.ulThreadId = pthread_self();
  own.uiTid = 0x7FFFFFFF;  // nobody's
  fault::arm("pthread_kill", ESRCH);
  FrameFatalThresholdTimeoutAction(64, &own, 5);
  FrameDeadloopFatalAction();  // of a slot that is none
  EXPECT_TRUE(own.ucTimeoutLevel == 3 && recorded::count("Check thread exist") == 0);
  FrameFatalThresholdTimeoutAction(0, &own, 5);
  EXPECT_TRUE(eventually(isCaptured));
}

TEST_F(DetectionPass, AnEndedThreadIsReleasedAndItsIdentifierNeverUsed) {
  SilentThread leaving;
  const auto endOnceReported = [](void* thread) -> uint32_t {
    if (recorded::count("trigger third") != 0) {
      static_cast<SilentThread*>(thread)->end();
    }
    return 0;
  };
  ASSERT_EQ(FRAME_KeepAliveProcSet(1, endOnceReported, &leaving), QURN_OK);
  EXPECT_CODES((Codes{3, FRAME_DEADLOOP_STATUS_IDLE}), passAfter(1000), FrameGetDeadloopStatus());
  EXPECT_EQ(recorded::count("terminated"), 1U);
}

TEST_F(DetectionPass, SectionsAloneAreWatchedAndAThresholdIsReportedOnce) {
  EXPECT_EQ(FrameRegDeadloopCapability(), QURN_OK) << "already registered counts as success";
  onThread("section", [] {
    EXPECT_NE(TovStandInSectionRegister(3, 2, 1), QURN_OK);
    EXPECT_ERROR("Frame sdk deadloop register, set to monitor unsuccessfully.");
    EXPECT_ERROR("Section registration was refused.");
    ASSERT_EQ(TovStandInSectionRegister(2, 4, 9), QURN_OK);
    EXPECT_EQ(passAfter(60000), 0U) << "no section is open";
    TovStandInSectionOpen();
    EXPECT_EQ(passAfter(1999), 0U);
    TovStandInSectionOpen();
    EXPECT_EQ(passAfter(1), 1U) << "opening twice changes nothing";
    TovStandInSectionClose();
    EXPECT_EQ(passAfter(60000), 0U);
    TovStandInSectionOpen();
    EXPECT_CODES((Codes{0, 1}), passAfter(3999), passAfter(1)) << "the first has been reported";
    TovStandInSectionUnregister();
    EXPECT_EQ(recorded::count("sdk deadloop"), 1U);
  });
}

TEST_F(DetectionPass, SectionOperationsLogTheirFailures) {
  FrameBeginSdkDeadloop(3);
  FrameEndSdkDeadloop(3);
  FrameUnRegSdkDeadloop(3);
  EXPECT_CODES(Codes(2, QURN_FAILED), FrameSetSdkDeadloopAction(3),
               Frame_SetHeartExceptionPolicy(3, 0));
  EXPECT_EQ(recorded::sourceLines("not exist."), 4U) << "each on a line of its own";
  FrameDeadloopHandle handle = 0;
  const FrameSdkDeadloopParam param{0, 1, 2, 3};
  fault::arm("clock_gettime", EPERM, 1);  // the registration's own read succeeds
  EXPECT_EQ(FrameRegSdkDeadloop(&param, &handle), QURN_FAILED);
  for (const char* operation : {"detect begin, set detect switch", "detect end, set detect switch",
                                "unregister, stop monitor", "register, set detect switch"}) {
    EXPECT_ERROR("Frame sdk deadloop " + std::string(operation) + " unsuccessfully.");
  }
  EXPECT_EQ(Frame_StopHeartbeatToMon(&handle), QURN_OK) << "the registration stays";
}

TEST_F(DetectionPass, TheFrameworksHookIsASectionsActionAndItsLogTextsKeepTheirLevel) {
  EXPECT_EXIT(FrameSdkDeadloopAction(nullptr, 1, 2), testing::ExitedWithCode(88), "code 88");
  const auto sum = [](uint64_t threadId, uint32_t elapsedMs) {
    return static_cast<uint32_t>(threadId) + elapsedMs;
  };
  ASSERT_EQ(TovStandInDeadloopHookSet(pthread_self(), sum), QURN_OK);
  EXPECT_EQ(FrameSdkDeadloopAction(nullptr, pthread_self(), 1000),
            static_cast<uint32_t>(pthread_self()) + 1000);

  for (uint32_t level = 0; level < 4; ++level) {
    FrameDeadloopLogoutHook(level, "100%s");
  }
  EXPECT_EQ(recorded::texts(), Texts(3, "100%s"));
  EXPECT_EQ(recorded::texts(40).size() + recorded::texts(80).size(), 2U);
}

TEST(DeadloopHook, EndsWithItsThreadWhoeverSetIt) {
  const TovDeadloopHook hook = [](uint64_t, uint32_t) { return 0U; };
  for (int i = 0; i < 10; ++i) {
    std::binary_semaphore isSet{0};
    std::thread thread([&] {
      if (i % 2 == 0) {
        EXPECT_EQ(TovDeadloopGetHookByThreadId(pthread_self()), nullptr) << "another's";
        EXPECT_EQ(TovStandInDeadloopHookSet(pthread_self(), hook), QURN_OK);
        isSet.release();
      }
      isSet.acquire();
      EXPECT_EQ(TovDeadloopGetHookByThreadId(pthread_self()), hook);
      EXPECT_TRUE(inChild([=] { return TovDeadloopGetHookByThreadId(pthread_self()) == hook; }));
    });
    const pthread_t id = thread.native_handle();
    if (i % 2 != 0) {
      EXPECT_EQ(TovStandInDeadloopHookSet(id, hook), QURN_OK);
      isSet.release();
    }
    thread.join();
    EXPECT_EQ(TovDeadloopGetHookByThreadId(id), nullptr);
  }
  for (const uint64_t none : {uint64_t{0}, uint64_t{77}, UINT64_MAX}) {
    EXPECT_EQ(TovStandInDeadloopHookSet(none, hook), QURN_FAILED);
  }
}

TEST(DeadloopHook, IsKeptForSixtyFourThreadsAtATime) {
  const TovDeadloopHook hook = [](uint64_t, uint32_t) { return 0U; };
  {
    std::barrier together(65);
    std::vector<std::jthread> threads;
    for (int i = 0; i < 64; ++i) {
      threads.emplace_back([&] {
        EXPECT_EQ(TovStandInDeadloopHookSet(pthread_self(), hook), QURN_OK);
        together.arrive_and_wait();
        together.arrive_and_wait();
      });
    }
    together.arrive_and_wait();
    EXPECT_EQ(TovStandInDeadloopHookSet(pthread_self(), hook), QURN_FAILED);
    together.arrive_and_wait();
  }
  EXPECT_EQ(TovStandInDeadloopHookSet(pthread_self(), hook), QURN_OK);
  EXPECT_EQ(TovStandInDeadloopHookSet(pthread_self(), nullptr), QURN_OK);
  EXPECT_EQ(TovDeadloopGetHookByThreadId(pthread_self()), nullptr);
}

}  // namespace
