// Forks while the monitor runs and every lock of the library and its platform may be held: the
// child goes on, is not reported, and can start up anew.
#include <gtest/gtest.h>
#include <qurnadapt/qurnadapt.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <tovplatform/stand_in.h>
#include <unistd.h>

#include <atomic>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "support/emulated.h"

namespace {

// ThreadSanitizer and the emulator start no thread in the child of a process that had several.
// AddressSanitizer's allocator has locks that stay held in the child when another thread has one.
#if defined(__SANITIZE_THREAD__)
constexpr bool kNoThreadsInChild = true;
#else
constexpr bool kNoThreadsInChild = kEmulated;
#endif
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAllocatorSurvivesFork = false;
#else
constexpr bool kAllocatorSurvivesFork = true;
#endif

std::binary_semaphore g_insidePass{0};
std::binary_semaphore g_goOn{0};

void stopInsidePass(uint64_t /*threadId*/, uint32_t /*tid*/, uint32_t /*elapsedMs*/,
                    uint32_t /*policy*/) {
  g_insidePass.release();
  g_goOn.acquire();
}

// Everything that takes a lock, once; false where an answer is wrong.
bool useEverything(FrameDeadloopHandle self) {
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

// The exit status of a child that does this within 20 seconds.
template <typename Action>
int inChild(Action action) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(20);
    _exit(action());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

std::atomic<int> g_hooked{0};

uint32_t countHook(FrameDeadloopHandle* /*handle*/, uint64_t /*threadId*/, uint32_t /*elapsedMs*/) {
  return static_cast<uint32_t>(++g_hooked);
}

// A monitor of the child's own, up to the hook of its report.
int startAnew(FrameDeadloopHandle self) {
  Frame_RegThreadDeadloopWarningHook(nullptr);
  if (Frame_SetHeartbeatToMon(&self, 1, 1, 1) != QURN_OK ||
      Frame_RegDeadloopInfoHook(&self, countHook) != QURN_OK || FRAME_MntInit() != QURN_OK) {
    return 1;
  }
  while (g_hooked == 0) {
  }
  return 0;
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
  FrameDeadloopHandle self = 0;
  Frame_RegThreadDeadloopWarningHook(stopInsidePass);
  ASSERT_EQ(Frame_SetHeartbeatToMon(&self, 1, 1, 60), QURN_OK);
  g_insidePass.acquire();
  EXPECT_EQ(inChild([&] { return useEverything(self) ? 0 : 1; }), 0);
  // Silent far beyond the third threshold: nobody watches in the child.
  EXPECT_EQ(inChild([&] {
              Frame_RegThreadDeadloopWarningHook(nullptr);
              Frame_SetHeartbeatToMon(&self, 1, 1, 1);
              sleep(3);
              return FrameGetDeadloopStatus() == FRAME_DEADLOOP_STATUS_IDLE ? 0 : 1;
            }),
            0);
  // The event loop is the parent's.
  EXPECT_EQ(inChild([] {
              epoll_event event{};
              return FRAME_MntEpollCtl("set", EPOLL_CTL_ADD, 0, &event) == QURN_FAILED ? 0 : 1;
            }),
            0);
  if (!kNoThreadsInChild) {
    EXPECT_EQ(inChild([&] { return startAnew(self); }), 0);
  }
  g_goOn.release();
  EXPECT_EQ(Frame_StopHeartbeatToMon(&self), QURN_OK) << "the parent's monitor goes on";
}

TEST_F(Fork, AtAnyMomentOfOtherThreadsTheChildDoesNotHang) {
  if (!kAllocatorSurvivesFork) {
    GTEST_SKIP();
  }
  constexpr int kWorkers = 4;
  constexpr int kForks = 100;
  std::atomic<bool> stop{false};
  std::vector<std::thread> workers;
  for (int i = 0; i < kWorkers; ++i) {
    workers.emplace_back([&stop] {
      FrameDeadloopHandle self = 0;
      while (!stop) {
        EXPECT_TRUE(useEverything(self));
      }
      EXPECT_EQ(Frame_SetHeartbeatToMon(&self, 1, 1, 1), QURN_OK);
      EXPECT_EQ(Frame_StopHeartbeatToMon(&self), QURN_OK);
    });
  }
  for (int i = 0; i < kForks; ++i) {
    ASSERT_EQ(inChild([] { return useEverything(0) ? 0 : 1; }), 0) << i;
  }
  stop = true;
  for (std::thread& worker : workers) {
    worker.join();
  }
}

}  // namespace
