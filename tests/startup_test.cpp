// Start-up, the signals that it ignores, the detection thread's set-up, and the order of a tick.
#include <fcntl.h>
#include <sys/prctl.h>

#include "support/in_child.h"
#include "support/library_test.h"

namespace {

uint32_t noteKeepAlive(void* /*param*/) {
  char thread[16];
  prctl(PR_GET_NAME, thread);
  recorded::note("keep-alive on " + std::string(thread));
  return 0;
}

TEST(Startup, RunsOneDetectionThreadUnderItsNameWhichTicksAtItsPeriod) {
  ASSERT_EQ(FRAME_KeepAliveProcSet(1, noteKeepAlive, nullptr), QURN_OK);
  startDetection(20);
  EXPECT_EQ(FRAME_MntInit(), QURN_OK) << "once more, without a second thread";
  const size_t before = recorded::events().size();
  EXPECT_TRUE(eventually([&] { return recorded::events().size() >= before + 6; }));
  EXPECT_EQ(recorded::events()[0], "keep-alive on tovDeadloopTask");
  EXPECT_EQ(fault::calls("epoll_create"), 1);
}

TEST(Startup, LeavesTheHostsSignalsToTheHostsThreads) {
  startDetection(20);
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  kill(getpid(), SIGTERM);
  const timespec most{10, 0};
  EXPECT_EQ(sigtimedwait(&signals, nullptr, &most), SIGTERM);
}

TEST(Startup, APeriodCanBeSetOnceAndOnlyBefore) {
  EXPECT_CODES((Codes{QURN_FAILED, 0, QURN_FAILED, 0, QURN_FAILED}), FrameSetDeadloopPeriodDelay(0),
               FrameSetDeadloopPeriodDelay(3000), FrameSetDeadloopPeriodDelay(4000),
               FrameDeadloopInit(), FrameSetDeadloopPeriodDelay(4000));
  EXPECT_TEXTS(100, "Deadloop periodDelay is invalid. (value = 0)",
               "Deadloop periodDelay is already inited, set periodDelay unsuccessfully.",
               "Deadloop is already inited, set periodDelay unsuccessfully.");
  EXPECT_EQ(FrameChooseDeadloopDetectTime(), 3000U);
}

TEST(Startup, OfTwoThatSetThePeriodAtOnceOneWinsAndTheOtherIsTold) {
  for (int run = 0; run < 200 && !HasFailure(); ++run) {
    EXPECT_TRUE(inChild([] {
      std::atomic<int> ready{0};
      std::atomic<int> accepted{0};
      const auto set = [&] {
        for (++ready; ready < 2;) {
        }
        accepted += FrameSetDeadloopPeriodDelay(3000) == QURN_OK ? 1 : 0;
      };
      std::thread other(set);
      set();
      other.join();
      return accepted == 1 && recorded::texts(100).size() == 1;
    }));
  }
}

TEST(Startup, TakesTurnsSharesItsResultAndCanBeTriedAgain) {
  static std::thread second;
  static std::atomic<uint32_t> shared{0};
  fault::onStrike([] {
    EXPECT_EQ(FRAME_MntInit(), QURN_FAILED) << "from within a step";
    second = std::thread([] { shared = FRAME_MntInit(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(shared, 0U) << "it waits";
    const auto beginsAfresh = [] { return FRAME_MntInit() == QURN_OK; };
    EXPECT_TRUE(kSanitizers == "thread" || inChild(beginsAfresh));
  });
  fault::arm("TOV_DeadLoopRegCapability", EIO);
  EXPECT_EQ(FRAME_MntInit(), 0x77U);
  second.join();
  EXPECT_EQ(shared, 0x77U);
  EXPECT_EQ(recorded::count("Frame register deadloop capability unsuccessfully, ret=0x77."), 1U);
  EXPECT_EQ(FRAME_MntInit(), QURN_OK);
}

TEST(Startup, EachStepTellsOfItsFailureOnALineOfItsOwn) {
  configure("{}");
  // How often the call succeeds before, and the call.
  for (const char* step : {"0TovYamlLoadFile", "1TovYamlLoadFile", "0TOV_DeadLoopRegCapability",
                           "0TOV_MemAllocF", "0pthread_create"}) {
    fault::arm(step + 1, EIO, *step - '0');
    EXPECT_NE(FRAME_MntInit(), QURN_OK) << step;
  }
  EXPECT_EQ(recorded::sourceLines("unsuccessfully, ret="), 5U);
  EXPECT_EQ(recorded::count("cannot get yaml handle. (path = " + testing::TempDir() + "/qurn"), 2U);
}

TEST(ProcessIdentity, ReadsTheNameUpToABlankAndNeverBeyondTheBuffer) {
  const std::string status = testing::TempDir() + "/qurn-status-" + std::to_string(getpid());
  redirectFile("/status", status.c_str());
  uint32_t pid = 0;
  for (const std::string name : {"loop", "thirty_one_letters_are_the_most"}) {
    std::ofstream(status) << "Name:\t" << name << (name == "loop" ? " host\n" : "_\n");
    for (uint32_t capacity = 0; capacity <= 32; ++capacity) {
      std::string text(33, '#');
      FrameGetProcInfo(&pid, text.data(), capacity);
      EXPECT_EQ(text.c_str(), capacity > name.size() ? name : std::string(33, '#')) << capacity;
      EXPECT_EQ(text[capacity], '#') << capacity;
    }
  }
  EXPECT_EQ(pid, static_cast<uint32_t>(getpid()));
  pid = 7;
  FrameGetProcInfo(&pid, nullptr, 32);
  EXPECT_EQ(pid, 7U);
}

TEST(DetectionThread, GivesBackWhatOthersRegisteredWhenItsSetUpFails) {
  static const int fd = eventfd(0, 0);
  static const int next = dup(fd);
  close(next);
  FrameSetDeadloopPeriodDelay(1000);
  fault::onStrike([] {
    epoll_event event{};
    EXPECT_CODES(Codes(3, 0), FRAME_MntRegSetAndEventProc("set", FrameTimerEventProc, nullptr),
                 FRAME_MntEpollCtl("set", EPOLL_CTL_ADD, fd, &event),
                 FRAME_MntEpollCtl("set", EPOLL_CTL_MOD, fd, &event));
    fault::arm("pthread_mutex_destroy", EBUSY);
    fault::onStrike([] { EXPECT_EQ(fcntl(next, F_GETFD), -1) << "the loop is closed first"; });
  });
  fault::arm("timerfd_create", EMFILE);
  onThread("set-up", [] { FrameDeadloopTaskProcEntry(nullptr); });
  EXPECT_EQ(fault::calls("pthread_mutex_destroy"), 1);
  EXPECT_EQ(recorded::blocksHeld(), 0U);
  EXPECT_EQ(dup(fd), next) << "a descriptor stays open";
}

TEST(Tick, ReportsKeepAliveThenPassesThenChecksForExit) {
  frozen_clock::start();
  ASSERT_EQ(FRAME_KeepAliveProcSet(1, noteKeepAlive, nullptr), QURN_OK);
  ASSERT_EQ(FrameSetDeadloopPeriodDelay(1), QURN_OK);
  onThread("worker", [] {
    FrameDeadloopHandle self = 0;
    ASSERT_EQ(Frame_SetHeartbeatToMon(&self, 1, 5, 9), QURN_OK);
    FrameMonitorTaskInfo own{};
    EXPECT_EQ(FrameIsTerminatedTaskReleased(&own), 1U) << "nobody's, and so none of the watched";
    frozen_clock::advance(1000);
    recorded::forget();
    EXPECT_EQ(FrameDeadloopDetectCallback(nullptr), QURN_OK);
  });
  // Before the pass, for the node that is measured, and after its first threshold.
  const std::string kept = "keep-alive on worker";
  EXPECT_EQ(recorded::events(), (Texts{kept, kept, kept, "exit check"}));
  EXPECT_EQ(recorded::count("trigger first threshold timeout"), 1U);
}

// As after a stop of the process; the guard gets its heartbeats meanwhile.
TEST(Tick, GivesThreadsTheTimeByWhichItIsLateBeforeItJudgesThem) {
  frozen_clock::start();
  ASSERT_EQ(FrameSetDeadloopPeriodDelay(100), QURN_OK);
  ASSERT_EQ(FRAME_KeepAliveProcSet(
                400, [](void*) { return recorded::note("keep-alive"), 0U; }, nullptr),
            QURN_OK);
  const auto tickAfter = [](int64_t milliseconds) {
    frozen_clock::advance(milliseconds);
    recorded::forget();
    FrameDeadloopDetectCallback(nullptr);
    return recorded::events();
  };
  const std::string kept = "keep-alive";
  const std::string over = "exit check";
  EXPECT_EQ(tickAfter(5000), (Texts{kept, over})) << "the first tick is never late";
  EXPECT_EQ(tickAfter(120), Texts{over}) << "usual";
  EXPECT_EQ(tickAfter(121), (Texts{"asleep for 21", over}));
  EXPECT_EQ(tickAfter(60'000),
            (Texts{kept, "asleep for 400", kept, "asleep for 400", kept, "asleep for 200", over}))
      << "a second at most";
  EXPECT_EQ(tickAfter(100), Texts{over}) << "in time again";
  frozen_clock::oversleep(60'000, 1);
  EXPECT_EQ(tickAfter(121), (Texts{kept, "asleep for 21", kept, "asleep for 400", kept,
                                   "asleep for 400", kept, "asleep for 200", over}))
      << "stopped again meanwhile";
  frozen_clock::oversleep(90, 1000);
  EXPECT_LT(tickAfter(190).size(), 50U) << "every sleep is late";
}

TEST(IgnoredSignals, NoLongerDisturbTheProcessUpToTheFirstBadEntry) {
  const std::string bad = "Signal ignore operation, signame not support ignore. (sigName = ";
  const std::string empty = "Signal ignore operation, signame empty.";
  const std::tuple<const char*, uint32_t, Texts> cases[] = {
      {"", 0, {}},
      {"other: 1", 0, {}},
      {"exception:", 0, {}},
      {"exception: {signalIgnore: SIGINT}", 0, {}},
      {"exception: {signalIgnore: [SIGTTIN, SIGSYS, SIGTTOU, SIGPIPE, SIGPIPE]}", 0, {}},
      {"exception: {signalIgnore: [SIGHUP, SIGTERM]}", QURN_FAILED, {bad + "SIGTERM)"}},
      {"exception: {signalIgnore: [sigpipe]}", QURN_FAILED, {bad + "sigpipe)"}},
      {"exception: {signalIgnore: [SIGPIPE, '']}", 2, {empty}},
      {"exception: {signalIgnore: [[SIGPIPE]]}", 2, {empty}}};
  for (const auto& [yaml, code, says] : cases) {
    recorded::forget();
    configure(yaml);
    EXPECT_EQ(FrameExceptionInit(), code) << yaml;
    EXPECT_EQ(recorded::texts(100), says) << yaml;
  }
  EXPECT_EQ(raise(SIGHUP) + raise(SIGSYS) + raise(SIGPIPE), 0) << "still here";
  EXPECT_EQ(signal(SIGTERM, SIG_DFL), SIG_DFL);
  EXPECT_EQ(FrameSignalIgnoreFunc(1, nullptr, nullptr), 1U);
}

}  // namespace
