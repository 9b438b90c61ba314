// Legacy logging, exit and environment, fixed results and forwarders, and the pointer stack.
#include <regex>

#include "support/library_test.h"

static uint32_t g_showAnswer = 0;
static uint32_t g_redirectAnswer = 0;
static KemPrintHook g_printHook = nullptr;
static KemBoxRedirectHook g_redirectHook = nullptr;

using Pair = std::array<uint64_t, 2>;
using Key = std::array<char, 40>;
constexpr Key kKey{"does not fit into any machine's words"};

extern "C" {

// Key management that can tell whether every one of its arguments arrived: more words than any
// machine has registers for, floating-point numbers, and a record by value. The platform's header
// declares the calls without parameters, hence names of their own here.
uint32_t encrypt(Pair a, Pair b, Pair c, Pair d, Pair e, double x, double y,
                 Key key) asm("TovPluginKmsEncrypt");
uint32_t encrypt(Pair a, Pair b, Pair c, Pair d, Pair e, double x, double y, Key key) {
  const bool numbers = a == Pair{1, 2} && b == Pair{3, 4} && c == Pair{5, 6} && d == Pair{7, 8} &&
                       e == Pair{9, 10} && x == 0.5 && y == -2.0;
  return numbers && key == kKey ? 0xC0DE0001 : 0;
}
uint32_t decrypt(uint32_t word) asm("TovPluginKmsDecrypt");
uint32_t decrypt(uint32_t word) { return word + 1; }

// The KEM boxes of this program.
uint32_t KEM_HookPrint(KemPrintHook hook) {
  g_printHook = hook;
  return 0;
}
uint32_t KEM_BoxextRedirectHookReg(KemBoxRedirectHook hook) {
  g_redirectHook = hook;
  return g_redirectAnswer;
}
uint32_t KEM_BoxextRecordShow(uint32_t region, uint32_t first, uint32_t count, uint32_t mask) {
  EXPECT_TRUE(first == 0 && count == 20 && mask == 0xFFFFFFFF);
  g_printHook(("record of box " + std::to_string(region)).c_str());
  return g_showAnswer;
}
uint32_t KEM_BoxextRegionClean(uint32_t region) {
  recorded::note("clean " + std::to_string(region));
  return region + 100;
}
uint32_t RuloPluginAssert(const char* file, uint32_t line, uint32_t third) {
  recorded::note(std::string("assertion in ") + file);
  return line == 0 || third != 0 ? QURN_FAILED : QURN_OK;
}

}  // extern "C"

