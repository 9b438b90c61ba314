// The dead-loop signal, its handler, what it captures, and the scan for the stack. What a report
// names is for the hard cases.
#include <link.h>
#include <ucontext.h>

#include <numeric>
#include <optional>
#include <semaphore>

#include "adapt/frame/dbg/qurn_frame_mnt/capture_record.h"
#include "common/inspection_record.h"
#include "common/machine_context.h"
#include "support/library_test.h"

const int kSignal = SIGRTMIN + 2;
const std::string kSignalText = "Signal " + std::to_string(kSignal);

// The walk, which can be pretended, hands over the record too, which lies in one block with its
// result.
constexpr std::array<uint64_t, 6> kPretendedWalk{1, 0, 2, 0, 0, 3};
static std::optional<uint32_t> g_pretendedDepth;
static FrameDeadloopDumpInfo* g_record = nullptr;

static bool pretendsWalk(uint64_t* addresses, uint32_t* depth) {
  g_record = &reinterpret_cast<qurn::mnt::CaptureMemory*>(addresses)->dumpInfo;
  std::copy(kPretendedWalk.begin(), kPretendedWalk.end(), addresses);
  *depth = g_pretendedDepth.value_or(0);
  return g_pretendedDepth.has_value();
}

INTERPOSE(
    uint32_t, KEM_ExceptCallStackGetEx,
    (void* context, uint32_t most, uint32_t option, uint64_t* addresses, uint32_t* depth),
    (context, most, option, addresses, depth),
    if (pretendsWalk(addresses, depth)) { return QURN_OK; })

namespace {

bool raiseCaptures() { return raise(kSignal) == 0 && isCaptured(); }

// Looks between what a sanitizer has put around each variable, too.
__attribute__((no_sanitize("address"))) const uint64_t* find(uint64_t word, const uint64_t* at,
                                                             const uint64_t* end) {
  while (at != end && *at != word) {
    ++at;
  }
  return at;
}

// As those read it who look into the process from outside.
uint32_t storedDepth() {
  const auto findIn = [](dl_phdr_info* module, size_t /*bytes*/, void* depth) {
    const bool isLibrary = strstr(module->dlpi_name, "libqurnadapt") != nullptr;
    for (int i = 0; isLibrary && i < module->dlpi_phnum; ++i) {
      const ElfW(Phdr)& part = module->dlpi_phdr[i];
      const bool isData = part.p_type == PT_LOAD && (part.p_flags & PF_W) != 0;
      const auto* start = reinterpret_cast<const uint64_t*>(module->dlpi_addr + part.p_vaddr);
      const uint64_t* end = start + (isData ? part.p_filesz / sizeof(*start) : 0);
      uint64_t magic = 0;
      memcpy(&magic, qurn::inspection::kMagic.data(), sizeof(magic));
      if (const uint64_t* at = find(magic, start, end); at != end) {
        const auto& capture = reinterpret_cast<const qurn::inspection::Record*>(at)->capture;
        memcpy(depth, static_cast<const char*>(capture.address) + capture.depth, sizeof(uint32_t));
      }
    }
    return 0;
  };
  uint32_t depth = 0;
  dl_iterate_phdr(findIn, &depth);
  return depth;
}

class SignalCapture : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(FrameDeadloopInit(), QURN_OK); }
};

TEST_F(SignalCapture, AHandlerWaitsItsTurnForFiveSecondsAtMost) {
  static std::binary_semaphore holdsRecord{0};
  static std::binary_semaphore mayGoOn{0};
  fault::arm("KEM_TaskStackInfoGet", EIO);
  fault::onStrike([] {
    holdsRecord.release();
    mayGoOn.acquire();
  });
  std::thread first(raiseCaptures);
  holdsRecord.acquire();
  EXPECT_FALSE(raiseCaptures()) << "it gave up";
  EXPECT_EQ(sleeps(), 5);
  onSleep(7, [] {
    mayGoOn.release();
    EXPECT_TRUE(eventually(isCaptured));
  });
  raiseCaptures();
  EXPECT_EQ(sleeps(), 7) << "it got its turn, and left the finished record alone";
  first.join();
  FrameWriteDeadloopInfo();
  EXPECT_TRUE(raiseCaptures()) << "the flag is free again";
}

