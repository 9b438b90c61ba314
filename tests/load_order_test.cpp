// The heart calls work while the program's libraries are still being loaded.
#include <gtest/gtest.h>
#include <qurnadapt/legacy_heart.h>

extern "C" {
extern uint32_t early_registration;
extern uint32_t early_heartbeat;
}

TEST(Load, AComponentsConstructorCanRegisterItsThread) {
  EXPECT_EQ(early_registration, QURN_OK);
  EXPECT_EQ(early_heartbeat, QURN_OK);
  FrameDeadloopHandle self = 9;
  EXPECT_EQ(Frame_SetHeartbeatToMon(&self, 1, 2, 3), QURN_OK);
  EXPECT_EQ(self, 0U) << "the same thread's slot";
}
