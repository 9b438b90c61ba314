// The texts of the report: numbers, times, registers, signals and symbol names.
#include "support/library_test.h"

namespace {

// Above what the bounds-checked library takes, which is as good as any that is large enough.
constexpr uint32_t kLarge = 1 << 20;

TEST(Number, IsRightAlignedAndPaddedOrNotWrittenAtAll) {
  const std::tuple<uint64_t, uint32_t, uint32_t, char, std::string> cases[] = {
      {255, 16, 2, '0', "kept"},
      {0, 10, 5, ' ', "   0"},
      {1, 1, 9, '0', "kept"},
      {1, 17, 9, '0', "kept"},
      {~uint64_t{0}, 2, 65, '0', std::string(64, '1')}};
  for (const auto& [value, radix, width, fill, expected] : cases) {
    char text[80] = "kept";
    FrameUintToStr(value, radix, text, width, fill);
    EXPECT_EQ(text, expected);
  }
}

TEST(Time, IsEightHoursEastOfUtcWithAPeriod) {
  const std::tuple<ZotSystime, uint32_t, const char*> cases[] = {
      {{2026, 1, 2, 3, 4, 5, 0, 0}, kLarge, "2026-01-02 03:04:05."},
      {{70, 12, 31, 23, 59, 59, 0, 0}, 21, "  70-12-31 23:59:59."}};
  for (const auto& [time, capacity, expected] : cases) {
    std::string text(capacity, '\0');
    FrameTimeToStr(&time, text.data(), capacity);
    EXPECT_STREQ(text.c_str(), expected);
  }
  char text[32];
  const time_t east = time_t{28800} + ::time(nullptr);
  FrameExcepTimeStrGet(text, sizeof(text));
  tm parts{};
  ASSERT_NE(strptime(text, "%Y-%m-%d %H:%M:%S.", &parts), nullptr) << text;
  EXPECT_NEAR(difftime(timegm(&parts), east), 2.5, 2.5);
}

TEST(Register, IsAppendedInColumnsAndStaysInsideADestinationThatIsTooSmall) {
  char text[64] = "";
  FrameRegStrGet(text, sizeof(text), "pstateX", 0xABCDEF);
  EXPECT_STREQ(text, "\nReg:  pstateX0x0000000000abcdef");
  for (const uint32_t before : {6U, 500'000U, kLarge - 35}) {
    std::string longText(before, 'x');
    longText.resize(kLarge);
    FrameRegStrGet(longText.data(), kLarge, "pc", 0x10);
    EXPECT_EQ(longText.c_str(), std::string(before, 'x') + "\nReg:  pc     0x0000000000000010");
  }
  std::string small = "12345" + std::string(1, '\0') + std::string(60, '#');
  FrameRegStrGet(small.data(), 10, "pc", 0x10);
  EXPECT_EQ(small.substr(10), std::string(56, '#'));
}

TEST(SignalName, IsKnownFor1To31AndLeadsBackToTheNumber) {
  std::string text(kLarge, '\0');
  for (int sig = -1; sig <= 32; ++sig) {
    const bool known = sig >= 1 && sig <= 31;
    const char* abbreviation = sig == SIGIO ? "IO" : sigabbrev_np(sig);
    EXPECT_EQ(FrameGetSigName(sig, text.data(), sig % 2 == 0 ? 10 : kLarge), 0);
    EXPECT_EQ(text.c_str(), known ? "SIG" + std::string(abbreviation) : "UNKNOWN");
    uint32_t sigId = 99;
    EXPECT_EQ(FrameGetSigId(text.c_str(), &sigId), known ? QURN_OK : QURN_FAILED);
    EXPECT_EQ(sigId, known ? sig : 99);
  }
  EXPECT_NE(FrameGetSigName(1, text.data(), 6), 0) << "no room for the terminator";
  uint32_t sigId = 99;
  EXPECT_CODES((Codes{QURN_FAILED, 99, QURN_OK, 0}), FrameGetSigId("sighup", &sigId), sigId,
               FrameGetSigId("SIG0", &sigId), sigId);
}

TEST(SymbolLine, GivesTheFunctionElseTheAddressElseNothing) {
  const std::string longName(400, 'Z');
  const std::pair<std::string, std::string> lines[] = {
      {"module(a+0x1c) [0x7f]", "a+0x1c"},
      {"module(_ZN1aE+0) [0x7f]", "_ZN1aE+0"},
      {"module(+0x1c) [0x7f]", "0x7f"},
      {"module() [0x7f]", "0x7f"},
      {"module [0x7f", "0x7f"},
      {"module(zOpen", "zOpen"},
      {"m(A)", "A"},
      {"nothing", ""},
      {"", ""},
      {"m(" + longName + ")", longName.substr(0, 299)},
      {"m[" + longName, longName.substr(0, 299)}};
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
  const std::string both = first + "\nFrameUintToStr+0";
  const std::pair<uint32_t, std::string> cases[] = {
      {301, ""}, {302, first + "\n"}, {15 + 1 + 302, both}, {1000, both}, {kLarge, both}};
  for (const auto& [capacity, expected] : cases) {
    std::string text(capacity + 1, '#');
    EXPECT_EQ(FrameFuncNameGetByAddr(addresses, 2, text.data(), capacity), QURN_OK);
    EXPECT_EQ(text.c_str(), expected) << capacity;
    EXPECT_TRUE(text[capacity - 1] == '\0' && text[capacity] == '#') << capacity;
  }

  char text[400];
  fault::arm("backtrace_symbols", ENOMEM);
  EXPECT_CODES(Codes(5, QURN_FAILED), FrameFuncNameGetByAddr(nullptr, 0, nullptr, 0),
               FrameFuncNameGetByAddr(nullptr, 0, text, 0),
               FrameFuncNameGetByAddr(addresses, 0, text, 0),
               FrameFuncNameGetByAddr(addresses, 0, text, 400),
               FrameFuncNameGetByAddr(addresses, 2, text, 400));
  EXPECT_TEXTS(100, "Function name is null.", "Function address is null.", "Dest buff size is 0.",
               "Real depth is 0.", "Frame dump stack unsuccessfully, get symbols unsuccessfully.");
  EXPECT_EQ(recorded::sourceLines(), 5U) << "each on a line of its own";
}

}  // namespace
