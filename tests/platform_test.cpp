// The stand-in platform on its own, beyond what the library's tests and the fuzz targets use of it.
#include <gtest/gtest.h>
#include <qurnadapt/qurnadapt.h>
#include <tovplatform/stand_in.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "internal/machine_context.h"
#include "support/emulated.h"
#include "support/run_program.h"

namespace {

std::string temporaryFile(const std::string& name) {
  return testing::TempDir() + "/qurn-" + std::to_string(getpid()) + name;
}

class Yaml : public testing::Test {
 protected:
  void load(const std::string& text) {
    const std::string path = temporaryFile(".yaml");
    std::ofstream(path) << text;
    handle_ = TovYamlLoadFile(path.c_str());
  }
  void TearDown() override { TovYamFreelHandle(handle_); }
  std::string property(const char* key) {
    const char* text = TovYamlGetProperty(handle_, "%s", key);
    return text == nullptr ? "(null)" : text;
  }
  void* handle_ = nullptr;
};

TEST_F(Yaml, AnswersByDottedPathsAndIndexes) {
  load("a: {b: {c: deep}, list: [x, {k: v}, '', [p, q]]}\nempty:\nnumber: 12\n");
  ASSERT_NE(handle_, nullptr);
  EXPECT_EQ(property("a.b.c"), "deep");
  EXPECT_EQ(property("a.list[0]"), "x");
  EXPECT_EQ(property("a.list[1].k"), "v");
  EXPECT_EQ(property("a.list[2]"), "");
  EXPECT_EQ(property("a.list[3][1]"), "q");
  EXPECT_EQ(property("number"), "12");
  EXPECT_STREQ(TovYamlGetProperty(handle_, "%s[%u]", "a.list", 0U), "x");
  EXPECT_EQ(TovYamlGetArraySize(handle_, "%s", "a.list"), 4U);
  EXPECT_TRUE(TovYamlIsKeyExist(handle_, "empty"));
  for (const char* other : {"a", "a.b", "a.list", "empty", "a.list[4]", "a.list[x]", "a.list[",
                            "a.list.k", "number.x", "number[0]", "absent.x", ".", "[0]"}) {
    EXPECT_EQ(property(other), "(null)") << other;
    EXPECT_EQ(TovYamlGetArraySize(handle_, "%s", other), std::string(other) == "a.list" ? 4U : 0U);
  }
  EXPECT_FALSE(TovYamlIsKeyExist(handle_, "a.list[4]"));
  EXPECT_FALSE(TovYamlIsKeyExist(handle_, "absent"));
  EXPECT_EQ(property(std::string(600, 'k').c_str()), "(null)");
}

TEST_F(Yaml, FilesWithoutKeysHaveNoneAndWhatIsNoYamlHasNoHandle) {
  for (const char* text : {"", "just text", "[1, 2]"}) {
    load(text);
    ASSERT_NE(handle_, nullptr) << text;
    EXPECT_FALSE(TovYamlIsKeyExist(handle_, "watchDog")) << text;
    EXPECT_EQ(property("watchDog"), "(null)") << text;
    EXPECT_EQ(TovYamlGetArraySize(handle_, "watchDog"), 0U) << text;
    TovYamFreelHandle(handle_);
  }
  load("a: [unclosed");
  EXPECT_EQ(handle_, nullptr);
  EXPECT_EQ(TovYamlLoadFile("/nonexistent/file"), nullptr);
  EXPECT_EQ(TovYamlLoadFile(nullptr), nullptr);
  EXPECT_FALSE(TovYamlIsKeyExist(nullptr, "a"));
}

// ---- log; its destination is fixed when a program is loaded, so each case is a process

std::vector<std::string> logOf(const std::string& environment, const std::string& what) {
  const std::string path = temporaryFile(".log");
  const ProgramRun run = runProgram("env " + environment + " TOV_LOG_TARGET=file:" + path +
                                    " " QURN_EMULATOR LOG_LINES " " + what);
  EXPECT_EQ(run.status, 0) << run.output;
  std::vector<std::string> lines;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    lines.push_back(line);
  }
  std::filesystem::remove(path);
  return lines;
}

TEST(Log, WritesOneReadableLineAMessageDownToTheLevelAskedFor) {
  const std::vector<std::string> all = logOf("", "levels");
  ASSERT_EQ(all.size(), 4U);
  const std::string stamp = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )";
  EXPECT_TRUE(std::regex_match(all[0], std::regex(stamp + R"(info \[)" + processName("log_lines") +
                                                  R"(:\d+\] 0 unit:42 information 1)")))
      << all[0];
  EXPECT_NE(all[3].find("legacy text"), std::string::npos);
  EXPECT_EQ(logOf("TOV_LOG_LEVEL=warning", "levels").size(), 2U);
  EXPECT_EQ(logOf("TOV_LOG_LEVEL=off", "levels").size(), 0U);
}

