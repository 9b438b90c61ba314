// Forks while the monitor runs and every lock of the library and its platform may be held: the
// child goes on, is not reported, and can start up anew.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <qurnadapt/qurnadapt.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/single_threaded.h>
#include <sys/time.h>
#include <tovplatform/stand_in.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <mutex>
#include <semaphore>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "common/fork_mutex.h"
#include "support/in_child.h"
#include "support/interpose.h"

namespace {

std::binary_semaphore g_insidePass{0};
std::binary_semaphore g_goOn{0};

void stopInsidePass(uint64_t /*threadId*/, uint32_t /*tid*/, uint32_t /*elapsedMs*/,
                    uint32_t /*policy*/) {
  g_insidePass.release();
  g_goOn.acquire();
}

// Everything that takes a lock, once; false where an answer is wrong.
bool useEverything() {
  FrameDeadloopHandle self = 0;
  ZotKemLogPrint("from the child or a worker");
  const std::string name = std::to_string(gettid());
  ZotHandleRecord* module = nullptr;
  if (ZOT_HandleInitializeByName(name.c_str(), &module) != QURN_OK) {
    return false;
  }
  void* block = ZOT_Malloc_F(reinterpret_cast<uintptr_t>(module), 0, 100, "fork_test", __LINE__);
  const uint32_t handle = nbb_create_handle(&self);
  const bool good = Frame_SetHeartbeatToMon(&self, 100, 200, 300) == QURN_OK &&
                    Frame_SendHeartbeatToMon(&self) == QURN_OK &&
                    FrameSetDetectSwitch(self, 0) == QURN_OK &&
                    FrameSetDetectSwitch(self, 1) == QURN_OK && handle != 0 && block != nullptr;
  Frame_RegThreadDeadloopHook(nullptr);
  nbb_destroy_handle(handle);
  ZOT_Free_F(block, "fork_test", __LINE__);
  return ZOT_HandleFinalize(module) == QURN_OK && good;
}

// Of the two registered threads the forking one only.
bool keepsItsRegistration() {
  const FrameDeadloopHandle self = 1;
  return Frame_SendHeartbeatToMon(&self) == QURN_OK && FrameSetDetectSwitch(0, 0) == QURN_FAILED;
}

// ---- holders of locks that never let go

enum class Stuck { kNowhere, kChangingATable, kReadingATable };
std::atomic<Stuck> g_stuck{Stuck::kNowhere};
std::binary_semaphore g_isStuck{0};
uint32_t g_oldHandle = 0;

std::atomic<void (*)()> g_inside{nullptr};  // run once, within a change of a table
std::atomic<bool> g_isGood{false};

void stayIn(Stuck place) {
  if (g_stuck == place) {
    g_stuck = Stuck::kNowhere;
    g_isStuck.release();
    pause();
  }
}

}  // namespace

extern "C" void* KEM_MemAlloc_F(uint32_t handleId, uint8_t partition, uintptr_t size,
                                const char* file, uint32_t line) {
  static auto* const next = real<decltype(KEM_MemAlloc_F)>("KEM_MemAlloc_F");
  if (std::string_view(file) == "ssp_ptr_hdl") {
    stayIn(Stuck::kChangingATable);
    if (auto* const action = g_inside.exchange(nullptr); action != nullptr) {
      action();
    }
  }
  return next(handleId, partition, size, file, line);
}

extern "C" void LOG_InnerPrint(uint32_t /*moduleId*/, const char* /*file*/, uint32_t /*fileLen*/,
                               const char* /*func*/, uint32_t /*funcLen*/, uint32_t /*line*/,
                               uint32_t /*level*/, const char* format, ...) {
  if (std::string_view(format).ends_with("Invalid handle value, ignore.")) {
    stayIn(Stuck::kReadingATable);
  }
}

namespace {

bool startsTablesAnew() {
  return nbb_validate_handle(g_oldHandle) == nullptr && nbb_handle_initialize() == 1 &&
         useEverything();
}
bool findsTablesWhole() { return nbb_validate_handle(g_oldHandle) != nullptr && useEverything(); }

// Silent far beyond the third threshold.
bool isNotReported() {
  FrameDeadloopHandle self = 0;
  Frame_RegThreadDeadloopWarningHook(nullptr);
  Frame_SetHeartbeatToMon(&self, 1, 1, 1);
  sleep(3);
  return FrameGetDeadloopStatus() == FRAME_DEADLOOP_STATUS_IDLE;
}

bool hasNoEventLoop() {
  epoll_event event{};
  return FRAME_MntEpollCtl("set", EPOLL_CTL_ADD, 0, &event) == QURN_FAILED;
}

// The parent's timer and epoll instance, told by what their descriptors are.
bool hasNoDescriptorOfTheLoop() {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;  // as is the directory's own
    const std::string what = std::filesystem::read_symlink(entry.path(), gone);
    if (what.ends_with("[timerfd]") || what.ends_with("[eventpoll]")) {
      return false;
    }
  }
  return true;
}

