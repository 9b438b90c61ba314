// Keep-alive configuration, the pace of reports, and what is looked up in libraries that may come
// late: the process guard and the plug-in's repair function.
#include "support/library_test.h"

namespace {

struct Hook {
  uint32_t answer = 0;
  int64_t takesMs = 0;
  uint32_t runs = 0;
};

uint32_t runHook(void* param) {
  auto& hook = *static_cast<Hook*>(param);
  ++hook.runs;
  frozen_clock::advance(hook.takesMs);
  return hook.answer;
}

void reportAfter(int64_t milliseconds) {
  frozen_clock::advance(milliseconds);
  FRAME_KeepAliveReport();
}

// The library comes now. What its variables hold, by their names.
auto loadLate() {
  void* const library = dlopen(LATE_LIBRARY, RTLD_NOW | RTLD_GLOBAL);
  EXPECT_NE(library, nullptr) << dlerror();
  return [=](const char* name) -> int& { return *static_cast<int*>(dlsym(library, name)); };
}

TEST(KeepAliveConfiguration, AnswersEachMistakeWithItsLineAndCode) {
  EXPECT_EQ(FrameKeepAliveInit(), QURN_OK);
  EXPECT_TRUE(recorded::has(40, "Keep alive operation, CF_COMP_CFG not set or not have file."));
  const std::tuple<std::string, uint32_t, uint32_t, const char*> cases[] = {
      {"other: 1", 0, 40, "watchDog field empty."},
      {"watchDog: {watchDogTimeout: 1s}", QURN_FAILED, 100, "watchDogType parameter not set."},
      {"watchDog: {watchDogType: ''}", QURN_FAILED, 100, "watchDogType parameter not set."},
      {"watchDog: {watchDogType: notify}", QURN_FAILED, 100, "watchDogTimeout parameter not set."},
      {"watchDog: {watchDogType: notify, watchDogTimeout: soon}", QURN_INVALID_ARGUMENT, 100,
       "watchDogTimeout parse unsuccessfully. (value = soon)"},
      {"watchDog: {watchDogType: timer}", QURN_FAILED, 100,
       "global component mode invalid. (value = timer)"},
      {"watchDog: {watchDogType: none}", 0, 80, "watchDogType user config none."}};
  for (const auto& [yaml, code, level, message] : cases) {
    SCOPED_TRACE(yaml);
    recorded::forget();
    configure(yaml);
    EXPECT_EQ(FrameKeepAliveInit(), code);
    EXPECT_TRUE(recorded::has(level, std::string("Keepalive parameter init, ") + message));
    EXPECT_EQ(recorded::has(100, "Keep alive paramter init unsuccessfully."), code != 0);
  }
  EXPECT_CODES((Codes{QURN_NO_KEEP_ALIVE_HOOK, QURN_OK, 0}), FrameKeepAliveHookProc(),
               FrameKeepAliveByNotifySendReady(), g_FrameReady);
}

TEST(KeepAliveConfiguration, AComponentsOwnHookComesFirstAndStays) {
  Hook hook;
  EXPECT_CODES((Codes{QURN_FAILED, 0, QURN_FAILED}), FRAME_KeepAliveProcSet(1, nullptr, nullptr),
               FRAME_KeepAliveProcSet(1, runHook, &hook),
               FRAME_KeepAliveProcSet(1, runHook, &hook));
  EXPECT_TEXTS(100, "Keep alive proc set unsuccessfully. Input parameter is invalid.",
               "Keep alive proc set unsuccessfully. Repeated register.");
  configure("{ not yaml");
  EXPECT_EQ(FrameKeepAliveInit(), QURN_OK);
  EXPECT_TRUE(recorded::has(40, "Keep alive paramter already set by custom."));
  const auto guard = loadLate();
  EXPECT_EQ(FrameKeepAliveByNotifySendReady(), QURN_OK);
  EXPECT_EQ(guard("guard_readies"), 0);
}

TEST(KeepAliveReport, TheFirstIsDueAtOnceAndTheNextAPeriodAfterTheHookReturned) {
  frozen_clock::start();
  Hook hook{0, 5};
  ASSERT_EQ(FrameSetDeadloopPeriodDelay(1000), QURN_OK);
  FRAME_KeepAliveReport();
  ASSERT_EQ(FRAME_KeepAliveProcSet(9000, runHook, &hook), QURN_OK);
  const auto runsAfter = [&](int64_t milliseconds) {
    reportAfter(milliseconds);
    return hook.runs;
  };
  EXPECT_CODES((Codes{1, 1000}), runsAfter(0), FrameGetKeepAlivePeriod()) << "the first tick's";
  EXPECT_CODES((Codes{1, 2}), runsAfter(989), runsAfter(1)) << "due ten milliseconds early";
  hook.answer = 7;
  EXPECT_CODES((Codes{3, 4}), runsAfter(990), runsAfter(0)) << "tried again at once";
  EXPECT_TRUE(recorded::has(80, "User keep alive hook proc unsuccessfully. (ret = 0x7)"));
  fault::arm("clock_gettime", EPERM);
  EXPECT_EQ(runsAfter(990), 4U);
  EXPECT_ERROR("Frame report keep alive, get clock time unsuccessfully. (errno 1)");
}

TEST(KeepAliveReport, APeriodBelowTheToleranceMakesEveryCallDue) {
  frozen_clock::start();
  Hook hook;
  FrameSetDeadloopPeriodDelay(9);
  FRAME_KeepAliveProcSet(4, runHook, &hook);
  EXPECT_EQ(FrameGetKeepAlivePeriod(), 9U) << "raised to the detection period";
  reportAfter(0);
  reportAfter(0);
  EXPECT_EQ(hook.runs, 2U);
}

class Guarded : public testing::Test {
 protected:
  void SetUp() override {
    frozen_clock::start();
    configure("watchDog: {watchDogType: notify, watchDogTimeout: 60003}");
    // The period is a quarter of the time-out.
    EXPECT_CODES((Codes{0, 0, 15000}), FrameKeepAliveInit(), FrameSetDeadloopPeriodDelay(10000),
                 FrameGetKeepAlivePeriod());
    EXPECT_TRUE(recorded::texts(100).empty());
  }
};

TEST_F(Guarded, HeartbeatsFlowOnlyOnceReadinessIsAnnounced) {
  const auto guard = loadLate();
  reportAfter(0);
  EXPECT_EQ(guard("guard_heartbeats"), 0);
  guard("guard_answer") = 3;
  EXPECT_CODES((Codes{QURN_FAILED, 0}), FrameKeepAliveByNotifySendReady(), g_FrameReady);
  EXPECT_ERROR("bexlin notify ready unsuccessfully. (ret = 0x3)");
  guard("guard_answer") = 0;
  EXPECT_CODES(Codes(2, 0), FrameKeepAliveByNotifySendReady(), FrameKeepAliveByNotifySendReady());
  EXPECT_EQ(guard("guard_readies"), 2) << "one refused, one accepted, none repeated";
  EXPECT_EQ(g_FrameReady, 1U);
  reportAfter(0);
  EXPECT_EQ(guard("guard_heartbeats"), 0) << "the report before readiness counted";
  reportAfter(15000);
  EXPECT_EQ(guard("guard_heartbeats"), 1);
  guard("guard_answer") = 9;
  reportAfter(15000);
  EXPECT_ERROR("bexlin notify heartbeat unsuccessfully. (ret = 0x9)");
  EXPECT_TRUE(recorded::has(80, "User keep alive hook proc unsuccessfully. (ret = 0xffffffff)"));
}

TEST_F(Guarded, AMissingGuardCountsAsReachedAndIsLookedUpAnewEachTime) {
  EXPECT_CODES((Codes{QURN_OK, 1}), FrameKeepAliveByNotifySendReady(), g_FrameReady);
  reportAfter(15000);
  reportAfter(0);
  EXPECT_EQ(recorded::texts(40), Texts(2, "bexlin notify func not found."));
  const auto guard = loadLate();
  reportAfter(15000);
  EXPECT_EQ(guard("guard_heartbeats"), 1);
}

class PluginRepair : public testing::TestWithParam<std::pair<uint32_t, int>> {};

TEST_P(PluginRepair, RunsAboutEveryTenSecondsOfTicks) {
  const auto [periodMs, runsInSixTicks] = GetParam();
  const auto plugin = loadLate();
  FrameSetDeadloopPeriodDelay(periodMs);
  for (int tick = 0; tick < 6; ++tick) {
    FrameDeadloopDetectCallback(nullptr);
  }
  EXPECT_EQ(plugin("repair_runs"), runsInSixTicks);
}

INSTANTIATE_TEST_SUITE_P(Periods, PluginRepair,
                         testing::Values(std::pair{20000U, 6}, std::pair{10000U, 6},
                                         std::pair{5000U, 3}, std::pair{3000U, 2}, std::pair{1U, 0},
                                         std::pair{0U, 6}));

TEST(PluginRepair, IsLookedUpOnceEvenWhenItIsMissing) {
  FrameRuloPluginCheckAndRepairDeadloop();
  const auto plugin = loadLate();
  FrameRuloPluginCheckAndRepairDeadloop();
  EXPECT_EQ(plugin("repair_runs"), 0);
}

}  // namespace