TEST(Log, DropsIdenticalRepeatsOfOneSiteAndSaysHowMany) {
  const std::vector<std::string> lines = logOf("", "repeats");
  size_t again = 0;
  size_t dropped = 0;
  size_t report = 0;
  size_t different = 0;
  for (const std::string& line : lines) {
    std::smatch match;
    again += line.find(" again") != std::string::npos ? 1 : 0;
    report += line.find(" report") != std::string::npos ? 1 : 0;
    different += line.find(" different") != std::string::npos ? 1 : 0;
    if (std::regex_search(line, match, std::regex(R"(\((\d+) identical lines dropped\))"))) {
      dropped += std::stoul(match[1]);
    }
  }
  EXPECT_EQ(report, 1000U);
  EXPECT_EQ(different, 300U);
  EXPECT_GE(again, 200U);
  EXPECT_EQ(again + dropped, 1000U);
}

// ---- call stack

// Made-up contexts: whatever the registers say, the walk reads nothing that it must not read.
TEST(CallStack, SurvivesGarbageRegisters) {
  uint64_t addresses[20];
  uint32_t none = 0;
  EXPECT_NE(KEM_ExceptCallStackGetEx(nullptr, 20, 0, addresses, &none), QURN_OK);
  const auto here = reinterpret_cast<uint64_t>(__builtin_frame_address(0));
  const uint64_t frames[] = {0,
                             1,
                             8,
                             here,
                             here + 1,
                             here + 8,
                             here + (1U << 20U),
                             ~uint64_t{0},
                             ~uint64_t{0} - 15,
                             uint64_t{1} << 46U};
  for (const uint64_t framePointer : frames) {
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

TEST(StackBounds, AreThoseOfTheCallersStack) {
  const auto here = reinterpret_cast<uint64_t>(__builtin_frame_address(0));
  FrameTaskStackInfo info{0, 0};
  ASSERT_EQ(KEM_TaskStackInfoGet(0, &info), QURN_OK);
  EXPECT_TRUE(info.start < here && here < info.start + info.size);
  EXPECT_NE(KEM_TaskStackInfoGet(1, &info), QURN_OK);
  std::thread([] {
    FrameTaskStackInfo told{0, 0};
    FrameTaskStackInfo scanned{0, 0};
    FrameTaskStackInfoGet(&scanned);
    if (KEM_TaskStackInfoGet(0, &told) == QURN_OK) {  // as the kernel is new enough
      EXPECT_TRUE(told.start == scanned.start && told.size == scanned.size);
    } else {
      EXPECT_EQ(told.size, 0U);
    }
  }).join();
}

// ---- the rest of the KEM layer

std::string g_printed;

uint32_t collect(const char* text) {
  g_printed += std::string(text) + ";";
  return 0;
}

TEST(Boxes, KeepTheNewestTwentyRecordsUntilTheyAreCleaned) {
  KEM_HookPrint(collect);
  for (int i = 1; i <= 22; ++i) {
    EXPECT_EQ(TovStandInBoxWrite(3, ("r" + std::to_string(i)).c_str()), QURN_OK);
  }
  EXPECT_EQ(KEM_BoxextRecordShow(3, 0, 2, 0xFFFFFFFF), QURN_OK);
  EXPECT_EQ(g_printed, "r3;r4;");
  EXPECT_EQ(KEM_BoxextRegionClean(3), QURN_OK);
  EXPECT_EQ(KEM_BoxextRecordShow(3, 0, 20, 0xFFFFFFFF), QURN_OK);
  EXPECT_EQ(g_printed, "r3;r4;");
  EXPECT_NE(KEM_BoxextRecordShow(8, 0, 20, 0xFFFFFFFF), QURN_OK);
  EXPECT_NE(TovStandInBoxWrite(8, "x"), QURN_OK);
}

std::string mistakes() {
  g_printed.clear();
  KEM_HookPrint(collect);
  KEM_BoxextRecordShow(3, 0, 20, 0xFFFFFFFF);
  KEM_BoxextRegionClean(3);
  return g_printed;
}

std::string holders() {
  g_printed.clear();
  TovStandInMemoryPrint(collect);
  return g_printed;
}

TEST(KemMemory, IsAccountedForByHandlePartitionAndPlace) {
  uint32_t id = 0;
  ASSERT_EQ(KEM_HandleInitialize("module", &id), QURN_OK);
  void* one = KEM_MemAlloc_F(id, 1, 100, "one", 10);
  void* two = KEM_MemAlloc_F(id, 1, 50, "one", 10);
  void* other = KEM_MemAlloc_F(id, 2, 1, "one", 10);
  void* raw = KEM_MemAlloc_F(0x04048000, 0, 7, nullptr, 0);
  EXPECT_EQ(holders(),
            "handle 1 (module), partition 1, one:10: 2 blocks, 150 bytes;"
            "handle 1 (module), partition 2, one:10: 1 blocks, 1 bytes;"
            "handle 67403776 (-), partition 0, -:0: 1 blocks, 7 bytes;");
  uint64_t blocks = 0;
  uint64_t bytes = 0;
  TovStandInMemoryHeld(id, &blocks, &bytes);
  EXPECT_TRUE(blocks == 3 && bytes == 151);
  TovStandInMemoryHeld(TOV_STAND_IN_ALL_HANDLES, &blocks, &bytes);
  EXPECT_TRUE(blocks == 4 && bytes == 158);
  EXPECT_EQ(KEM_MemFree_F(0, one, "x", 1) | KEM_MemFree_F(0, raw, "x", 1), QURN_OK);
  EXPECT_EQ(KEM_HandleFinalize(id), QURN_OK);
  EXPECT_EQ(mistakes(), "Handle 1 (module) is finalised and still holds 2 blocks, 51 bytes.;");
  EXPECT_EQ(KEM_MemFree_F(id, two, "x", 1), QURN_OK);  // still theirs to free
  EXPECT_EQ(holders(), "handle 1 (module, finalised), partition 2, one:10: 1 blocks, 1 bytes;");
  EXPECT_EQ(KEM_MemFree_F(0, other, "x", 1), QURN_OK);
  EXPECT_EQ(mistakes() + holders(), "");
}

TEST(KemMemory, LeavesAloneWhatIsNoLiveBlockAndSaysSo) {
  void* block = KEM_MemAlloc_F(0, 0, 32, "owner", 1);
  EXPECT_EQ(KEM_MemFree_F(0, nullptr, "x", 1), QURN_OK);
  EXPECT_EQ(KEM_MemFree_F(0, static_cast<char*>(block) + 8, "inside", 2), QURN_FAILED);
  EXPECT_EQ(KEM_MemFree_F(0, block, "first", 3), QURN_OK);
  EXPECT_EQ(KEM_MemFree_F(0, block, "second", 4), QURN_FAILED);
  EXPECT_EQ(KEM_MemFree_F(0, &block, "foreign", 5), QURN_FAILED);
  EXPECT_TRUE(std::regex_match(
      mistakes(),
      std::regex("Block 0x[0-9a-f]+, freed at inside:2, was never allocated here.;"
                 "Block 0x[0-9a-f]+ is freed twice: at second:4, and before at first:3.;"
                 "Block 0x[0-9a-f]+, freed at foreign:5, was never allocated here.;")))
      << g_printed;
  uint32_t id = 0;
  ASSERT_EQ(KEM_HandleInitialize("module", &id) | KEM_HandleFinalize(id), QURN_OK);
  EXPECT_EQ(KEM_HandleFinalize(id), QURN_FAILED);
  EXPECT_EQ(KEM_HandleFinalize(99), QURN_FAILED);
  EXPECT_EQ(KEM_MemAlloc_F(id, 0, 8, "late", 6), nullptr);
  EXPECT_EQ(KEM_MemAlloc_F(0xFFFFFFFF, 0, 8, "bad", 7), nullptr);
  EXPECT_EQ(mistakes(),
            "Handle 1 (module, finalised) is not a live one.;"
            "Handle 99 (-) is not a live one.;"
            "Handle 1 cannot be charged with 8 bytes at late:6.;"
            "Handle 4294967295 cannot be charged with 8 bytes at bad:7.;");
  EXPECT_NE(KEM_HandleInitialize(nullptr, &id), QURN_OK);
}

TEST(KeyManagement, IsNoneAndRefuses) {
  testing::internal::CaptureStderr();
  EXPECT_NE(TovPluginKmsEncrypt("plain", 5), QURN_OK);
  EXPECT_NE(KEM_CRYPT_Decrypt_Sec("cipher", 6), QURN_OK);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("no key management: nothing was encrypted."), std::string::npos) << log;
  EXPECT_NE(log.find("no key management: nothing was decrypted."), std::string::npos) << log;
}

TEST(Kem, AMutexExistsBetweenInitAndDestroy) {
  uint64_t mutex = 0;
  EXPECT_NE(KEM_MutexLock(&mutex), QURN_OK);
  EXPECT_EQ(KEM_MutexInit(&mutex), QURN_OK);
  EXPECT_EQ(KEM_MutexLock(&mutex) | KEM_MutexUnlock(&mutex) | KEM_MutexDestroy(&mutex), QURN_OK);
  EXPECT_EQ(mutex, 0U);
}

}  // namespace