// A worker that has promised no heartbeat in the child.
bool startsAnewUnwatched() {
  Frame_RegThreadDeadloopWarningHook(nullptr);
  char name[FRAME_TASK_NAME_LEN];
  prctl(PR_GET_NAME, name);
  const bool good =
      FRAME_UpdateDeadloopThresholdByName(name, 1, 1, 1) == QURN_OK && FRAME_MntInit() == QURN_OK;
  for (unsigned left = 3; left != 0; left = sleep(left)) {  // the signal would end it
  }
  return good;
}

std::atomic<bool> g_hooked{false};
std::atomic<bool> g_letsSignalsIn{false};

// What it starts is to take signals as the host does.
uint32_t hook(FrameDeadloopHandle* /*handle*/, uint64_t /*threadId*/, uint32_t /*elapsedMs*/) {
  sigset_t blocked;
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  g_letsSignalsIn = sigismember(&blocked, SIGTERM) == 0;
  g_hooked = true;
  return 0;
}

// A monitor of the child's own, up to the hook of its report.
bool startsAnew() {
  FrameDeadloopHandle self = 0;
  Frame_RegThreadDeadloopWarningHook(nullptr);
  const bool good = Frame_SetHeartbeatToMon(&self, 1, 1, 1) == QURN_OK &&
                    Frame_RegDeadloopInfoHook(&self, hook) == QURN_OK && FRAME_MntInit() == QURN_OK;
  while (good && !g_hooked) {
  }
  return good && g_letsSignalsIn;
}

// Also of a fork, in which the handler may use the tables. With a second thread the C library
// itself would hang: it holds the allocator's locks meanwhile.
TEST(ForkOfOneThread, FromAHandlerAtAnyMomentTheChildGoesOn) {
  if (__libc_single_threaded == 0 || kSanitizers == "thread") {
    GTEST_SKIP();
  }
  static std::atomic<int> forks{0};
  ASSERT_NE(nbb_handle_initialize(), 0U);
  g_oldHandle = nbb_create_handle(&g_oldHandle);
  signal(SIGPROF, [](int) {
    const bool isWhole = forks < 100 || nbb_validate_handle(g_oldHandle) != nullptr;
    g_isGood = inChild(findsTablesWhole) && isWhole && (g_isGood || forks == 0);
    ++forks;
  });
  const itimerval soon{{}, {0, 500}};
  while (forks < 200) {
    setitimer(ITIMER_PROF, &soon, nullptr);
    for (const int done = forks; done == forks;) {
      forks < 100 ? nbb_validate_handle(g_oldHandle) != nullptr : inChild([] { return true; });
    }
  }
  EXPECT_TRUE(g_isGood);
}

class Fork : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(nbb_handle_initialize(), 0U);
    ASSERT_EQ(FrameSetDeadloopPeriodDelay(10), QURN_OK);
    ASSERT_EQ(FRAME_MntInit(), QURN_OK);
  }
};

TEST_F(Fork, DuringAPassTheChildGoesOnUnreportedAndMayStartAnew) {
  std::binary_semaphore registered{0};
  const std::jthread other([&registered](const std::stop_token& stop) {
    FrameDeadloopHandle slot = 0;
    EXPECT_EQ(Frame_SetHeartbeatToMon(&slot, 60, 60, 60), QURN_OK);
    registered.release();
    while (!stop.stop_requested()) {
      usleep(1000);
    }
  });
  registered.acquire();
  FrameDeadloopHandle self = 0;
  Frame_RegThreadDeadloopWarningHook(stopInsidePass);
  ASSERT_EQ(Frame_SetHeartbeatToMon(&self, 1, 1, 60), QURN_OK);
  g_insidePass.acquire();
  EXPECT_TRUE(inChild(keepsItsRegistration));
  EXPECT_TRUE(inChild(useEverything));
  EXPECT_TRUE(inChild(isNotReported));
  EXPECT_TRUE(inChild(hasNoEventLoop));
  EXPECT_TRUE(inChild(hasNoDescriptorOfTheLoop));
  EXPECT_TRUE(!kThreadsInChild || inChild(startsAnew));
  EXPECT_TRUE(!kThreadsInChild || inChild(startsAnewUnwatched));
  g_goOn.release();
  EXPECT_EQ(Frame_StopHeartbeatToMon(&self), QURN_OK) << "the parent's monitor goes on";
}

