// Periodic timers and time differences.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/timerfd.h>

#include <cerrno>
#include <thread>

#include "support/faults.h"
#include "support/recording_platform.h"

namespace {

uint32_t countRun(void* param) {
  ++*static_cast<int*>(param);
  return 99;  // ignored
}

class Timer : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(FRAME_TimerCtrlInit(&ctrl_), QURN_OK); }
  void TearDown() override {
    FRAME_TimerCtrlRuin(ctrl_);
    EXPECT_EQ(recorded::blocksHeld(), 0U);
    EXPECT_EQ(fcntl(lastFd_, F_GETFD), -1);
  }
  int create(uint32_t periodMs) {
    EXPECT_EQ(FRAME_TimerCreate(ctrl_, periodMs, countRun, &runs_, &lastFd_), QURN_OK);
    return lastFd_;
  }

  FrameTimerCtrl* ctrl_ = nullptr;
  int32_t lastFd_ = -1;
  int runs_ = 0;
};

void waitFor(int fd) {
  pollfd readable{fd, POLLIN, 0};
  ASSERT_EQ(poll(&readable, 1, 10000), 1);
}

TEST_F(Timer, ArmsFirstExpiryAndIntervalWithItsPeriod) {
  itimerspec armed{};
  ASSERT_EQ(timerfd_gettime(create(1500), &armed), 0);
  EXPECT_EQ(armed.it_interval.tv_sec, 1);
  EXPECT_EQ(armed.it_interval.tv_nsec, 500'000'000);
  EXPECT_EQ(armed.it_value.tv_sec, 1);
}

TEST_F(Timer, RunsItsHookOnceAReadinessHoweverManyExpirationsThereWere) {
  frozen_clock::start();
  const int other = create(60000);
  const int fd = create(10);
  waitFor(fd);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  FrameTimerHookTriggerByFd(ctrl_, fd);
  EXPECT_EQ(runs_, 1);
  FrameTimerHookTriggerByFd(ctrl_, other + fd + 100);  // nobody's
  EXPECT_EQ(runs_, 1);
  EXPECT_TRUE(recorded::lines().empty());
}

TEST_F(Timer, SaysWhenItWasKeptWaitingForThreePeriods) {
  frozen_clock::start();
  const int fd = create(20);
  for (const auto& [waitedMs, lines] : {std::pair{59, 0U}, std::pair{60, 1U}}) {
    waitFor(fd);
    frozen_clock::advance(waitedMs);
    FrameTimerHookTriggerByFd(ctrl_, fd);
    EXPECT_EQ(recorded::lines().size(), lines);
  }
  EXPECT_TRUE(recorded::has(80, "Timer hook trigger delay. (elasped time = 60)"));
}

TEST_F(Timer, GoesOnWithoutTheClockAndWithoutAnExpiration) {
  const int fd = create(20);
  waitFor(fd);
  fault::arm(fault::Call::ClockGettime, EPERM);
  FrameTimerHookTriggerByFd(ctrl_, fd);
  EXPECT_ERROR("Timer current time get unsuccessfully. (errno = 1)");
  EXPECT_EQ(runs_, 1);

  itimerspec never{};
  timerfd_settime(fd, 0, &never, nullptr);
  fcntl(fd, F_SETFL, O_NONBLOCK);
  FrameTimerHookTriggerByFd(ctrl_, fd);
  EXPECT_ERROR("Timer restart failed -1.");
  EXPECT_EQ(runs_, 2);
}

TEST(TimespecDiff, CountsWholeMillisecondsTowardZeroWithACap) {
  constexpr time_t kThirtyDays = time_t{30} * 86400;
  struct Case {
    timespec start;
    timespec end;
    int64_t expected;
  };
  const Case cases[] = {
      {{5, 900'000'000}, {7, 100'000'000}, 1200},
      {{1, 0}, {1, 999'999}, 0},
      {{1, 999'999}, {1, 0}, 0},
      {{0, 0}, {kThirtyDays, 0}, 2147483647},
      {{0, 0}, {2147483, 647'000'000}, 2147483647},
      {{0, 0}, {2147483, 646'999'999}, 2147483646},
      {{2, 0}, {1, 0}, -1000},
      {{kThirtyDays, 0}, {0, 0}, -2592000000},
  };
  for (const Case& diff : cases) {
    EXPECT_EQ(FRAME_GetTimespecDiff(&diff.start, &diff.end), diff.expected);
  }
}

}  // namespace
