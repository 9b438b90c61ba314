// Event sets, descriptors and timers on the detection thread's loop.
#include <fcntl.h>
#include <poll.h>
#include <sys/timerfd.h>

#include "support/library_test.h"

namespace {

// Static in every test: the loop outlives the test's body.
struct Seen {
  uint32_t answer = 0;
  std::atomic<int> calls{0};
};

// Notes the event and drains the descriptor.
uint32_t drain(epoll_event* event, void* param) {
  uint64_t value = 0;
  EXPECT_EQ(read(static_cast<FrameMntEpollData*>(event->data.ptr)->fd, &value, 8), 8);
  auto& seen = *static_cast<Seen*>(param);
  ++seen.calls;
  return seen.answer;
}

TEST(EventLoop, ThatDoesNotExistIsNeverUsed) {
  epoll_event event{};
  const auto expectRefusal = [&] {
    recorded::forget();
    EXPECT_EQ(FRAME_MntRegSetAndEventProc("set", drain, nullptr), QURN_FAILED);
    EXPECT_EQ(FRAME_MntEpollCtl("set", EPOLL_CTL_ADD, 0, &event), QURN_FAILED);
    FRAME_MntDispatch();
    EXPECT_EQ(recorded::texts(100), Texts(3, "Epoll fd has not been created."));
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

class EventSets : public testing::Test {
 protected:
  void SetUp() override {
    startDetection(20);
    held_ = recorded::blocksHeld();
  }
  // Of the descriptor that rings.
  uint32_t change(int op, const std::string& set = "set") {
    return FRAME_MntEpollCtl(set.c_str(), op, fd_, &event_);
  }

  const int fd_ = eventfd(0, EFD_NONBLOCK);
  epoll_event event_{};
  size_t held_ = 0;
};

TEST_F(EventSets, TellOfUnknownNamesAndFailingFunctionsAndALaterFunctionReplacesTheFirst) {
  static Seen first{5};
  static Seen second;
  event_.events = EPOLLIN;  // and stays so
  fault::arm("poll", EINTR);
  EXPECT_CODES((Codes{QURN_OK, EPOLLIN}), change(EPOLL_CTL_ADD, "late"), event_.events);
  eventfd_write(fd_, 1);
  EXPECT_TRUE(eventually([] { return recorded::has(40, "There is no set which name is late."); }));
  ASSERT_EQ(FRAME_MntRegSetAndEventProc("late", drain, &first), QURN_OK);
  EXPECT_TRUE(eventually(
      [] { return recorded::has(100, "Epoll event process unsuccessfully.(setName = late)"); }));
  ASSERT_EQ(FRAME_MntRegSetAndEventProc("late", drain, &second), QURN_OK);
  fault::arm("poll", EINVAL);  // as where no descriptor may be opened
  eventfd_write(fd_, 1);
  EXPECT_TRUE(eventually([] { return second.calls == 1 && first.calls == 1; }));
  EXPECT_EQ(recorded::count("Epoll wait unsuccessfully."), 0U) << "it went on";
}

TEST_F(EventSets, NamesFunctionsAndDescriptorsAreChecked) {
  const std::string tooLong(128, 'n');
  event_.data.u64 = 42;
  recorded::watch([](const std::string& what) {
    if (what == "free" && recorded::count("copy setName") == 1) {
      FRAME_MntRegSetAndEventProc("allowed", drain, nullptr);  // the lock is free again
    }
  });
  EXPECT_CODES(Codes(3, QURN_FAILED), FRAME_MntRegSetAndEventProc(tooLong.c_str(), drain, nullptr),
               FRAME_MntRegSetAndEventProc(nullptr, drain, nullptr),
               change(EPOLL_CTL_ADD, tooLong));
  EXPECT_TRUE(event_.data.u64 == 42 && event_.events == 0) << "untouched";
  EXPECT_EQ(FRAME_MntRegSetAndEventProc("set", nullptr, nullptr), QURN_INVALID_ARGUMENT);
  EXPECT_EQ(change(EPOLL_CTL_MOD), QURN_FAILED);
  EXPECT_EQ(event_.data.ptr, nullptr);
  const std::string name = "Use secure function to copy setName unsuccessfully.";
  EXPECT_TEXTS(100, name, name, name, "Event process function is NULL.",
               "Frame mnt operate epoll event unsuccessfully.(errno = 2)");
  EXPECT_EQ(recorded::blocksHeld(), held_ + 1);
  const std::string longest(127, 'n');
  event_.events = 0;  // becomes readable and edge-triggered
  EXPECT_CODES((Codes{0, 0, 0x80000001}),
               FRAME_MntRegSetAndEventProc(longest.c_str(), drain, nullptr),
               change(EPOLL_CTL_ADD, longest), event_.events);
}

TEST_F(EventSets, RecordsAreReleasedOnceTheKernelHasLetGoOfThem) {
  const auto held = [&] { return recorded::blocksHeld() - held_; };
  EXPECT_CODES(Codes(3, QURN_OK), change(EPOLL_CTL_ADD), change(EPOLL_CTL_MOD),
               change(EPOLL_CTL_MOD));
  EXPECT_EQ(held(), 1U);
  ASSERT_EQ(FRAME_MntEpollCtl("set", EPOLL_CTL_DEL, fd_, nullptr), QURN_OK);
  EXPECT_EQ(held(), 0U);
  EXPECT_CODES(Codes(2, QURN_OK), change(EPOLL_CTL_ADD), change(EPOLL_CTL_DEL));
  EXPECT_EQ(held(), 0U);
}

// Two registrations of one number, the older kept alive by a duplicate; the older one is taken out.
TEST_F(EventSets, ARecordOfANumberUsedTwiceIsReleasedWhenTheKernelTellsWhichOneWent) {
  static Seen seen;
  ASSERT_EQ(FRAME_MntRegSetAndEventProc("newer", drain, &seen), QURN_OK);
  held_ = recorded::blocksHeld();
  ASSERT_EQ(change(EPOLL_CTL_ADD, "older"), QURN_OK);
  const int older = dup(fd_);
  const int newer = eventfd(0, EFD_NONBLOCK);
  dup2(newer, fd_);
  ASSERT_EQ(change(EPOLL_CTL_ADD, "newer"), QURN_OK);
  dup2(older, fd_);
  fault::arm("open", EACCES);  // the kernel cannot be asked
  ASSERT_EQ(FRAME_MntEpollCtl("older", EPOLL_CTL_DEL, fd_, nullptr), QURN_OK);
  EXPECT_EQ(recorded::blocksHeld(), held_ + 2);
  ASSERT_EQ(change(EPOLL_CTL_ADD, "older"), QURN_OK);
  ASSERT_EQ(FRAME_MntEpollCtl("older", EPOLL_CTL_DEL, fd_, nullptr), QURN_OK);
  EXPECT_EQ(recorded::blocksHeld(), held_ + 1);
  dup2(newer, fd_);
  eventfd_write(newer, 1);
  EXPECT_TRUE(eventually([] { return seen.calls == 1; }));
}

TEST_F(EventSets, NumbersUsedTwiceAreSettledForMostOfThemAtOnce) {
  constexpr size_t kNumbers = 300;
  std::vector<int> numbers(kNumbers);
  for (int& fd : numbers) {
    fd = eventfd(0, EFD_NONBLOCK);
    epoll_event event{EPOLLIN, {}};
    ASSERT_EQ(FRAME_MntEpollCtl("older", EPOLL_CTL_ADD, fd, &event), QURN_OK);
    ASSERT_TRUE(dup(fd) >= 0 && dup2(fd_, fd) == fd);
    ASSERT_EQ(FRAME_MntEpollCtl("newer", EPOLL_CTL_ADD, fd, &event), QURN_OK);
  }
  for (const int fd : numbers) {
    ASSERT_EQ(FRAME_MntEpollCtl("newer", EPOLL_CTL_DEL, fd, nullptr), QURN_OK);
    EXPECT_GE(recorded::blocksHeld() - held_, kNumbers);
  }
  EXPECT_LE(recorded::blocksHeld() - held_, kNumbers + kNumbers / 5);
}

TEST_F(EventSets, AFunctionMayUseItsEventToRemoveTheDescriptor) {
  static std::atomic<uint32_t> answer{QURN_FAILED};
  static size_t blocksAfterwards = 0;
  static const int fd = fd_;
  const auto remove = [](epoll_event* event, void*) -> uint32_t {
    const uint32_t removed = FRAME_MntEpollCtl("set", EPOLL_CTL_DEL, fd, event);
    blocksAfterwards = recorded::blocksHeld();
    return answer = removed;
  };
  ASSERT_EQ(FRAME_MntRegSetAndEventProc("set", remove, nullptr), QURN_OK);
  held_ = recorded::blocksHeld();
  ASSERT_EQ(change(EPOLL_CTL_ADD), QURN_OK);
  eventfd_write(fd_, 1);
  EXPECT_TRUE(eventually([this] { return answer == QURN_OK && recorded::blocksHeld() == held_; }));
  EXPECT_EQ(blocksAfterwards, held_ + 1) << "the record lives as long as its event";
}

// The sanitizers see a record that is released under the dispatcher's hands.
TEST_F(EventSets, DescriptorsMayChangeWhileTheirEventsAreBeingDispatched) {
  static std::atomic<int> calls{0};
  const auto count = [](epoll_event*, void*) -> uint32_t {
    ++calls;
    return 0;
  };
  ASSERT_EQ(FRAME_MntRegSetAndEventProc("busy", count, nullptr), QURN_OK);
  std::vector<std::jthread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([] {
      const int fd = eventfd(1, EFD_NONBLOCK);
      while (calls < 200 && !HasFailure()) {
        epoll_event event{EPOLLIN, {}};
        EXPECT_EQ(FRAME_MntEpollCtl("busy", EPOLL_CTL_ADD, fd, &event), QURN_OK);
        EXPECT_EQ(FRAME_MntEpollCtl("busy", EPOLL_CTL_MOD, fd, &event), QURN_OK);
        std::this_thread::yield();
        EXPECT_EQ(FRAME_MntEpollCtl("busy", EPOLL_CTL_DEL, fd, nullptr), QURN_OK);
      }
    });
  }
}

// What it answers is ignored.
uint32_t countRun(void* runs) { return static_cast<uint32_t>(++*static_cast<int*>(runs)); }

class Timer : public testing::Test {
 protected:
  void SetUp() override {
    frozen_clock::start();
    ASSERT_EQ(FRAME_TimerCtrlInit(&ctrl_), QURN_OK);
    ASSERT_EQ(create(20), QURN_OK);
  }
  void TearDown() override {
    FRAME_TimerCtrlRuin(ctrl_);
    EXPECT_TRUE(recorded::blocksHeld() == 0 && fcntl(fd_, F_GETFD) == -1);
  }
  uint32_t create(uint32_t periodMs) {
    return FRAME_TimerCreate(ctrl_, periodMs, countRun, &runs_, &fd_);
  }
  // The timer created last is served so long after the last time.
  void serve(int64_t afterMs) {
    pollfd readable{fd_, POLLIN, 0};
    ASSERT_EQ(poll(&readable, 1, 10000), 1);
    frozen_clock::advance(afterMs);
    FrameTimerHookTriggerByFd(ctrl_, fd_);
  }

  FrameTimerCtrl* ctrl_ = nullptr;
  int32_t fd_ = -1;
  int runs_ = 0;
};

TEST_F(Timer, ExpiresFirstAndThenAtItsPeriodAndIsNotMadeWhenAStepFails) {
  itimerspec armed{};
  ASSERT_EQ(create(1500), QURN_OK);
  ASSERT_EQ(timerfd_gettime(fd_, &armed), 0);
  const timespec& interval = armed.it_interval;
  EXPECT_TRUE(interval.tv_sec == 1 && interval.tv_nsec == 500'000'000 &&
              armed.it_value.tv_sec == 1);

  const int next = dup(fd_);
  close(next);
  recorded::watch([next](const std::string& what) {
    EXPECT_TRUE(what.find("node malloc") == what.npos || fcntl(next, F_GETFD) == -1)
        << "closed before it is told";
  });
  for (const char* call : {"timerfd_create", "timerfd_settime", "TOV_MemAllocF"}) {
    fault::arm(call, EMFILE);
    EXPECT_EQ(create(10), QURN_FAILED) << call;
  }
  fault::arm("TOV_MemAllocF", ENOMEM);
  EXPECT_EQ(FRAME_TimerCtrlInit(&ctrl_), QURN_FAILED);
}

TEST_F(Timer, RunsItsHookOnceAReadinessAndSaysWhenItWasKeptWaitingForThreePeriods) {
  const int first = fd_;
  ASSERT_EQ(create(20), QURN_OK);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // more than one expiration
  serve(59);
  FrameTimerHookTriggerByFd(ctrl_, first + fd_ + 100);  // nobody's
  EXPECT_TRUE(runs_ == 1 && recorded::lines().empty());
  serve(60);
  EXPECT_EQ(runs_, 2);
  EXPECT_TRUE(recorded::has(80, "Timer hook trigger delay. (elasped time = 60)"));
}

TEST_F(Timer, GoesOnWithoutTheClockAndWithoutAnExpiration) {
  fault::arm("clock_gettime", EPERM);
  serve(0);
  EXPECT_ERROR("Timer current time get unsuccessfully. (errno = 1)");
  EXPECT_EQ(runs_, 1);

  itimerspec never{};
  timerfd_settime(fd_, 0, &never, nullptr);
  fcntl(fd_, F_SETFL, O_NONBLOCK);
  FrameTimerHookTriggerByFd(ctrl_, fd_);
  EXPECT_ERROR("Timer restart failed -1.");
  EXPECT_EQ(runs_, 2);
}

TEST(TimespecDiff, CountsWholeMillisecondsTowardZeroWithACap) {
  constexpr time_t kThirtyDays = time_t{30} * 86400;
  constexpr time_t kFarthest = std::numeric_limits<time_t>::max();
  const std::tuple<timespec, timespec, int64_t> cases[] = {
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
      {{kFarthest, 5'000'000}, {kFarthest, 7'999'999}, 2}};
  for (const auto& [start, end, expected] : cases) {
    EXPECT_EQ(FRAME_GetTimespecDiff(&start, &end), expected);
  }
}

}  // namespace