// The thread that changes a table is in the platform's allocator, the other in its log.
TEST_F(Fork, BesideAThreadThatNeverLeavesATableTheChildGoesOn) {
  if (!kThreadsInChild || !kAllocatorSurvivesFork) {
    GTEST_SKIP();
  }
  for (const auto& [where, asks] : {std::pair{Stuck::kReadingATable, &findsTablesWhole},
                                    std::pair{Stuck::kChangingATable, &startsTablesAnew}}) {
    EXPECT_TRUE(inChild([place = where, isGood = asks] {
      g_oldHandle = nbb_create_handle(&g_oldHandle);
      g_stuck = place;
      std::thread([] {
        nbb_validate_handle(0);
        for (;;) {
          nbb_create_handle(&g_oldHandle);
        }
      }).detach();
      g_isStuck.acquire();
      return inChild(isGood);
    }));
  }
}

// While it waits for room in what standard error leads to, a handler holds it up for good.
TEST_F(Fork, BesideAThreadThatNeverEndsItsLogLineTheChildGoesOn) {
  if (!kThreadsInChild || !kAllocatorSurvivesFork) {
    GTEST_SKIP();
  }
  EXPECT_TRUE(inChild([] {
    int ends[2];
    const bool isFull = pipe2(ends, O_NONBLOCK) == 0 && dup2(ends[1], STDERR_FILENO) > 0 &&
                        write(ends[1], std::string(1U << 20U, '.').data(), 1U << 20U) > 0;
    signal(SIGUSR1, [](int) {
      g_isStuck.release();
      pause();
    });
    std::thread stuck([] { ZotKemLogPrint("for good"); });
    usleep(50000);
    pthread_kill(stuck.native_handle(), SIGUSR1);
    stuck.detach();
    g_isStuck.acquire();
    ZotKemLogPrint("dropped, as nobody else is to get stuck");
    return isFull &&
           inChild([] { return dup2(open("/dev/null", O_WRONLY), 2) == 2 && useEverything(); });
  }));
}

TEST_F(Fork, FromWithinATableOrTheLogTheChildGoesOn) {
  EXPECT_TRUE(inChild([] {
    g_oldHandle = nbb_create_handle(&g_oldHandle);
    g_inside = [] { g_isGood = inChild(startsTablesAnew); };
    while (g_inside != nullptr) {
      nbb_create_handle(&g_oldHandle);
    }
    return g_isGood.load();
  }));
}

// As of a host that loads the platform late.
TEST_F(Fork, HandlersThatWereThereFirstMayUseWhatIsHeldForTheFork) {
  static constinit qurn::ForkMutex mutex;
  static constexpr auto kUse = [] { const std::lock_guard lock(mutex); };
  EXPECT_TRUE(inChild([] {
    pthread_atfork(kUse, kUse, kUse);
    qurn::holdAcrossFork<[]() -> qurn::ForkMutex& { return mutex; }>();
    alarm(20);
    const bool isFreeInChild = inChild([] { return (kUse(), true); });
    kUse();
    return isFreeInChild;
  }));
}

TEST_F(Fork, AtAnyMomentOfOtherThreadsTheChildDoesNotHang) {
  if (!kAllocatorSurvivesFork) {
    GTEST_SKIP();
  }
  std::vector<std::jthread> workers(4);
  for (std::jthread& worker : workers) {
    worker = std::jthread([](const std::stop_token& stop) {
      FrameDeadloopHandle self = 0;
      while (!stop.stop_requested()) {
        EXPECT_TRUE(useEverything());
      }
      EXPECT_EQ(Frame_SetHeartbeatToMon(&self, 1, 1, 1), QURN_OK);
      EXPECT_EQ(Frame_StopHeartbeatToMon(&self), QURN_OK);
    });
  }
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(inChild(useEverything)) << i;
  }
}

}  // namespace
