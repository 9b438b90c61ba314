// The dead-loop signal, its handler, what it captures, and the scan for the stack. What a report
// names is for the hard cases.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <thread>

#include "internal/machine_context.h"
#include "support/faults.h"
#include "support/recording_platform.h"

#if defined(__SANITIZE_THREAD__)
constexpr bool kDelaysSignals = true;  // and shows the handler a context of its own making
#else
constexpr bool kDelaysSignals = false;
#endif

namespace {

using Texts = std::vector<std::string>;

const int kSignal = SIGRTMIN + 2;

class SignalCapture : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(FrameDeadloopInit(), QURN_OK); }
  // Captures `thread` and writes the report to the log.
  static void captureAndReport(pthread_t thread) {
    recorded::forget();
    ASSERT_EQ(FrameThreadDeadloopPrint(thread), QURN_OK);
    ASSERT_TRUE(
        eventually([] { return FrameGetDeadloopStatus() == FRAME_DEADLOOP_STATUS_CAPTURED; }));
    FrameWriteDeadloopInfo();
    EXPECT_EQ(FrameGetDeadloopStatus(), FRAME_DEADLOOP_STATUS_IDLE);
  }
};

void expectReportHeader() {
  const std::vector<recorded::Line> lines = recorded::lines();
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(lines[0].level, 40U);
  EXPECT_EQ(lines[0].text.rfind("Signal " + std::to_string(kSignal) + " send to thread ", 0), 0U);
  for (size_t i = 1; i < lines.size(); ++i) {
    EXPECT_TRUE(lines[i].unsuppressed && lines[i].level == 80) << lines[i].text;
  }
  EXPECT_EQ(lines[1].text.rfind("Signal " + std::to_string(kSignal) + " is captured at 20", 0), 0U);
  EXPECT_EQ(lines[1].text.substr(lines[1].text.size() - 2), "..");
}

