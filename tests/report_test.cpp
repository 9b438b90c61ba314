// The texts of the report: numbers, times, registers, signals and symbol names.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "support/faults.h"
#include "support/recording_platform.h"

namespace {

TEST(Number, IsRightAlignedAndPaddedOrNotWrittenAtAll) {
  struct Case {
    uint64_t value;
    uint32_t radix, width;
    char fill;
    const char* expected;
  };
  const Case cases[] = {
      {255, 16, 2, '0', "kept"},
      {5, 10, 3, '0', "05"},
      {0, 10, 5, ' ', "   0"},
      {0, 10, 1, '0', "kept"},
      {1, 1, 9, '0', "kept"},
      {1, 17, 9, '0', "kept"},
      {~uint64_t{0}, 2, 65, '0',
       "1111111111111111111111111111111111111111111111111111111111111111"},
  };
  for (const Case& number : cases) {
    char text[80] = "kept";
    FrameUintToStr(number.value, number.radix, text, number.width, number.fill);
    EXPECT_STREQ(text, number.expected);
  }
}

TEST(Time, IsEightHoursEastOfUtcWithAPeriod) {
  char text[32];
  const ZotSystime time{2026, 1, 2, 3, 4, 5, 0, 0};
  FrameTimeToStr(&time, text, sizeof(text));
  EXPECT_STREQ(text, "2026-01-02 03:04:05.");
  const ZotSystime early{70, 12, 31, 23, 59, 59, 0, 0};
  FrameTimeToStr(&early, text, sizeof(text));
  EXPECT_STREQ(text, "  70-12-31 23:59:59.");

  const time_t east = time_t{28800} + ::time(nullptr);
  FrameExcepTimeStrGet(text, sizeof(text));
  tm parts{};
  ASSERT_NE(strptime(text, "%Y-%m-%d %H:%M:%S.", &parts), nullptr) << text;
  EXPECT_LE(timegm(&parts) - east, 5);
  EXPECT_GE(timegm(&parts), east);
}

TEST(Register, IsAppendedInColumns) {
  char text[64] = "before";
  FrameRegStrGet(text, sizeof(text), "pc", 0x10);
  EXPECT_STREQ(text, "before\nReg:  pc     0x0000000000000010");
  text[0] = '\0';
  FrameRegStrGet(text, sizeof(text), "pstateX", 0xABCDEF);
  EXPECT_STREQ(text, "\nReg:  pstateX0x0000000000abcdef");
}

// A capacity above what the bounds-checked library takes is as good as any that is large enough.
TEST(LargeDestination, IsWrittenLikeAnyOther) {
  std::string text(1 << 20, '\0');
  const auto capacity = static_cast<uint32_t>(text.size());
  EXPECT_EQ(FrameGetSigName(SIGTERM, text.data(), capacity), 0);
  EXPECT_STREQ(text.c_str(), "SIGTERM");
  const ZotSystime time{2026, 1, 2, 3, 4, 5, 0, 0};
  FrameTimeToStr(&time, text.data(), capacity);
  EXPECT_STREQ(text.c_str(), "2026-01-02 03:04:05.");
  void* const address = dlsym(RTLD_DEFAULT, "FRAME_MntInit");
  EXPECT_EQ(FrameFuncNameGetByAddr(&address, 1, text.data(), capacity), QURN_OK);
  EXPECT_STREQ(text.c_str(), "FRAME_MntInit+0");
  for (const size_t length : {size_t{1}, size_t{500'000}, text.size() - 35}) {
    const std::string before(length, 'x');
    strcpy(text.data(), before.c_str());
    FrameRegStrGet(text.data(), capacity, "pc", 0x10);
    EXPECT_EQ(text.c_str(), before + "\nReg:  pc     0x0000000000000010") << length;
  }
}

TEST(SignalName, IsKnownFor1To31) {
  char text[16];
  for (int sig = 1; sig <= 31; ++sig) {
    EXPECT_EQ(FrameGetSigName(sig, text, sizeof(text)), 0);
    const char* expected = sigabbrev_np(sig);
    EXPECT_EQ(std::string(text), sig == SIGIO ? "SIGIO" : "SIG" + std::string(expected));
  }
  for (const int sig : {0, 32, -1}) {
    EXPECT_EQ(FrameGetSigName(sig, text, sizeof(text)), 0);
    EXPECT_STREQ(text, "UNKNOWN");
  }
  EXPECT_NE(FrameGetSigName(1, text, 6), 0) << "no room for the terminator";
}

TEST(SymbolLine, GivesTheFunctionElseTheAddressElseNothing) {
  const std::string longName(400, 'f');
  const std::pair<std::string, std::string> lines[] = {
      {"module(function+0x1c) [0x7f]", "function+0x1c"},
      {"module(_ZN1aE+0) [0x7f]", "_ZN1aE+0"},
      {"module(+0x1c) [0x7f]", "0x7f"},
      {"module() [0x7f]", "0x7f"},
      {"module [0x7f", "0x7f"},
      {"module(open", "open"},
      {"m(a) [0x7f]", "a"},
      {"m(z) [0x7f]", "z"},
      {"m(A) [0x7f]", "A"},
      {"m(Z) [0x7f]", "Z"},
      {"nothing", ""},
      {"", ""},
      {"m(" + longName + ")", longName.substr(0, 299)},
      {"m[" + longName, longName.substr(0, 299)},
  };
  for (const auto& [line, name] : lines) {
    char text[700];
    void* const address = nullptr;
    symbolsReadAs(line.c_str());
    EXPECT_EQ(FrameFuncNameGetByAddr(&address, 1, text, sizeof(text)), QURN_OK);
    EXPECT_EQ(text, name) << line;
  }
}

TEST(FunctionNames, AreListedOneALineForAsLongAsAWholeOneFits) {
  void* const addresses[] = {dlsym(RTLD_DEFAULT, "FRAME_MntInit"),
                             dlsym(RTLD_DEFAULT, "FrameUintToStr")};
  const std::string first = "FRAME_MntInit+0";
  struct Case {
    uint32_t capacity;
    std::string expected;
  };
  const Case cases[] = {
      {301, ""},
      {302, first + "\n"},
      {static_cast<uint32_t>(first.size()) + 1 + 302, first + "\nFrameUintToStr+0"},
      {1000, first + "\nFrameUintToStr+0"},
  };
  for (const Case& room : cases) {
    std::string text(room.capacity + 1, '#');
    EXPECT_EQ(FrameFuncNameGetByAddr(addresses, 2, text.data(), room.capacity), QURN_OK);
    EXPECT_EQ(text.c_str(), room.expected) << room.capacity;
    EXPECT_EQ(text[room.capacity - 1], '\0');
    EXPECT_EQ(text[room.capacity], '#');
  }

  char text[400];
  EXPECT_EQ(FrameFuncNameGetByAddr(nullptr, 0, nullptr, 0), QURN_FAILED);
  EXPECT_EQ(FrameFuncNameGetByAddr(nullptr, 0, text, 0), QURN_FAILED);
  EXPECT_EQ(FrameFuncNameGetByAddr(addresses, 0, text, 0), QURN_FAILED);
  EXPECT_EQ(FrameFuncNameGetByAddr(addresses, 0, text, 400), QURN_FAILED);
  fault::arm("backtrace_symbols", ENOMEM);
  EXPECT_EQ(FrameFuncNameGetByAddr(addresses, 2, text, 400), QURN_FAILED);
  EXPECT_EQ(
      recorded::texts(100),
      (std::vector<std::string>{"Function name is null.", "Function address is null.",
                                "Dest buff size is 0.", "Real depth is 0.",
                                "Frame dump stack unsuccessfully, get symbols unsuccessfully."}));
  EXPECT_EQ(recorded::sourceLines(), 5U) << "each on a line of its own";
}

}  // namespace
