// Event sets, descriptors and timers on the detection thread's loop.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <limits>
#include <string>
#include <thread>

#include "support/faults.h"
#include "support/recording_platform.h"

namespace {

const std::string kLongestName(127, 'n');
const std::string kTooLongName(128, 'n');

// Static in every test: the loop outlives the test's body.
struct Seen {
  std::atomic<int> calls{0};
  std::atomic<int> fd{-1};
};

// Notes the event and drains the descriptor.
uint32_t drain(epoll_event* event, void* param) {
  auto& seen = *static_cast<Seen*>(param);
  seen.fd = static_cast<FrameMntEpollData*>(event->data.ptr)->fd;
  uint64_t value = 0;
  EXPECT_EQ(read(seen.fd, &value, sizeof(value)), 8);
  ++seen.calls;
  return 0;
}

uint32_t countOnly(epoll_event* /*event*/, void* param) {
  ++static_cast<Seen*>(param)->calls;
  return 0;
}

uint32_t refuse(epoll_event* event, void* param) {
  drain(event, param);
  return 5;
}

void ring(int fd) {
  const uint64_t one = 1;
  ASSERT_EQ(write(fd, &one, sizeof(one)), 8);
}

TEST(EventSets, FailCleanlyWhileThereIsNoLoop) {
  epoll_event event{};
  const auto expectRefusal = [&] {
    recorded::forget();
    EXPECT_EQ(FRAME_MntRegSetAndEventProc("set", drain, nullptr), QURN_FAILED);
    EXPECT_EQ(FRAME_MntEpollCtl("set", EPOLL_CTL_ADD, 0, &event), QURN_FAILED);
    FRAME_MntDispatch();
    EXPECT_EQ(recorded::texts(100), std::vector<std::string>(3, "Epoll fd has not been created."));
  };
  expectRefusal();

  FrameMntEpollData record{"set", 0, nullptr};
  event.data.ptr = &record;
  FrameMntEventProcBySet(&event);
  EXPECT_ERROR("Mnt epoll list node null .(setName = set)");
  event.data.ptr = nullptr;
  FrameMntEventProcBySet(&event);

  EXPECT_EQ(FrameInitMntEpollEventCtrl(), 0);
  expectRefusal();
  FrameMntClearEpollEventCtrl();
  expectRefusal();
}

TEST(EventSets, ALaterRegistrationOfANameReplacesTheFirst) {
  startDetection(1000);
  static Seen first;
  static Seen second;
  epoll_event event{};
  const int fd = eventfd(0, EFD_NONBLOCK);
  ASSERT_EQ(FRAME_MntRegSetAndEventProc("set", drain, &first), QURN_OK);
  ASSERT_EQ(FRAME_MntRegSetAndEventProc("set", drain, &second), QURN_OK);
  ASSERT_EQ(FRAME_MntEpollCtl("set", EPOLL_CTL_ADD, fd, &event), QURN_OK);
  EXPECT_EQ(event.events, 0x80000001U) << "readable and edge-triggered";
  ring(fd);
  EXPECT_TRUE(eventually([&] { return second.calls == 1; }));
  EXPECT_EQ(second.fd, fd);
  EXPECT_EQ(first.calls, 0);
}

TEST(EventSets, NamesFunctionsAndDescriptorsAreChecked) {
  startDetection(1000);
  epoll_event event{};
  const int fd = eventfd(0, 0);
  event.data.u64 = 42;
  recorded::watch([](const std::string& what) {
    if (what == "free" && recorded::count("copy setName") == 1) {
      FRAME_MntRegSetAndEventProc("allowed", drain, nullptr);  // the lock is free again
    }
  });
  size_t held = recorded::blocksHeld() + 1;
  EXPECT_EQ(FRAME_MntRegSetAndEventProc(kTooLongName.c_str(), drain, nullptr), QURN_FAILED);
  EXPECT_EQ(FRAME_MntRegSetAndEventProc(nullptr, drain, nullptr), QURN_FAILED);
  EXPECT_EQ(FRAME_MntEpollCtl(kTooLongName.c_str(), EPOLL_CTL_ADD, fd, &event), QURN_FAILED);
  EXPECT_EQ(recorded::count("Use secure function to copy setName unsuccessfully."), 3U);
  EXPECT_TRUE(event.data.u64 == 42 && event.events == 0) << "untouched";
  EXPECT_EQ(FRAME_MntRegSetAndEventProc("set", nullptr, nullptr), QURN_INVALID_ARGUMENT);
  EXPECT_ERROR("Event process function is NULL.");
  EXPECT_EQ(FRAME_MntEpollCtl("set", EPOLL_CTL_ADD, -1, &event), QURN_FAILED);
  EXPECT_ERROR("Frame mnt operate epoll event unsuccessfully.(errno = 9)");
  EXPECT_EQ(event.data.ptr, nullptr);
  EXPECT_EQ(recorded::blocksHeld(), held);
  EXPECT_EQ(FRAME_MntRegSetAndEventProc(kLongestName.c_str(), drain, nullptr), QURN_OK);
  EXPECT_EQ(FRAME_MntEpollCtl(kLongestName.c_str(), EPOLL_CTL_ADD, fd, &event), QURN_OK);
}

TEST(EventSets, UnknownNamesAndFailingFunctionsAreLoggedAndTheLoopGoesOn) {
  startDetection(1000);
  static Seen seen;
  epoll_event event{EPOLLIN, {}};
  const int fd = eventfd(0, EFD_NONBLOCK);
  ASSERT_EQ(FRAME_MntEpollCtl("late", EPOLL_CTL_ADD, fd, &event), QURN_OK);
  EXPECT_EQ(event.events, static_cast<uint32_t>(EPOLLIN)) << "a mask of the caller's is kept";
  ring(fd);
  EXPECT_TRUE(eventually([] { return recorded::has(40, "There is no set which name is late."); }));
  ASSERT_EQ(FRAME_MntRegSetAndEventProc("late", refuse, &seen), QURN_OK);
  EXPECT_TRUE(eventually(
      [] { return recorded::has(100, "Epoll event process unsuccessfully.(setName = late)"); }));
  ring(fd);
  EXPECT_TRUE(eventually([&] { return seen.calls == 2; }));
}

TEST(EventSets, AFailingWaitIsLoggedUnlessASignalInterruptedIt) {
  fault::arm("epoll_wait", EINTR, 1);
  startDetection(20);
  EXPECT_EQ(recorded::count("Epoll wait unsuccessfully."), 0U);
  fault::arm("epoll_wait", EBADF);
  EXPECT_TRUE(
      eventually([] { return recorded::has(100, "Epoll wait unsuccessfully. (errno = 9)"); }));
  const size_t ticks = recorded::events().size();
  EXPECT_TRUE(eventually([&] { return recorded::events().size() > ticks; }));
}

TEST(EventSets, RecordsAreReleasedOnceTheKernelHasLetGoOfThem) {
  startDetection(20);
  const size_t held = recorded::blocksHeld();
  const int fd = eventfd(0, EFD_NONBLOCK);
  epoll_event event{};
  ASSERT_EQ(FRAME_MntEpollCtl("set", EPOLL_CTL_ADD, fd, &event), QURN_OK);
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(FRAME_MntEpollCtl("set", EPOLL_CTL_MOD, fd, &event), QURN_OK);
  }
  EXPECT_TRUE(eventually([&] { return recorded::blocksHeld() == held + 1; }));
  ASSERT_EQ(FRAME_MntEpollCtl("set", EPOLL_CTL_DEL, fd, nullptr), QURN_OK);
  EXPECT_TRUE(eventually([&] { return recorded::blocksHeld() == held; }));
  ASSERT_EQ(FRAME_MntEpollCtl("set", EPOLL_CTL_ADD, fd, &event), QURN_OK);
  ASSERT_EQ(FRAME_MntEpollCtl("set", EPOLL_CTL_DEL, fd, &event), QURN_OK);
  EXPECT_TRUE(eventually([&] { return recorded::blocksHeld() == held; }));
}

