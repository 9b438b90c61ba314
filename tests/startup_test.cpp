// Start-up, the signals that it ignores, the detection thread's set-up, and the order of a tick.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <set>
#include <thread>

#include "support/faults.h"
#include "support/recording_platform.h"

namespace {

int detectionThreads() {
  DIR* tasks = opendir("/proc/self/task");
  int found = 0;
  while (const dirent* task = readdir(tasks)) {
    std::ifstream comm(std::string("/proc/self/task/") + task->d_name + "/comm");
    std::string name;
    found += std::getline(comm, name) && name == "tovDeadloopTask" ? 1 : 0;
  }
  closedir(tasks);
  return found;
}

uint32_t noteKeepAlive(void* /*param*/) {
  recorded::note("keep-alive");
  return 0;
}

TEST(Startup, RunsTheDetectionThreadUnderItsNameAndTicksAtItsPeriod) {
  startDetection(20);
  EXPECT_EQ(FRAME_MntInit(), QURN_OK) << "once more, without a second thread";
  EXPECT_EQ(detectionThreads(), 1);
  const size_t before = recorded::events().size();
  EXPECT_TRUE(eventually([&] { return recorded::events().size() >= before + 3; }));
}

TEST(Startup, APeriodCanBeSetOnceAndOnlyBefore) {
  EXPECT_EQ(FrameSetDeadloopPeriodDelay(0), QURN_FAILED);
  EXPECT_ERROR("Deadloop periodDelay is invalid. (value = 0)");
  EXPECT_EQ(FrameSetDeadloopPeriodDelay(3000), QURN_OK);
  EXPECT_EQ(FrameSetDeadloopPeriodDelay(4000), QURN_FAILED);
  EXPECT_ERROR("Deadloop periodDelay is already inited, set periodDelay unsuccessfully.");
  ASSERT_EQ(FrameDeadloopInit(), QURN_OK);
  EXPECT_EQ(FrameSetDeadloopPeriodDelay(4000), QURN_FAILED);
  EXPECT_ERROR("Deadloop is already inited, set periodDelay unsuccessfully.");
  EXPECT_EQ(FrameChooseDeadloopDetectTime(), 3000U);
}

TEST(Startup, OfTwoThatSetThePeriodAtOnceOneWinsAndTheOtherIsTold) {
  for (int run = 0; run < 200 && !HasFailure(); ++run) {
    const pid_t child = fork();
    if (child == 0) {
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
      _exit(accepted == 1 && recorded::texts(100).size() == 1 ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
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
#if !defined(__SANITIZE_THREAD__)  // where such a child may start no thread
    const pid_t child = fork();
    if (child == 0) {
      _exit(FRAME_MntInit() == QURN_OK ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << "the child of a fork begins afresh";
#endif
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
  const std::pair<const char*, int> failures[] = {{"TovYamlLoadFile", 0},
                                                  {"TovYamlLoadFile", 1},
                                                  {"TOV_DeadLoopRegCapability", 0},
                                                  {"TOV_MemAllocF", 0},
                                                  {"pthread_create", 0}};
  for (const auto& [call, after] : failures) {
    fault::arm(call, EIO, after);
    EXPECT_NE(FRAME_MntInit(), QURN_OK) << call;
  }
  EXPECT_EQ(recorded::sourceLines("unsuccessfully, ret="), std::size(failures));
}

TEST(Startup, ThePeriodIsTenSecondsWhenNobodySetsIt) {
  ASSERT_EQ(FrameDeadloopInit(), QURN_OK);
  EXPECT_EQ(FrameChooseDeadloopDetectTime(), 10000U);
}

TEST(ProcessIdentity, ReadsTheNameUpToABlankAndNeverBeyondTheBuffer) {
  uint32_t pid = 0;
  char name[32] = "";
  prctl(PR_SET_NAME, "loop host");
  FrameGetProcInfo(&pid, name, sizeof(name));
  EXPECT_EQ(pid, static_cast<uint32_t>(getpid()));
  EXPECT_STREQ(name, "loop");

  prctl(PR_SET_NAME, "fifteen_letters");
  for (uint32_t capacity = 0; capacity <= 16; ++capacity) {
    char guarded[32];
    memset(guarded, '#', sizeof(guarded));
    FrameGetProcInfo(&pid, guarded, capacity);
    EXPECT_EQ(guarded[capacity], '#') << capacity;
    EXPECT_EQ(std::string(guarded, 15), capacity == 16 ? "fifteen_letters" : std::string(15, '#'));
  }
  pid = 7;
  FrameGetProcInfo(&pid, nullptr, 32);
  EXPECT_EQ(pid, 7U);

  const std::string status = testing::TempDir() + "/qurn-status-" + std::to_string(getpid());
  std::ofstream(status) << "Name:\t" << std::string(40, 'n') << "\n";
  redirectFile("/status", status.c_str());
  FrameGetProcInfo(&pid, name, sizeof(name));
  EXPECT_EQ(name, std::string(31, 'n'));
}

TEST(DetectionThread, GivesBackWhatOthersRegisteredWhenItsSetUpFails) {
  static const int fd = eventfd(0, 0);
  FrameSetDeadloopPeriodDelay(1000);
  fault::onStrike([] {
    epoll_event event{};
    EXPECT_EQ(FRAME_MntRegSetAndEventProc("set", FrameTimerEventProc, nullptr), QURN_OK);
    EXPECT_EQ(FRAME_MntEpollCtl("set", EPOLL_CTL_ADD, fd, &event), QURN_OK);
    EXPECT_EQ(FRAME_MntEpollCtl("set", EPOLL_CTL_MOD, fd, &event), QURN_OK);
  });
  fault::arm("timerfd_create", EMFILE);
  static const int next = dup(fd);
  close(next);
  recorded::watch([](const std::string& what) {
    if (what == "Timer fd create unsuccessfully, (errno = 24).") {
      fault::arm("pthread_mutex_destroy", EBUSY);
      fault::onStrike(
          [] { EXPECT_EQ(fcntl(next, F_GETFD), -1) << "the loop goes before its lock"; });
    }
  });
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
    frozen_clock::advance(1000);
    recorded::forget();
    EXPECT_EQ(FrameDeadloopDetectCallback(nullptr), QURN_OK);
  });
  // Before the pass, for the node that is measured, and after its first threshold.
  EXPECT_EQ(recorded::events(),
            (std::vector<std::string>{"keep-alive", "keep-alive", "keep-alive", "exit check"}));
  EXPECT_EQ(recorded::count("trigger first threshold timeout"), 1U);
}

class PluginRepair : public testing::TestWithParam<std::pair<uint32_t, int>> {};

TEST_P(PluginRepair, RunsAboutEveryTenSecondsOfTicks) {
  void* plugin = dlopen(FAKE_PLUGIN, RTLD_NOW | RTLD_GLOBAL);
  ASSERT_NE(plugin, nullptr) << dlerror();
  const int* runs = static_cast<int*>(dlsym(plugin, "repair_runs"));
  const auto [periodMs, runsInSixTicks] = GetParam();
  ASSERT_EQ(FrameSetDeadloopPeriodDelay(periodMs), QURN_OK);
  for (int tick = 0; tick < 6; ++tick) {
    FrameDeadloopDetectCallback(nullptr);
  }
  EXPECT_EQ(*runs, runsInSixTicks);
}

INSTANTIATE_TEST_SUITE_P(Periods, PluginRepair,
                         testing::Values(std::pair{20000U, 6}, std::pair{10000U, 6},
                                         std::pair{5000U, 3}, std::pair{3000U, 2},
                                         std::pair{1U, 0}));

TEST(PluginRepair, IsLookedUpOnceEvenWhenItIsMissing) {
  FrameRuloPluginCheckAndRepairDeadloop();
  void* plugin = dlopen(FAKE_PLUGIN, RTLD_NOW | RTLD_GLOBAL);
  ASSERT_NE(plugin, nullptr) << dlerror();
  FrameRuloPluginCheckAndRepairDeadloop();
  EXPECT_EQ(*static_cast<int*>(dlsym(plugin, "repair_runs")), 0);
}

// The standard signals that are handled or ignored; sanitizers handle some of their own.
std::set<int> handledSignals() {
  std::set<int> handled;
  for (int sig = 1; sig < 32; ++sig) {
    struct sigaction action {};
    sigaction(sig, nullptr, &action);
    if (action.sa_handler != SIG_DFL) {
      handled.insert(sig);
    }
  }
  return handled;
}

TEST(IgnoredSignals, AreAcceptedInOrderUpToTheFirstBadEntry) {
  struct Case {
    const char* yaml;
    uint32_t code;
    const char* message;
  };
  const Case cases[] = {
      {"", 0, nullptr},
      {"other: 1", 0, nullptr},
      {"exception:", 0, nullptr},
      {"exception: {signalIgnore: []}", 0, nullptr},
      {"exception: {signalIgnore: SIGINT}", 0, nullptr},
      {"exception: {signalIgnore: [SIGHUP, SIGTTIN, SIGSYS, SIGTTOU, SIGPIPE, SIGPIPE]}", 0,
       nullptr},
      {"exception: {signalIgnore: [SIGINT]}", QURN_FAILED,
       "Signal ignore operation, signame not support ignore. (sigName = SIGINT)"},
      {"exception: {signalIgnore: [sigpipe]}", QURN_FAILED,
       "Signal ignore operation, signame not support ignore. (sigName = sigpipe)"},
      {"exception: {signalIgnore: [SIGPIPE, '']}", 2, "Signal ignore operation, signame empty."},
      {"exception: {signalIgnore: [[SIGPIPE]]}", 2, "Signal ignore operation, signame empty."},
  };
  for (const Case& step : cases) {
    SCOPED_TRACE(step.yaml);
    recorded::forget();
    configure(step.yaml);
    EXPECT_EQ(FrameExceptionInit(), step.code);
    EXPECT_EQ(recorded::texts(), step.message == nullptr ? std::vector<std::string>{}
                                                         : std::vector<std::string>{step.message});
  }
  configure("{ not yaml");
  EXPECT_EQ(FrameExceptionInit(), QURN_FAILED);
  EXPECT_EQ(recorded::count("Exception operation, cannot get yaml handle. (path = "), 1U);
}

TEST(IgnoredSignals, NoLongerDisturbTheProcess) {
  std::set<int> expected = handledSignals();
  expected.insert({SIGHUP, SIGPIPE});
  configure("exception: {signalIgnore: [SIGPIPE, SIGHUP, SIGTERM]}");
  EXPECT_EQ(FRAME_MntInit(), QURN_FAILED) << "SIGTERM must not be ignored";
  EXPECT_EQ(handledSignals(), expected) << "those before it are";
  EXPECT_EQ(detectionThreads(), 0) << "start-up has stopped";
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  EXPECT_EQ(write(ends[1], "x", 1), -1);
  EXPECT_EQ(errno, EPIPE);
  EXPECT_EQ(raise(SIGHUP), 0);
  EXPECT_EQ(FrameSignalIgnoreFunc(1, nullptr, nullptr), 1U);
}

TEST(SignalNumbers, AreFoundByTheirExactNames) {
  uint32_t sigId = 99;
  EXPECT_EQ(FrameGetSigId("SIGRTMIN", &sigId), QURN_FAILED);
  EXPECT_EQ(FrameGetSigId("sighup", &sigId), QURN_FAILED);
  EXPECT_EQ(sigId, 99U);
  for (const auto& [name, number] :
       {std::pair{"SIG0", 0U}, std::pair{"SIGSYS", 31U}, std::pair{"SIGPIPE", 13U}}) {
    EXPECT_EQ(FrameGetSigId(name, &sigId), QURN_OK);
    EXPECT_EQ(sigId, number);
  }
}

}  // namespace