namespace {

TEST(LegacyLog, ShowsAndCleansBothBoxesEvenWhenTheyCannotBeShown) {
  EXPECT_EQ(ZotKemBoxRecordDump(), 104U);
  EXPECT_TEXTS(0, "record of box 3", "record of box 4");
  g_showAnswer = 0x1F;
  EXPECT_EQ(ZotKemBoxRecordDump(), 104U);
  EXPECT_EQ(recorded::events(), (Texts{"clean 3", "clean 4", "clean 3", "clean 4"}));
  EXPECT_TEXTS(100, "Get Kelva box record mistake log unsuccessfully. RetCode(0x1f).",
               "Get Kelva box record except log unsuccessfully. RetCode(0x1f).");
}

TEST(LegacyLog, RoutesRunLogsOnceTheHookIsInstalled) {
  g_redirectAnswer = 5;
  EXPECT_EQ(ZotKemLogInit(), QURN_FAILED);
  EXPECT_TEXTS(100, "Frame Kelva run log func register unsuccessfully, RetCode(0x5).",
               "Frame kelva log init unsuccessfully. (ret = 0xffffffff)");
  g_redirectAnswer = 0;
  EXPECT_CODES((Codes{0, 1, 0}), ZotKemLogInit(), g_redirectHook(nullptr, "100% run log"),
               ZotKemLogPrintHook("100% printed"));
  EXPECT_TEXTS(40, "Frame kelva log init successful.", "100% run log", "100% printed");
}

TEST(LegacyExit, DumpsTheBoxesLogsAndEndsTheProcessAtOnce) {
  const auto leave = [] {
    atexit([] { _exit(1); });  // must not run
    ZOT_Exit(88);
  };
  EXPECT_EXIT(leave(), testing::ExitedWithCode(88),
              "record of box 4.*100 ZOT_Exit with code 88. .process id = [0-9]+.");
}

TEST(LegacyEnvironment, ReadsIdentifiersAsDecimalNumbers) {
  const std::pair<const char*, uint32_t> values[] = {
      {"12", 12}, {"abc", 0}, {"-1", 0xFFFFFFFF}, {"7up", 7}, {"", 0}};
  uint32_t value = 99;
  uint32_t selector = 0;
  for (const char* name : {"ZOT_DB_ID", "ZOT_NODE_ID", "ZOT_LR_ID", "ZOT_VR_ID"}) {
    unsetenv(name);
    value = 99;
    EXPECT_CODES((Codes{QURN_FAILED, 99}), ZOT_GetEnvValue(selector, &value), value);
    for (const auto& [text, number] : values) {
      setenv(name, text, 1);
      EXPECT_CODES((Codes{QURN_OK, number}), ZOT_GetEnvValue(selector, &value), value) << text;
    }
    EXPECT_EQ(ZOT_GetEnvValue(selector++, nullptr), QURN_FAILED);
  }
  EXPECT_EQ(ZOT_GetEnvValue(selector, &value), QURN_FAILED);
  EXPECT_EQ(ZOT_LocGetEnv(nullptr), nullptr);
  const std::unique_ptr<char, decltype(&free)> empty(ZOT_LocGetEnv("ZOT_VR_ID"), free);
  EXPECT_STREQ(empty.get(), "");
}

TEST(PointerStack, GivesBackInReverseOrderAndFreesWhatIsLeft) {
  RpmStack* stack = RPM_CreateStack();
  uintptr_t element = 99;
  EXPECT_CODES((Codes{1, QURN_FAILED, QURN_FAILED}), RPM_IsStackEmpty(stack),
               RPM_PopStack(stack, &element), RPM_GetStackTopElement(stack, &element));
  EXPECT_EQ(element, 99U);
  fault::arm("TOV_MemAllocF", ENOMEM, 3);
  for (uintptr_t pushed = 1; pushed <= 4; ++pushed) {
    EXPECT_EQ(RPM_PushStack(stack, pushed), pushed == 4 ? QURN_FAILED : QURN_OK);
  }
  for (uintptr_t expected = 3; expected >= 1; --expected) {
    EXPECT_EQ(RPM_IsStackEmpty(stack) | RPM_GetStackTopElement(stack, &element), QURN_OK);
    EXPECT_EQ(std::exchange(element, 0), expected);
    EXPECT_EQ(RPM_PopStack(stack, &element), QURN_OK);
    EXPECT_EQ(element, expected);
  }
  EXPECT_EQ(RPM_IsStackEmpty(stack), 1U);
  for (int i = 0; i < 2; ++i) {
    RPM_PushStack(stack, reinterpret_cast<uintptr_t>(TOV_MemAllocF(8, "test", 1, 0)));
  }
  RPM_DestroyStack(stack);
  RPM_DestroyStack(nullptr);
  EXPECT_EQ(recorded::blocksHeld(), 0U);
}

// The calls that do nothing but answer are told by their names; the list of exports has them all.
TEST(FixedResults, AreTheSameWhateverTheArguments) {
  const std::regex fixed(
      "(HAF|LOC|SISP|TRC|SSP_OverLoad|ZOT_(Pipe|Msg|SEND|ZotMsg|Dll|CompLocal)|KEM_(Pipe|SetPipe))"
      ".*");
  const std::regex pointers("ZOT_(MsgAlloc|MsgFlowCtrlAlloc_F|CompLocalCreate)");
  std::ifstream list(EXPORTS);
  size_t called = 0;
  for (std::string name; std::getline(list, name);) {
    if (!std::regex_match(name, fixed)) {
      continue;
    }
    auto* const call = reinterpret_cast<uint64_t (*)(...)>(dlsym(RTLD_DEFAULT, name.c_str()));
    ASSERT_NE(call, nullptr) << name;
    const uint64_t expected =
        name == "ZOT_ZotMsgHeaderLenCheck" ? 1 : (name == "TRC_IsTraceCompMsg" ? 2 : 0);
    for (const int argument : {0, -1}) {
      const uint64_t whole = call(argument, argument, argument, argument, argument, argument);
      const uint64_t answer = std::regex_match(name, pointers) ? whole : uint32_t(whole);
      EXPECT_TRUE(answer == expected || name == "HAF_SetCommonHeader") << name << ' ' << answer;
    }
    ++called;
  }
  EXPECT_EQ(called, 44U);
  EXPECT_EQ(recorded::texts(), Texts{});
}

TEST(Encryption, HandsOnEveryArgumentThoseOnTheStackIncluded) {
  auto* const toEncrypt = reinterpret_cast<decltype(&encrypt)>(KEM_CRYPT_Encrypt_Sec);
  EXPECT_EQ(toEncrypt({1, 2}, {3, 4}, {5, 6}, {7, 8}, {9, 10}, 0.5, -2.0, kKey), 0xC0DE0001U);
  EXPECT_EQ(reinterpret_cast<decltype(&decrypt)>(KEM_CRYPT_Decrypt_Sec)(76), 77U);
}

TEST(Process, LogsItsSlotIdEachTimeAndKnowsItsVersion) {
  TOV_SetProcessSlotId(5);
  TOV_SetProcessSlotId(4294967295);
  EXPECT_TEXTS(40, "tOV process slot id (5) set success.",
               "tOV process slot id (4294967295) set success.");
  EXPECT_STREQ(g_pcMorlaadaptMiniVer, "2.2.0");
  EXPECT_STREQ(g_pcMorlaadaptInterSubVer, "B137");
  EXPECT_EQ(std::string(g_pcMorlaadaptOuterVer).find("TOV "), 0U);
}

}  // namespace