// The sanitizers see a record that is released under the dispatcher's hands.
TEST(EventSets, DescriptorsMayChangeWhileTheirEventsAreBeingDispatched) {
  startDetection(5);
  static Seen seen;
  ASSERT_EQ(FRAME_MntRegSetAndEventProc("busy", countOnly, &seen), QURN_OK);
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      const int fd = eventfd(1, EFD_NONBLOCK);
      while (!stop) {
        epoll_event event{EPOLLIN, {}};
        EXPECT_EQ(FRAME_MntEpollCtl("busy", EPOLL_CTL_ADD, fd, &event), QURN_OK);
        EXPECT_EQ(FRAME_MntEpollCtl("busy", EPOLL_CTL_MOD, fd, &event), QURN_OK);
        std::this_thread::yield();
        EXPECT_EQ(FRAME_MntEpollCtl("busy", EPOLL_CTL_DEL, fd, nullptr), QURN_OK);
      }
      close(fd);
    });
  }
  EXPECT_TRUE(eventually([&] { return seen.calls > 200; }));
  stop = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
}

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

TEST_F(Timer, AFailedOneIsToldAndLeavesNothing) {
  int32_t fd = -1;
  const int next = dup(0);
  close(next);
  recorded::watch([&](const std::string& what) {
    EXPECT_EQ(fcntl(next, F_GETFD) == -1, what.rfind("Timer fd set time", 0) != 0) << what;
  });
  for (const char* call : {"timerfd_create", "timerfd_settime", "TOV_MemAllocF"}) {
    fault::arm(call, EMFILE);
    EXPECT_EQ(FRAME_TimerCreate(ctrl_, 10, countRun, &runs_, &fd), QURN_FAILED) << call;
  }
  recorded::watch(nullptr);
  EXPECT_EQ(recorded::blocksHeld(), 1U) << "the control";
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
  fault::arm("clock_gettime", EPERM);
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
  constexpr time_t kFarthest = std::numeric_limits<time_t>::max();
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
      {{kFarthest, 0}, {-kFarthest, 0}, -0x7FFFFFFFFFFFFFFF},
      {{-kFarthest, 0}, {kFarthest, 999'999'999}, 2147483647},
      {{10'000'000'000, 0}, {0, 999'999'999}, -9'999'999'999'000},
      {{9'300'000'000'000'000, 1}, {0, 0}, -0x7FFFFFFFFFFFFFFF},
      {{kFarthest, 5'000'000}, {kFarthest, 7'999'999}, 2},
  };
  for (const Case& diff : cases) {
    EXPECT_EQ(FRAME_GetTimespecDiff(&diff.start, &diff.end), diff.expected);
  }
}

}  // namespace
