// Detection passes when a test wants them, over a clock that it moves on.
#pragma once

#include "support/library_test.h"

class DetectionPass : public testing::Test {
 protected:
  void SetUp() override {
    frozen_clock::start();
    // With this period every heartbeat is due.
    EXPECT_CODES(Codes(3, 0), FrameSetDeadloopPeriodDelay(1), FrameDeadloopInit(),
                 FrameRegDeadloopCapability());
    recorded::forget();
  }
  // Answers how many threshold lines this pass writes after so much more silence.
  static uint32_t passAfter(int64_t milliseconds) {
    const size_t before = recorded::count("trigger");
    frozen_clock::advance(milliseconds);
    FRAME_TaskDeadloopMonitorEntry();
    return static_cast<uint32_t>(recorded::count("trigger") - before);
  }
};