TEST_F(SignalCapture, AThreadInASystemCallIsCapturedAndGoesOnWaiting) {
  if (kDelaysSignals) {
    GTEST_SKIP() << "until the call returns";
  }
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  std::atomic<ssize_t> got{-1};
  std::thread stuck([&] {
    char byte = 0;
    got = read(ends[0], &byte, 1);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  captureAndReport(stuck.native_handle());
  EXPECT_EQ(got, -1) << "the call is restarted";
  EXPECT_EQ(write(ends[1], "x", 1), 1);
  stuck.join();
  EXPECT_EQ(got, 1);
  expectReportHeader();
}

// ---- two handlers at once: the first is held up in its walk while the second asks for the record

std::atomic<bool> g_holdWalk{false};
std::atomic<bool> g_walking{false};
bool g_walkIsPretended = false;
uint32_t g_pretendedDepth = 0;
uint64_t* g_walkResult = nullptr;  // in the block that the record is in too

}  // namespace

extern "C" uint32_t KEM_ExceptCallStackGetEx(void* context, uint32_t most, uint32_t option,
                                             uint64_t* addresses, uint32_t* depth) {
  while (g_holdWalk) {
    g_walking = true;
  }
  g_walking = false;
  g_walkResult = addresses;
  if (g_walkIsPretended) {
    *depth = g_pretendedDepth;
    return QURN_OK;
  }
  static auto* const next = reinterpret_cast<decltype(&KEM_ExceptCallStackGetEx)>(
      dlsym(RTLD_NEXT, "KEM_ExceptCallStackGetEx"));
  return next(context, most, option, addresses, depth);
}

namespace {

void letTheFirstHandlerFinish() {
  g_holdWalk = false;
  EXPECT_TRUE(
      eventually([] { return FrameGetDeadloopStatus() == FRAME_DEADLOOP_STATUS_CAPTURED; }));
}

TEST_F(SignalCapture, AHandlerWaitsItsTurnForFiveSecondsAtMost) {
  ucontext_t context;
  siginfo_t info{};
  getcontext(&context);
  g_holdWalk = true;
  std::thread first([&] { FrameDeadLoopSignalHandle(kSignal, &info, &context); });
  ASSERT_TRUE(eventually([] { return g_walking.load(); }));
  FrameDeadLoopSignalHandle(kSignal, &info, &context);
  EXPECT_EQ(sleeps(), 5);
  EXPECT_EQ(FrameGetDeadloopStatus(), FRAME_DEADLOOP_STATUS_IDLE) << "it gave up";

  onSleep(7, letTheFirstHandlerFinish);
  FrameDeadLoopSignalHandle(kSignal, &info, &context);
  EXPECT_EQ(sleeps(), 7) << "it got its turn, and left the finished record alone";
  first.join();
  FrameWriteDeadloopInfo();
  FrameDeadLoopSignalHandle(kSignal, &info, &context);
  EXPECT_EQ(FrameGetDeadloopStatus(), FRAME_DEADLOOP_STATUS_CAPTURED) << "the flag is free again";
}

TEST_F(SignalCapture, InvalidThreadsAndFailedSignalsLeaveTheStatusIdle) {
  recorded::forget();
  EXPECT_EQ(FrameThreadDeadloopPrint(0), QURN_FAILED);
  EXPECT_EQ(FrameThreadDeadloopPrint(~pthread_t{0}), QURN_FAILED);
  fault::arm("pthread_kill", ESRCH);
  EXPECT_EQ(FrameThreadDeadloopPrint(pthread_self()), QURN_FAILED);
  const std::string self = std::to_string(static_cast<uint32_t>(pthread_self()));
  EXPECT_EQ(
      recorded::texts(100),
      (Texts{"Thread deadloop print unsuccessfully, thread 0 or parameter is invalid.",
             "Thread deadloop print unsuccessfully, thread ffffffff or parameter is invalid.",
             "Signal " + std::to_string(kSignal) + " send to thread " + self + " unsuccessfully.",
             "Thread deadloop send signal unsuccessfully. (ret=4294967295)"}));
  EXPECT_EQ(FrameGetDeadloopStatus(), FRAME_DEADLOOP_STATUS_IDLE);
}

// Names the registers as the system does, and numbers them as the record's readers do.
void fillByHand(mcontext_t& machine) {
#if defined(__x86_64__)
  for (int i = 0; i < NGREG; ++i) {
    machine.gregs[i] = 100 + i;
  }
#else
  machine.fault_address = 100;
  for (uint64_t i = 0; i <= 30; ++i) {
    machine.regs[i] = 101 + i;
  }
  machine.sp = 132;
  machine.pc = 133;
  machine.pstate = 134;
#endif
}

// The record of the last capture, which lies in one block with the walk's result.
const FrameDeadloopDumpInfo& record() {
  uint64_t* addresses = nullptr;
  char* text = nullptr;
  FrameDeadloopDumpInfo* info = nullptr;
  free(FrameDeadloopStackMemAlloc(&addresses, &text, &info));
  return *reinterpret_cast<FrameDeadloopDumpInfo*>(
      reinterpret_cast<char*>(g_walkResult) +
      (reinterpret_cast<char*>(info) - reinterpret_cast<char*>(addresses)));
}

TEST_F(SignalCapture, OnlyTheWholeSignalCaptures) {
  ucontext_t context;
  siginfo_t info{};
  getcontext(&context);
  FrameDeadLoopSignalHandle(kSignal, nullptr, &context);
  FrameDeadLoopSignalHandle(kSignal, &info, nullptr);
  FrameDeadLoopSignalHandle(kSignal + 1, &info, &context);
  EXPECT_EQ(FrameGetDeadloopStatus(), FRAME_DEADLOOP_STATUS_IDLE);
  FrameDeadLoopSignalHandle(kSignal, &info, &context);
  EXPECT_EQ(FrameGetDeadloopStatus(), FRAME_DEADLOOP_STATUS_CAPTURED);
  EXPECT_LT(record().stackDumpStart, reinterpret_cast<uint64_t>(&context));
  EXPECT_NE(record().stackDumpStart, 0U);
  EXPECT_EQ(record().callStack[0].address, qurn::machineWords(&context)[qurn::kProgramCounterWord]);
}

TEST(Capture, NeedsItsMemoryWhichIsMadeOnce) {
  ucontext_t context;
  siginfo_t info{};
  getcontext(&context);
  EXPECT_EQ(FrameThreadDeadloopPrint(pthread_self()), QURN_FAILED);
  FrameDeadLoopSignalHandle(kSignal, &info, &context);
  EXPECT_EQ(FrameGetDeadloopStatus(), FRAME_DEADLOOP_STATUS_IDLE);
  EXPECT_EQ(recorded::texts().size(), 1U);
  EXPECT_EQ(FrameDeadloopInit(), QURN_OK);
  EXPECT_EQ(FrameDeadloopInit(), QURN_OK);
  EXPECT_EQ(recorded::texts(80), Texts{"Deadloop is already inited."});
  EXPECT_EQ(recorded::blocksHeld(), 1U);
}

TEST_F(SignalCapture, IsReportedInTwoLinesAndOneForEachFrameThatTheRecordHolds) {
  ucontext_t context;
  siginfo_t info{};
  getcontext(&context);
  g_walkIsPretended = true;
  for (const uint32_t depth : {0U, 20U, 21U, 0xFFFFFFFFU}) {
    g_pretendedDepth = depth;
    FrameDeadLoopSignalHandle(kSignal, &info, &context);
    recorded::forget();
    FrameWriteDeadloopInfo();
    EXPECT_EQ(recorded::count("Captured process: "), 1U);
    EXPECT_EQ(recorded::count("#"), std::min(depth, FRAME_CALL_STACK_DEPTH));
  }
}

TEST_F(SignalCapture, RecordsTheMachineContextWordForWord) {
  ucontext_t context{};
  siginfo_t signal{};
  fillByHand(context.uc_mcontext);
  sigfillset(&context.uc_sigmask);
  FrameDeadLoopSignalHandle(kSignal, &signal, &context);
#if defined(__x86_64__)
  constexpr uint64_t kStackPointer = 115;
#else
  constexpr uint64_t kStackPointer = 132;
#endif
  // Beyond the context too, whatever stands there.
  EXPECT_EQ(memcmp(record().registers, &context.uc_mcontext, 288), 0);
  EXPECT_EQ(FrameStackSpGet(record().registers), kStackPointer);
}

TEST(StackSlice, LiesAroundTheStackPointerInsideTheStack) {
  struct Case {
    uint64_t sp, start, size, expectedStart;
    uint32_t expectedLength;
  };
  const Case cases[] = {
      {0x10000, 0x8000, 0x10000, 0x10000 - 512, 2048},
      {0x8000 + 511, 0x8000, 0x10000, 0x8000, 2048},
      {0x18000 - 1536, 0x8000, 0x10000, 0x18000 - 2048, 2048},
      {0x18000 - 100, 0x8000, 0x10000, 0x18000 - 612, 612},
      {0x18000 + 512, 0x8000, 0x10000, 0x18000, 0},
      {511, 0, 0x1000, 0, 2048},
      {100, 16, 64, 16, 64},
  };
  for (const Case& slice : cases) {
    uint64_t start = 0;
    uint32_t length = FRAME_STACK_DUMP_BYTES;
    FrameDumpStackInfoGet(slice.sp, slice.start, slice.size, &start, &length);
    EXPECT_EQ(start, slice.expectedStart) << slice.sp;
    EXPECT_EQ(length, slice.expectedLength) << slice.sp;
  }
}

TEST(StackSlice, IsCopiedFromTheCallersOwnStackAndLeftOutWhenItsBoundsAreUnknown) {
  onThread("slice", [] {
    static FrameDeadloopDumpInfo record;
    volatile uint64_t marker[300] = {};
    for (uint64_t i = 0; i < 300; ++i) {
      marker[i] = 0xABCD0000 + i;
    }
    uint32_t length = 77;
    record.registers[qurn::kStackPointerWord] = reinterpret_cast<uint64_t>(&marker[64]);
    EXPECT_EQ(FrameStackSpGet(record.registers), record.registers[qurn::kStackPointerWord]);
    redirectFile("/maps", "/dev/null");
    FrameStackMemoryGet(&record, &length);
    EXPECT_EQ(length, 77U);
    EXPECT_EQ(record.stackDumpStart, 0U);
    redirectFile("/maps", nullptr);
    FrameStackMemoryGet(&record, &length);
    EXPECT_EQ(length, 2048U);
    EXPECT_EQ(record.stackDumpStart, reinterpret_cast<uint64_t>(&marker[0]));
    uint64_t last = 0;
    memcpy(&last, record.stackBytes + 2040, sizeof(last));
    EXPECT_EQ(last, 0xABCD0000 + 255U);
  });
}

TEST(CallStackEntries, HaveNoGaps) {
  static FrameDeadloopDumpInfo record;
  const uint64_t addresses[] = {1, 0, 2, 0, 0, 3};
  FrameStackContentGet(&record, addresses, 6);
  EXPECT_EQ(record.callStack[0].address, 1U);
  EXPECT_EQ(record.callStack[1].address, 2U);
  EXPECT_EQ(record.callStack[2].address, 3U);
  EXPECT_EQ(record.callStack[3].address, 0U);
}

std::string hex(uint64_t value) {
  char text[17];
  snprintf(text, sizeof(text), "%lx", value);
  return text;
}

std::string line(uint64_t start, uint64_t end, const std::string& rest = " rw-p 0 00:00 0\n") {
  return hex(start) + "-" + hex(end) + rest;
}

// What the scan finds for the calling thread in a map of this content.
FrameTaskStackInfo scan(const std::string& map) {
  const std::string path = testing::TempDir() + "/qurn-maps-" + std::to_string(getpid());
  std::ofstream(path) << map;
  redirectFile("/maps", path.c_str());
  FrameTaskStackInfo info{0, 0};
  FrameTaskStackInfoGet(&info);
  redirectFile("/maps", nullptr);
  return info;
}

TEST(MemoryMap, TheFirstLineAroundTheThreadIdentifierWins) {
  const uint64_t key = pthread_self();
  const uint64_t start = key - 0x1000;
  const uint64_t end = key + 0x1000;
  const std::string others = line(0x1000, 0x2000) + "no map line\n" + line(key, end) +
                             line(start, key) + hex(start) + "-" + hex(end) + "rw-p\n";
  struct Case {
    const char* what;
    std::string map;
    bool found;
  };
  const Case cases[] = {
      {"empty", "", false},
      {"bounds are not inside", others, false},
      {"a line among others", others + line(start, end) + line(start - 1, end + 1), true},
      {"no newline at the end", others + line(start, end, " "), true},
      {"blanks of other kinds", line(start, end, "\t\r\n"), true},
      {"a newline is no blank", line(start, end, "\n"), false},
      {"behind a line longer than a read",
       line(1, 2, " " + std::string(600, 'x') + "\n") + line(start, end), true},
      // The byte behind a read without a newline is given up; it would be a digit.
      {"within such a line", std::string(511, 'x') + "f" + line(start, end), true},
      {"not at its first character", "x" + line(start, end), false},
      {"digits beyond the sixteenth",
       std::string(16 - hex(start).size(), '0') + hex(start) + "f-" + hex(end) + " ", true},
  };
  for (const Case& map : cases) {
    SCOPED_TRACE(map.what);
    const FrameTaskStackInfo info = scan(map.map);
    EXPECT_EQ(info.start, map.found ? start : 0);
    EXPECT_EQ(info.size, map.found ? 0x2000U : 0);
  }
}

TEST(MemoryMap, AFailingSeekOrAMissingFileFindsNothing) {
  fault::arm("lseek", EIO);
  const uint64_t key = pthread_self();
  EXPECT_EQ(scan(line(1, 2) + line(key - 1, key + 1)).start, 0U);
  redirectFile("/maps", "/nonexistent");
  FrameTaskStackInfo info{0, 0};
  FrameTaskStackInfoGet(&info);
  EXPECT_EQ(info.size, 0U);
}

TEST(HexDigit, IsOneOfTwentyTwoCharacters) {
  const std::string digits = "0123456789abcdef0123456789ABCDEF";
  for (int c = 1; c < 256; ++c) {
    const size_t place = digits.find(static_cast<char>(c));
    const auto value = place == std::string::npos ? -1 : static_cast<int32_t>(place % 16);
    EXPECT_EQ(FrameGetHexStrValue(static_cast<char>(c)), value) << c;
    EXPECT_EQ(FrameIsHexNum(static_cast<char>(c)), value >= 0) << c;
  }
}

TEST(MapPath, NeedsItsRoom) {
  char path[32];
  const std::string expected = "/proc/" + std::to_string(getpid()) + "/maps";
  EXPECT_TRUE(FrameProcMapsFileGet(path, sizeof(path)));
  EXPECT_EQ(path, expected);
  for (uint32_t capacity = 1; capacity <= expected.size(); ++capacity) {
    EXPECT_FALSE(FrameProcMapsFileGet(path, capacity)) << capacity;
  }
}

}  // namespace
