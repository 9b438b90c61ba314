// Policies, process-wide hooks, tuning by name, the detect switch, and sections through the
// capability.
#include <gtest/gtest.h>
#include <tovplatform/stand_in.h>

#include <cerrno>

#include "support/faults.h"
#include "support/recording_platform.h"
#include "support/silent_thread.h"

namespace {

using Texts = std::vector<std::string>;

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
  fault::arm(fault::Call::ClockGettime, EPERM, 1);  // the registration's own read succeeds
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
