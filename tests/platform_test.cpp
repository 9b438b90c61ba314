// The stand-in platform on its own, beyond what the library's tests and the fuzz targets use of it.
#include <qurnadapt/qurnadapt.h>
#include <tovplatform/stand_in.h>
#include <unistd.h>

#include <fstream>
#include <thread>
#include <tuple>

#include "internal/machine_context.h"
#include "support/run_program.h"

using std::string_literals::operator""s;

namespace {

TEST(Yaml, AnswersByDottedPathsAndIndexes) {
  const std::string path = testing::TempDir() + "/qurn-" + std::to_string(getpid()) + ".yaml";
  const std::string file = "a: {b: {c: deep}, list: [x, {k: v}, '', [p, q]]}\nempty:\nnumber: 12\n";
  const char* const none = "(null)";
  using Question = std::tuple<std::string, std::string, std::string, uint32_t, bool>;
  std::vector<Question> questions{
      {file, "a.b.c", "deep", 0, true},     {file, "a.list[0]", "x", 0, true},
      {file, "a.list[1].k", "v", 0, true},  {file, "a.list[2]", "", 0, true},
      {file, "a.list[3][1]", "q", 0, true}, {file, "number", "12", 0, true},
      {file, "a", none, 0, true},           {file, "a.b", none, 0, true},
      {file, "a.list", none, 4, true},      {file, "empty", none, 0, true}};
  const std::string tooLong(600, 'k');
  for (const auto& key : {"a.list[4]"s, "a.list[x]"s, "a.list["s, "a.list.k"s, "number.x"s,
                          "number[0]"s, "absent.x"s, "."s, "[0]"s, tooLong}) {
    questions.emplace_back(file, key, none, 0, false);
  }
  for (const char* other : {"", "just text", "[1, 2]", "a: [unclosed"}) {
    questions.emplace_back(other, "a", none, 0, false);
  }
  for (const auto& [content, key, text, size, exists] : questions) {
    std::ofstream(path) << content;
    void* yaml = TovYamlLoadFile(path.c_str());
    EXPECT_EQ(yaml == nullptr, content == "a: [unclosed");
    const char* found = TovYamlGetProperty(yaml, "%s", key.c_str());
    EXPECT_EQ(found == nullptr ? none : found, text) << key;
    EXPECT_EQ(TovYamlGetArraySize(yaml, "%s", key.c_str()), size) << key;
    EXPECT_EQ(TovYamlIsKeyExist(yaml, key.c_str()), exists) << key;
    TovYamFreelHandle(yaml);
  }
  std::remove(path.c_str());
  EXPECT_TRUE(TovYamlLoadFile(path.c_str()) == nullptr && TovYamlLoadFile(nullptr) == nullptr);
}

// The log's destination is fixed when a program is loaded, so each case is a process.
TEST(Log, WritesALineAMessageDropsRepeatsAndIsRotated) {
  const std::string lines = QURN_EMULATOR LOG_LINES " 2>&1 ";
  const std::string plain =
      "| sed -E \"s/^[0-9]{4}(-[0-9]{2}){2} [0-9:]{8}[.][0-9]{3} /at /;"
      "s/:[0-9]+\\] 0 / /\" | head -n ";
  const std::string writer = " [" + processName("log_lines");
  const std::string high =
      "at warning" + writer + " unit:42 warning\nat error" + writer + " unit:42 error\n";
  expectAll({{lines + plain + "4", 0,
              "at info" + writer + " unit:42 information 1\n" + high + "at info" + writer +
                  " -:0 legacy text\n"},
             {"TOV_LOG_LEVEL=warning " + lines + plain + "2", 0, high},
             {"TOV_LOG_LEVEL=off " + lines, 0, "", "unit"},
             {lines, 0, "no key management: nothing was encrypted. ... nothing was decrypted."},
             {lines + R"(| awk "/ again/ {again++} / report/ {report++} / different/ {different++}
                                /identical lines dropped/ {sub(/.*\(/, \"\"); dropped += \$1}
                                END {print again + dropped, report, different, (dropped > 0), (again > 199)}")",
              0, "1000 1000 300 1 1\n"},
             {"d=$(mktemp -d); TOV_LOG_FILE_BYTES=20000 TOV_LOG_TARGET=file:$d/log " + lines +
                  "; cd $d; find . -size +20000c; echo *; rm -r $d",
              0, "log log.1 log.2 log.3 log.4 log.5\n", "unit ... ./log"},
             {"TOV_LOG_TARGET=file:/dev/null/log " + lines, 0,
              "logging to standard error\n ... information 1"}});
}

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

std::string held(uint32_t id) {
  uint64_t blocks = 0;
  uint64_t bytes = 0;
  TovStandInMemoryHeld(id, &blocks, &bytes);
  return std::to_string(blocks) + " blocks, " + std::to_string(bytes) + " bytes";
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
  EXPECT_EQ(held(id), "3 blocks, 151 bytes");
  EXPECT_EQ(held(TOV_STAND_IN_ALL_HANDLES), "4 blocks, 158 bytes");
  EXPECT_EQ(KEM_MemFree_F(0, one, "x", 1) | KEM_MemFree_F(0, raw, "x", 1) | KEM_HandleFinalize(id),
            QURN_OK);
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

TEST(Kem, AMutexExistsBetweenInitAndDestroy) {
  uint64_t mutex = 0;
  EXPECT_NE(KEM_MutexLock(&mutex), QURN_OK);
  EXPECT_EQ(KEM_MutexInit(&mutex), QURN_OK);
  EXPECT_EQ(KEM_MutexLock(&mutex) | KEM_MutexUnlock(&mutex) | KEM_MutexDestroy(&mutex), QURN_OK);
  EXPECT_EQ(mutex, 0U);
}

}  // namespace