TEST_F(SignalCapture, InvalidThreadsAndFailedSignalsLeaveTheStatusIdle) {
  recorded::forget();
  fault::arm("pthread_kill", ESRCH);
  EXPECT_CODES(Codes(3, QURN_FAILED), FrameThreadDeadloopPrint(0),
               FrameThreadDeadloopPrint(~pthread_t{0}), FrameThreadDeadloopPrint(pthread_self()));
  const std::string self = std::to_string(static_cast<uint32_t>(pthread_self()));
  EXPECT_TEXTS(0, "Thread deadloop print unsuccessfully, thread 0 or parameter is invalid.",
               "Thread deadloop print unsuccessfully, thread ffffffff or parameter is invalid.",
               kSignalText + " send to thread " + self + ".",
               kSignalText + " send to thread " + self + " unsuccessfully.",
               "Thread deadloop send signal unsuccessfully. (ret=4294967295)");
  EXPECT_TRUE(recorded::texts(40).size() == 1 && recorded::texts(100).size() == 4);
  EXPECT_EQ(FrameGetDeadloopStatus(), FRAME_DEADLOOP_STATUS_IDLE);
}

TEST(Capture, NeedsItsSetUpWhichIsDoneOnce) {
  EXPECT_EQ(FrameThreadDeadloopPrint(pthread_self()), QURN_FAILED);
  ucontext_t context;
  siginfo_t info{};
  FrameDeadLoopSignalHandle(kSignal, &info, &context);
  EXPECT_TRUE(!isCaptured() && recorded::texts().size() == 1);
  fault::arm("sigaction", EINVAL, 1);
  EXPECT_CODES((Codes{QURN_FAILED, 0, 0}), FrameDeadloopInit(), FrameDeadloopInit(),
               FrameDeadloopInit());
  EXPECT_TEXTS(80, "Deadloop is already inited.");
  EXPECT_EQ(recorded::blocksHeld(), 1U);
  struct sigaction action {};
  sigaction(kSignal, nullptr, &action);
  EXPECT_NE(action.sa_flags & SA_RESTART, 0) << "a call that it interrupts goes on";
  EXPECT_EQ(FrameChooseDeadloopDetectTime(), 10000U) << "when nobody has set it";
}

TEST_F(SignalCapture, IsReportedInTwoLinesAndOneForEachFrameThatTheRecordHolds) {
  for (const uint32_t depth : {0U, 20U, 21U, 0xFFFFFFFFU}) {
    g_pretendedDepth = depth;
    EXPECT_EQ(FrameThreadDeadloopPrint(pthread_self()), QURN_OK);
    recorded::forget();
    FrameWriteDeadloopInfo();
    EXPECT_EQ(FrameGetDeadloopStatus(), FRAME_DEADLOOP_STATUS_IDLE);
    EXPECT_EQ(storedDepth(), depth) << "as the platform told it";
    const std::vector<recorded::Line> lines = recorded::lines();
    ASSERT_EQ(lines.size(), 2 + std::min(depth, FRAME_CALL_STACK_DEPTH));
    const std::string& first = lines[0].text;
    EXPECT_TRUE(first.starts_with(kSignalText + " is captured at 20") && first.ends_with(".."));
    EXPECT_TRUE(lines[1].text.starts_with("Captured process: ")) << lines[1].text;
    for (const recorded::Line& line : lines) {
      EXPECT_TRUE(line.unsuppressed && line.level == 80) << line.text;
    }
  }
}

TEST_F(SignalCapture, RecordsTheMachineContextWordForWord) {
  std::array<uint64_t, sizeof(ucontext_t) / 8> words{};
  std::iota(words.begin(), words.end(), 100);
  ucontext_t context;
  memcpy(&context, words.data(), sizeof(context));
  qurn::machineWords(&context)[qurn::kStackPointerWord] = reinterpret_cast<uint64_t>(&words);
  siginfo_t info{};
  g_pretendedDepth = kPretendedWalk.size();
  FrameDeadLoopSignalHandle(kSignal, nullptr, &context);
  FrameDeadLoopSignalHandle(kSignal, &info, nullptr);
  FrameDeadLoopSignalHandle(kSignal + 1, &info, &context);
  EXPECT_FALSE(isCaptured()) << "only the whole signal captures";
  FrameDeadLoopSignalHandle(kSignal, &info, &context);
  EXPECT_TRUE(isCaptured());
  // Beyond the context too, whatever stands there.
  EXPECT_EQ(memcmp(g_record->registers, &context.uc_mcontext, 288), 0);
  EXPECT_EQ(memcmp(g_record->stackBytes + 512, &words, 512), 0);
  for (const uint64_t place : {0U, 1U, 2U, 3U}) {
    EXPECT_EQ(g_record->callStack[place].address, (place + 1) % 4) << "no gaps";
  }
}

