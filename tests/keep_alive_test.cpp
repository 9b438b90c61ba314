// Keep-alive configuration, the pace of reports, and the process guard.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "support/faults.h"
#include "support/recording_platform.h"

namespace {

using Texts = std::vector<std::string>;

struct Hook {
  int runs = 0;
  uint32_t answer = 0;
  int64_t takesMs = 0;
};

uint32_t runHook(void* param) {
  auto& hook = *static_cast<Hook*>(param);
  ++hook.runs;
  frozen_clock::advance(hook.takesMs);
  return hook.answer;
}

struct Guard {
  Guard() : library(dlopen(FAKE_GUARD, RTLD_NOW | RTLD_GLOBAL)) {
    EXPECT_NE(library, nullptr) << dlerror();
  }
  int& operator[](const char* name) const { return *static_cast<int*>(dlsym(library, name)); }
  void* library;
};

TEST(KeepAliveConfiguration, AnswersEachMistakeWithItsLineAndCode) {
  struct Case {
    const char* yaml;
    uint32_t code;
    uint32_t level;
    const char* message;
  };
  const Case cases[] = {
      {"", 0, 40, "Keep alive operation, CF_COMP_CFG not set or not have file."},
      {"other: 1", 0, 40, "Keepalive parameter init, watchDog field empty."},
      {"watchDog: {watchDogTimeout: 1s}", QURN_FAILED, 100,
       "Keepalive parameter init, watchDogType parameter not set."},
      {"watchDog: {watchDogType: ''}", QURN_FAILED, 100,
       "Keepalive parameter init, watchDogType parameter not set."},
      {"watchDog: {watchDogType: notify}", QURN_FAILED, 100,
       "Keepalive parameter init, watchDogTimeout parameter not set."},
      {"watchDog: {watchDogType: notify, watchDogTimeout: soon}", QURN_INVALID_ARGUMENT, 100,
       "Keepalive parameter init, watchDogTimeout parse unsuccessfully. (value = soon)"},
      {"watchDog: {watchDogType: timer}", QURN_FAILED, 100,
       "Keepalive parameter init, global component mode invalid. (value = timer)"},
      {"watchDog: {watchDogType: none}", 0, 80,
       "Keepalive parameter init, watchDogType user config none."},
  };
  for (const Case& step : cases) {
    SCOPED_TRACE(step.yaml);
    recorded::forget();
    configure(step.yaml);
    EXPECT_EQ(FrameKeepAliveInit(), step.code);
    EXPECT_TRUE(recorded::has(step.level, step.message));
    EXPECT_EQ(recorded::has(100, "Keep alive paramter init unsuccessfully."), step.code != 0);
  }
  configure("{ not yaml");
  EXPECT_EQ(FrameKeepAliveInit(), QURN_FAILED);
  EXPECT_EQ(recorded::count("Keep alive operation, cannot get yaml handle. (path = "), 1U);
  EXPECT_EQ(FrameKeepAliveHookProc(), QURN_NO_KEEP_ALIVE_HOOK);
  EXPECT_EQ(FrameKeepAliveByNotifySendReady(), QURN_OK);
  EXPECT_EQ(g_FrameReady, 0U);
}

TEST(KeepAliveConfiguration, AComponentsOwnHookComesFirstAndStays) {
  Hook hook;
  EXPECT_EQ(FRAME_KeepAliveProcSet(1, nullptr, nullptr), QURN_FAILED);
  EXPECT_ERROR("Keep alive proc set unsuccessfully. Input parameter is invalid.");
  ASSERT_EQ(FRAME_KeepAliveProcSet(1, runHook, &hook), QURN_OK);
  EXPECT_EQ(FRAME_KeepAliveProcSet(1, runHook, &hook), QURN_FAILED);
  EXPECT_ERROR("Keep alive proc set unsuccessfully. Repeated register.");
  configure("{ not yaml");
  EXPECT_EQ(FrameKeepAliveInit(), QURN_OK);
  EXPECT_TRUE(recorded::has(40, "Keep alive paramter already set by custom."));
  Guard guard;
  EXPECT_EQ(FrameKeepAliveByNotifySendReady(), QURN_OK);
  EXPECT_EQ(guard["guard_readies"], 0);
}

TEST(KeepAliveConfiguration, ThePeriodIsAQuarterOfTheTimeOutButNeverBelowTheDetectionPeriod) {
  configure("watchDog: {watchDogType: notify, watchDogTimeout: 60003}");
  ASSERT_EQ(FrameKeepAliveInit(), QURN_OK);
  FrameSetDeadloopPeriodDelay(10000);
  EXPECT_EQ(FrameGetKeepAlivePeriod(), 15000U);
  recorded::forget();
  EXPECT_EQ(FrameKeepAliveInit(), QURN_OK) << "taken for a component's own";
  EXPECT_TRUE(recorded::has(40, "Keep alive paramter already set by custom."));
}

TEST(KeepAliveReport, TheFirstIsDueAtOnceAndTheNextAPeriodAfterTheHookReturned) {
  frozen_clock::start();
  Hook hook{0, 0, 5};
  ASSERT_EQ(FrameSetDeadloopPeriodDelay(1000), QURN_OK);
  ASSERT_EQ(FRAME_KeepAliveProcSet(400, runHook, &hook), QURN_OK);
  const auto runsAfter = [&](int64_t milliseconds) {
    frozen_clock::advance(milliseconds);
    FRAME_KeepAliveReport();
    return hook.runs;
  };
  EXPECT_EQ(runsAfter(0), 1);
  EXPECT_EQ(FrameGetKeepAlivePeriod(), 1000U) << "raised to the detection period";
  EXPECT_EQ(runsAfter(989), 1);
  EXPECT_EQ(runsAfter(1), 2) << "due ten milliseconds early";
  hook.answer = 7;
  EXPECT_EQ(runsAfter(990), 3);
  EXPECT_EQ(runsAfter(0), 4) << "a failed report is tried again at once";
  EXPECT_TRUE(recorded::has(80, "User keep alive hook proc unsuccessfully. (ret = 0x7)"));
  fault::arm("clock_gettime", EPERM);
  EXPECT_EQ(runsAfter(990), 4);
  EXPECT_ERROR("Frame report keep alive, get clock time unsuccessfully. (errno 1)");
}

TEST(KeepAliveReport, APeriodBelowTheToleranceMakesEveryCallDue) {
  frozen_clock::start();
  Hook hook;
  FrameSetDeadloopPeriodDelay(9);
  FRAME_KeepAliveProcSet(0, runHook, &hook);
  FRAME_KeepAliveReport();
  FRAME_KeepAliveReport();
  EXPECT_EQ(hook.runs, 2);
}

TEST(KeepAliveReport, AHookRegisteredAfterTheFirstTickKeepsTheRaisedPeriod) {
  Hook hook;
  FrameSetDeadloopPeriodDelay(300);
  FRAME_KeepAliveReport();
  FRAME_KeepAliveProcSet(9000, runHook, &hook);
  EXPECT_EQ(FrameGetKeepAlivePeriod(), 300U);
}

class Guarded : public testing::Test {
 protected:
  void SetUp() override {
    frozen_clock::start();
    configure("watchDog: {watchDogType: notify, watchDogTimeout: 4s}");
    ASSERT_EQ(FrameKeepAliveInit(), QURN_OK);
  }
  static void reportNextPeriod() {
    frozen_clock::advance(1000);
    FRAME_KeepAliveReport();
  }
};

TEST_F(Guarded, HeartbeatsFlowOnlyOnceReadinessIsAnnounced) {
  Guard guard;
  reportNextPeriod();
  EXPECT_EQ(guard["guard_heartbeats"], 0);
  guard["guard_answer"] = 3;
  EXPECT_EQ(FrameKeepAliveByNotifySendReady(), QURN_FAILED);
  EXPECT_ERROR("bexlin notify ready unsuccessfully. (ret = 0x3)");
  EXPECT_EQ(g_FrameReady, 0U);
  guard["guard_answer"] = 0;
  EXPECT_EQ(FrameKeepAliveByNotifySendReady(), QURN_OK);
  EXPECT_EQ(FrameKeepAliveByNotifySendReady(), QURN_OK);
  EXPECT_EQ(guard["guard_readies"], 2) << "one refused, one accepted, none repeated";
  EXPECT_EQ(g_FrameReady, 1U);
  FRAME_KeepAliveReport();
  EXPECT_EQ(guard["guard_heartbeats"], 0) << "the report before readiness counted";
  reportNextPeriod();
  EXPECT_EQ(guard["guard_heartbeats"], 1);
  guard["guard_answer"] = 9;
  reportNextPeriod();
  EXPECT_ERROR("bexlin notify heartbeat unsuccessfully. (ret = 0x9)");
  EXPECT_TRUE(recorded::has(80, "User keep alive hook proc unsuccessfully. (ret = 0xffffffff)"));
}

TEST_F(Guarded, AMissingGuardCountsAsReachedAndIsLookedUpAnewEachTime) {
  EXPECT_EQ(FrameKeepAliveByNotifySendReady(), QURN_OK);
  EXPECT_EQ(g_FrameReady, 1U);
  reportNextPeriod();
  FRAME_KeepAliveReport();
  EXPECT_EQ(recorded::texts(40), Texts(2, "bexlin notify func not found."));
  Guard guard;
  reportNextPeriod();
  EXPECT_EQ(guard["guard_heartbeats"], 1);
}

}  // namespace
