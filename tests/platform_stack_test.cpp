// The stand-in platform's call stacks and stack bounds.
#include <gtest/gtest.h>
#include <qurnadapt/platform.h>
#include <qurnadapt/qurnadapt.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdarg>
#include <fstream>
#include <thread>
#include <vector>

#include "common/machine_context.h"
#include "support/in_child.h"
#include "support/interpose.h"

namespace {

// ---- call stack

// Made-up contexts: whatever the registers say, the walk reads nothing that it must not read.
TEST(CallStack, SurvivesGarbageRegisters) {
  uint64_t addresses[20];
  uint32_t none = 0;
  EXPECT_NE(KEM_ExceptCallStackGetEx(nullptr, 20, 0, addresses, &none), QURN_OK);
  const auto here = reinterpret_cast<uint64_t>(__builtin_frame_address(0));
  for (const uint64_t framePointer :
       {uint64_t{0}, uint64_t{1}, uint64_t{8}, here, here + 1, here + 8, here + (1U << 20U),
        ~uint64_t{0}, ~uint64_t{0} - 15, uint64_t{1} << 46U}) {
    for (const uint64_t stackPointer : {uint64_t{0}, here, framePointer}) {
      ucontext_t context{};
      auto* words = reinterpret_cast<uint64_t*>(&context.uc_mcontext);
      words[qurn::kProgramCounterWord] = 0x1234;
      words[qurn::kFramePointerWord] = framePointer;
      words[qurn::kStackPointerWord] = stackPointer;
      uint32_t depth = 0;
      EXPECT_EQ(KEM_ExceptCallStackGetEx(&context, 20, 0, addresses, &depth), QURN_OK);
      EXPECT_GE(depth, 1U);
      EXPECT_EQ(addresses[0], 0x1234U);
    }
  }
}

// A walk is going on nearly all the time; what this thread does meanwhile is none of its business.
class BesideWalks : public testing::Test {
 protected:
  BesideWalks() { setHandler(recover); }

  static void setHandler(void (*handler)(int), int flags = 0) {
    struct sigaction own {};
    own.sa_handler = handler;
    own.sa_flags = flags;
    sigaction(SIGSEGV, &own, nullptr);
  }
  static struct sigaction current() {
    struct sigaction now {};
    sigaction(SIGSEGV, nullptr, &now);
    return now;
  }
  static void recover(int) {
    ++g_faults;
    siglongjmp(g_back, 1);
  }
  static void fault() {
    static const volatile uintptr_t nowhere = 64;
    *reinterpret_cast<volatile int*>(nowhere) = 1;
  }
  // Whether each fault has reached the handler that recovers.
  static bool recovers(int faults) {
    g_faults = 0;
    for (g_done = 0; g_done < faults; ++g_done) {
      if (sigsetjmp(g_back, 1) == 0) {
        fault();
      }
    }
    return g_faults == faults;
  }

  static inline sigjmp_buf g_back{};
  static inline int g_faults = 0;
  static inline int g_done = 0;
  static inline struct sigaction g_chained {};
  static void walk(const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      uint64_t addresses[20];
      uint32_t depth = 0;
      ucontext_t context;
      getcontext(&context);
      EXPECT_EQ(KEM_ExceptCallStackGetEx(&context, 20, 0, addresses, &depth), QURN_OK);
    }
  }
  std::jthread walker_{walk};
};

TEST_F(BesideWalks, FaultsReachTheirHandlerAndSoTheyDoThroughOneThatHandsOn) {
  if (std::string(QURN_SANITIZE) == "thread") {
    GTEST_SKIP() << "it keeps a handler in two steps, and a fault may come between them";
  }
  EXPECT_TRUE(recovers(2000));
  while (current().sa_handler == recover) {
  }
  struct sigaction handingOn {};
  handingOn.sa_flags = SA_SIGINFO;
  handingOn.sa_sigaction = [](int sig, siginfo_t* info, void* context) {
    (g_chained.sa_flags & SA_SIGINFO) != 0 ? g_chained.sa_sigaction(sig, info, context)
                                           : g_chained.sa_handler(sig);
  };
  sigaction(SIGSEGV, &handingOn, &g_chained);
  EXPECT_TRUE(recovers(2000));
  walker_ = {};
  EXPECT_EQ(current().sa_sigaction, handingOn.sa_sigaction);
}

