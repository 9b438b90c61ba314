// Legacy handles and memory on the stand-in's accounts.
#include <sys/mman.h>

#include <regex>

#include "support/library_test.h"

namespace {

Texts held() {
  static Texts lines;
  lines.clear();
  TovStandInMemoryPrint([](const char* line) -> uint32_t {
    lines.push_back(std::regex_replace(line, std::regex("qurn_memory:[0-9]+"), "a record"));
    return 0;
  });
  return lines;
}

uintptr_t valueOf(const void* address) { return reinterpret_cast<uintptr_t>(address); }

ZotHandleRecord* moduleNamed(const char* name) {
  ZotHandleRecord* record = nullptr;
  EXPECT_EQ(ZOT_HandleInitializeByName(name, &record), QURN_OK);
  return record;
}

TEST(LegacyHandle, IsARecordOfTheHandleBlocksAroundAModuleNamedAfterItsNumber) {
  ZotHandleRecord* first = nullptr;
  ZotHandleRecord* second = nullptr;
  ASSERT_EQ(ZOT_HandleInitialize(nullptr, 0x1A, &first), QURN_OK);
  EXPECT_EQ(first->self, first);
  EXPECT_EQ(ZOT_GetRelHandle(valueOf(first)), first->kemHandle);
  void* block = ZOT_Malloc_F(valueOf(first), 2, 100, "component", 7);
  g_pHandleBlock = first;
  g_aucZotMemPt[0] = 3;
  ASSERT_EQ(ZOT_HandleInitialize(nullptr, 0xFFFFFFFF, &second), QURN_OK);
  void* other = ZOT_Malloc_F(valueOf(second), 0, 8, "component", 1);
  EXPECT_EQ(held(), (Texts{"handle 0 (-), partition 0, a record: 1 blocks, 16 bytes",
                           "handle 1 (0000001a), partition 2, component:7: 1 blocks, 100 bytes",
                           "handle 1 (0000001a), partition 3, a record: 1 blocks, 16 bytes",
                           "handle 2 (ffffffff), partition 0, component:1: 1 blocks, 8 bytes"}));
  EXPECT_EQ(ZOT_Free_F(block, "component", 8) | ZOT_Free_F(other, "component", 2), QURN_OK);
  EXPECT_EQ(ZOT_HandleFinalize(second) | ZOT_HandleFinalize(first), QURN_OK);
  EXPECT_EQ(held(), Texts{});
  EXPECT_EQ(recorded::texts(), Texts{});
}

TEST(LegacyHandle, OnlyRawIdsAndLiveRecordsAreHandles) {
  EXPECT_CODES((Codes{0, 1, 0x04048000}), ZOT_GetRelHandle(0), ZOT_GetRelHandle(1),
               ZOT_GetRelHandle(0x04048000));
  void* unreadable = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ZotHandleRecord forged{&forged, 5};
  for (const uintptr_t value :
       {uintptr_t{0x04048001}, uintptr_t{0xDEADBEEF}, UINTPTR_MAX, valueOf(unreadable),
        valueOf(unreadable) + 4095, valueOf(&forged)}) {
    EXPECT_EQ(ZOT_GetRelHandle(value), QURN_FAILED);
    EXPECT_EQ(ZOT_Malloc_F(value, 0, 8, "component", 1), nullptr);
    EXPECT_ERROR("Handle 4294967295 cannot be charged with 8 bytes at component:1.");
    EXPECT_EQ(ZOT_HandleFinalize(reinterpret_cast<ZotHandleRecord*>(value)), QURN_FAILED);
  }
  ZotHandleRecord* record = moduleNamed("module");
  EXPECT_EQ(ZOT_GetRelHandle(valueOf(record) + 1), QURN_FAILED);
  record->self = nullptr;  // its component marks it as dead
  EXPECT_EQ(ZOT_GetRelHandle(valueOf(record)), QURN_FAILED);
  EXPECT_EQ(ZOT_HandleFinalize(record), QURN_OK);
  EXPECT_EQ(ZOT_GetRelHandle(valueOf(record)), QURN_FAILED);
  EXPECT_EQ(ZOT_HandleFinalize(record), QURN_FAILED);
  record = moduleNamed("module");
  EXPECT_EQ(ZOT_Free_F(record, "component", 1), QURN_OK);  // instead of finalising it
  EXPECT_EQ(ZOT_GetRelHandle(valueOf(record)), QURN_FAILED);
  munmap(unreadable, 4096);
}

TEST(LegacyHandle, MistakesAreAnsweredWithTheirLines) {
  ZotHandleRecord* record = nullptr;
  fault::arm("KEM_HandleInitialize", 0);
  EXPECT_CODES(Codes(5, QURN_FAILED), ZOT_HandleInitializeByName("module", &record),
               ZOT_HandleInitializeByName("module", nullptr),
               ZOT_HandleInitializeByName(nullptr, &record),
               ZOT_HandleInitialize(nullptr, 1, nullptr), ZOT_HandleFinalize(nullptr));
  EXPECT_TEXTS(100, "Get ZOT handle by name, kelva handle init unsuccessfully. (ret = 0x7)",
               "Get ZOT handle by name, input invalid.", "Get ZOT handle by name, input invalid.",
               "pHandle NULL", "Para pstHandle is NULL.");
  EXPECT_EQ(record, nullptr);
  EXPECT_EQ(fault::calls("KEM_HandleInitialize"), 1) << "only with all its arguments";
  EXPECT_CODES((Codes{0, 0, QURN_INVALID_VALUE}), ZOT_MemCheckSwitch(0), ZOT_MemCheckSwitch(1),
               ZOT_MemCheckSwitch(2));
}

TEST(LegacyHandle, ThousandsOfRecordsAreToldFromEverythingElse) {
  std::vector<ZotHandleRecord*> records(5000);
  size_t refused = 0;
  for (ZotHandleRecord*& record : records) {
    fault::arm("TOV_MemAllocF", ENOMEM);  // of the memory to remember records in
    if (ZOT_HandleInitialize(nullptr, 1, &record) != QURN_OK) {
      ++refused;
      record = moduleNamed("module");
    }
  }
  EXPECT_GT(refused, 0U);
  for (ZotHandleRecord* record : records) {
    ASSERT_EQ(ZOT_GetRelHandle(valueOf(record)), record->kemHandle);
    ASSERT_EQ(ZOT_GetRelHandle(valueOf(&record->kemHandle)), QURN_FAILED);
  }
  for (ZotHandleRecord* record : records) {
    ASSERT_EQ(ZOT_HandleFinalize(record), QURN_OK);
    ASSERT_EQ(ZOT_GetRelHandle(valueOf(record)), QURN_FAILED);
  }
  EXPECT_EQ(held(), Texts{});
}

TEST(LegacyHandle, ModulesComeAndGoWhileOthersAllocate) {
  ZotHandleRecord* steady = moduleNamed("steady");
  const auto comeAndGo = [] { return ZOT_HandleFinalize(moduleNamed("passing")); };
  const auto allocate = [steady] {
    return ZOT_Free_F(ZOT_Malloc_F(valueOf(steady), 1, 32, "thread", 1), "thread", 2);
  };
  std::vector<std::jthread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([=] {
      for (int round = 0; round < 2000; ++round) {
        EXPECT_EQ(number % 2 == 0 ? comeAndGo() : allocate(), QURN_OK);
      }
    });
  }
  threads.clear();
  EXPECT_EQ(ZOT_HandleFinalize(steady), QURN_OK);
  EXPECT_EQ(recorded::texts(), Texts{});
}

}  // namespace