TEST(StackSlice, LiesAroundTheStackPointerInsideTheStackIfItsBoundsAreKnown) {
  const std::array<uint64_t, 5> cases[] = {{0x10000, 0x8000, 0x10000, 0x10000 - 512, 2048},
                                           {0x8000 + 511, 0x8000, 0x10000, 0x8000, 2048},
                                           {0x18000 - 1536, 0x8000, 0x10000, 0x18000 - 2048, 2048},
                                           {0x18000 - 100, 0x8000, 0x10000, 0x18000 - 612, 612},
                                           {0x18000 + 512, 0x8000, 0x10000, 0x18000, 0},
                                           {511, 0, 0x1000, 0, 2048},
                                           {100, 16, 64, 16, 64}};
  for (const auto& [sp, stack, size, expectedStart, expectedLength] : cases) {
    uint64_t start = 0;
    uint32_t length = FRAME_STACK_DUMP_BYTES;
    FrameDumpStackInfoGet(sp, stack, size, &start, &length);
    EXPECT_TRUE(start == expectedStart && length == expectedLength) << sp << ' ' << start;
  }

  onThread("slice", [] {
    static FrameDeadloopDumpInfo record;
    uint32_t length = 77;
    record.registers[qurn::kStackPointerWord] = reinterpret_cast<uint64_t>(&length);
    redirectFile("/maps", "/dev/null");
    FrameStackMemoryGet(&record, &length);
    EXPECT_TRUE(length == 77 && record.stackDumpStart == 0);
    redirectFile("/maps", nullptr);
    FrameStackMemoryGet(&record, &length);
    EXPECT_EQ(length, 2048U);
    length = 77;
    record.registers[qurn::kStackPointerWord] = 0;
    FrameStackMemoryGet(&record, &length);
    EXPECT_EQ(length, 77U) << "there is no stack";
  });
}

// Its start has all sixteen digits.
std::string line(uint64_t start, uint64_t end, const std::string& rest = " rw-p 0 00:00 0\n") {
  char bounds[40];
  snprintf(bounds, sizeof(bounds), "%016lx-%lx", start, end);
  return bounds + rest;
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
                             line(start, key) + line(start, end, "rw-p\n");
  const std::tuple<const char*, std::string, bool> cases[] = {
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
      {"digits beyond the sixteenth", line(start, end).insert(16, "f"), true}};
  for (const auto& [what, map, found] : cases) {
    const auto [from, size] = scan(map);
    EXPECT_TRUE(from == (found ? start : 0) && size == (found ? 0x2000 : 0)) << what;
  }
  fault::arm("lseek", EIO);
  EXPECT_EQ(scan(std::string(510, 'x') + "\n" + line(start, end)).start, 0U) << "read on";
  fault::arm("open", ENOENT);
  EXPECT_EQ(scan(line(start, end)).start, 0U);
}

TEST(MapCharacter, IsOneOfTwentyTwoHexDigitsOrThreeBlanks) {
  const std::string digits = "0123456789abcdef0123456789ABCDEF";
  for (int c = 1; c < 256; ++c) {
    const size_t place = digits.find(static_cast<char>(c));
    const auto value = place == std::string::npos ? -1 : static_cast<int32_t>(place % 16);
    EXPECT_EQ(FrameGetHexStrValue(static_cast<char>(c)), value) << c;
    EXPECT_EQ(FrameIsHexNum(static_cast<char>(c)), value >= 0) << c;
    EXPECT_EQ(FrameIsSpace(static_cast<char>(c)), c == ' ' || c == '\t' || c == '\r') << c;
  }
}

TEST(MapPath, NeedsItsRoom) {
  char path[32];
  const std::string expected = "/proc/" + std::to_string(getpid()) + "/maps";
  for (uint32_t capacity = 1; capacity <= expected.size() + 1; ++capacity) {
    EXPECT_EQ(FrameProcMapsFileGet(path, capacity), capacity > expected.size()) << capacity;
  }
  EXPECT_EQ(path, expected);
}

}  // namespace