TEST_F(BesideWalks, AChildHasItsOwnHandlersAndOneThatIsToRunOnceRunsOnce) {
  for (int i = 0; i < 50; ++i) {
    EXPECT_TRUE(inChild([] { return current().sa_handler == recover; }));
  }
  static std::atomic<int>& runs = *static_cast<std::atomic<int>*>(
      mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  for (int i = 0; kThreadsInChild && i < 20; ++i) {
    runs = 0;
    EXPECT_FALSE(inChild([] {
      setHandler([](int) { ++runs; }, static_cast<int>(SA_RESETHAND | SA_NODEFER));
      const std::jthread walker(walk);
      usleep(1000);
      fault();
      return true;
    }));
    EXPECT_TRUE(runs == 1 || runs == 2) << runs << ", the second just when a walk ended";
  }
}

// ---- stack bounds

std::atomic<bool> g_kernelAnswers{true};
std::atomic<size_t> g_longestRead{0};
std::atomic<size_t> g_seeks{0};

}  // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list more;
  va_start(more, request);
  void* const argument = va_arg(more, void*);
  va_end(more);
  errno = ENOTTY;
  return g_kernelAnswers ? static_cast<int>(syscall(SYS_ioctl, fd, request, argument)) : -1;
}
INTERPOSE(ssize_t, read, (int fd, void* bytes, size_t count), (fd, bytes, count),
          g_longestRead = std::max(g_longestRead.load(), count))
INTERPOSE(off_t, lseek, (int fd, off_t offset, int whence), (fd, offset, whence), ++g_seeks)

namespace {

std::pair<uint64_t, uint64_t> mappingOf(uint64_t address) {
  std::ifstream maps("/proc/thread-self/maps");
  uint64_t start = 0;
  uint64_t end = 0;
  char hyphen = 0;
  for (std::string rest; maps >> std::hex >> start >> hyphen >> end && std::getline(maps, rest);) {
    if (start <= address && address < end) {
      return {start, end};
    }
  }
  return {};
}

// What is told, with the kernel's answer and without.
struct Asked {
  uint64_t here;
  std::array<FrameTaskStackInfo, 2> told;
  size_t longestRead;
  size_t seeks;
};

Asked askHere() {
  Asked asked{reinterpret_cast<uint64_t>(__builtin_frame_address(0)), {}, 0, 0};
  g_longestRead = g_seeks = 0;
  for (const bool kernelAnswers : {true, false}) {
    g_kernelAnswers = kernelAnswers;
    KEM_TaskStackInfoGet(0, &asked.told[kernelAnswers ? 0 : 1]);
  }
  asked.longestRead = g_longestRead;
  asked.seeks = g_seeks;
  return asked;
}

Asked askOnAnotherStack() {
  static Asked asked;
  static std::vector<char> memory(1U << 18U);
  const stack_t other{memory.data(), 0, memory.size()};
  stack_t before{};
  sigaltstack(&other, &before);
  struct sigaction on {};
  on.sa_handler = [](int) { asked = askHere(); };
  on.sa_flags = SA_ONSTACK;
  sigaction(SIGUSR1, &on, nullptr);
  raise(SIGUSR1);
  sigaltstack(&before, nullptr);
  return asked;
}

void expectMappingOf(uint64_t address, const Asked& asked) {
  const auto [start, end] = mappingOf(address);
  for (const FrameTaskStackInfo& told : asked.told) {
    EXPECT_TRUE(told.start == start && told.start + told.size == end);
  }
  EXPECT_TRUE(asked.longestRead <= 1024 && asked.seeks == 0) << "in one pass";
}

TEST(StackBounds, AreTheMappingInUseOnTheFirstThreadAndThatOfTheControlBlockOnOthers) {
  FrameTaskStackInfo scanned{0, 0};
  EXPECT_NE(KEM_TaskStackInfoGet(1, &scanned), QURN_OK);
  for (const Asked& asked : {askHere(), askOnAnotherStack()}) {
    expectMappingOf(asked.here, asked);
  }
  std::thread([&scanned] {
    for (const Asked& asked : {askHere(), askOnAnotherStack()}) {
      expectMappingOf(pthread_self(), asked);
      FrameTaskStackInfoGet(&scanned);
      EXPECT_TRUE(asked.told[1].start == scanned.start && asked.told[1].size == scanned.size);
    }
  }).join();
}

}  // namespace
