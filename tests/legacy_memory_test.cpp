// Legacy handles and memory on the stand-in's accounts.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <tovplatform/stand_in.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include "support/faults.h"
#include "support/recording_platform.h"

namespace {

using Texts = std::vector<std::string>;

Texts g_held;

uint32_t collect(const char* line) {
  g_held.emplace_back(line);
  return 0;
}

Texts held() {
  g_held.clear();
  TovStandInMemoryPrint(collect);
  return g_held;
}

uintptr_t valueOf(const void* address) { return reinterpret_cast<uintptr_t>(address); }

TEST(LegacyHandle, WrapsTheIdOfAModuleNamedAfterItsNumber) {
  ZotHandleRecord* record = nullptr;
  ASSERT_EQ(ZOT_HandleInitialize(nullptr, 0x1A, &record), QURN_OK);
  EXPECT_EQ(record->self, record);
  EXPECT_EQ(ZOT_GetRelHandle(valueOf(record)), record->kemHandle);
  void* block = ZOT_Malloc_F(valueOf(record), 2, 100, "component", 7);
  const Texts lines = held();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].find("handle 0 (-), partition 0, qurn_memory:"), 0U) << lines[0];
  EXPECT_NE(lines[0].find(": 1 blocks, 16 bytes"), std::string::npos) << lines[0];
  EXPECT_EQ(lines[1], "handle " + std::to_string(record->kemHandle) +
                          " (0000001a), partition 2, component:7: 1 blocks, 100 bytes");
  EXPECT_EQ(ZOT_Free_F(block, "component", 8), QURN_OK);
  EXPECT_EQ(ZOT_HandleFinalize(record), QURN_OK);
  EXPECT_EQ(held(), Texts{});
  EXPECT_EQ(recorded::texts(), Texts{});
}

TEST(LegacyHandle, RecordsAreChargedToTheHandleBlock) {
  ZotHandleRecord* owner = nullptr;
  ZotHandleRecord* record = nullptr;
  ASSERT_EQ(ZOT_HandleInitializeByName("owner", &owner), QURN_OK);
  g_pHandleBlock = owner;
  g_aucZotMemPt[0] = 3;
  ASSERT_EQ(ZOT_HandleInitialize(nullptr, 0xFFFFFFFF, &record), QURN_OK);
  EXPECT_EQ(held().back().find("handle 1 (owner), partition 3, qurn_memory:"), 0U);
  void* block = ZOT_Malloc_F(valueOf(record), 0, 8, "component", 1);
  EXPECT_EQ(held().back().find("handle 2 (ffffffff), partition 0, component:1:"), 0U);
  EXPECT_EQ(ZOT_Free_F(block, "component", 2), QURN_OK);
  EXPECT_EQ(ZOT_HandleFinalize(record), QURN_OK);
  EXPECT_EQ(ZOT_HandleFinalize(owner), QURN_OK);
}

TEST(LegacyHandle, OnlyRawIdsAndLiveRecordsAreHandles) {
  for (const uintptr_t raw : {0U, 1U, 0x04048000U}) {
    EXPECT_EQ(ZOT_GetRelHandle(raw), raw);
  }
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
  ZotHandleRecord* record = nullptr;
  ASSERT_EQ(ZOT_HandleInitializeByName("module", &record), QURN_OK);
  EXPECT_EQ(ZOT_GetRelHandle(valueOf(record) + 1), QURN_FAILED);
  record->self = nullptr;  // its component marks it as dead
  EXPECT_EQ(ZOT_GetRelHandle(valueOf(record)), QURN_FAILED);
  EXPECT_EQ(ZOT_HandleFinalize(record), QURN_OK);
  EXPECT_EQ(ZOT_GetRelHandle(valueOf(record)), QURN_FAILED);
  EXPECT_EQ(ZOT_HandleFinalize(record), QURN_FAILED);
  ASSERT_EQ(ZOT_HandleInitializeByName("module", &record), QURN_OK);
  EXPECT_EQ(ZOT_Free_F(record, "component", 1), QURN_OK);  // instead of finalising it
  EXPECT_EQ(ZOT_GetRelHandle(valueOf(record)), QURN_FAILED);
  munmap(unreadable, 4096);
}

TEST(LegacyHandle, MistakesAreAnsweredWithTheirLines) {
  ZotHandleRecord* record = nullptr;
  fault::arm("KEM_HandleInitialize", 0);
  EXPECT_EQ(ZOT_HandleInitializeByName("module", &record), QURN_FAILED);
  EXPECT_EQ(ZOT_HandleInitializeByName("module", nullptr), QURN_FAILED);
  EXPECT_EQ(ZOT_HandleInitializeByName(nullptr, &record), QURN_FAILED);
  EXPECT_EQ(ZOT_HandleInitialize(nullptr, 1, nullptr), QURN_FAILED);
  EXPECT_EQ(ZOT_HandleFinalize(nullptr), QURN_FAILED);
  EXPECT_EQ(
      recorded::texts(100),
      (Texts{"Get ZOT handle by name, kelva handle init unsuccessfully. (ret = 0x7)",
             "Get ZOT handle by name, input invalid.", "Get ZOT handle by name, input invalid.",
             "pHandle NULL", "Para pstHandle is NULL."}));
  EXPECT_EQ(record, nullptr);
  EXPECT_EQ(fault::calls("KEM_HandleInitialize"), 1) << "only with all its arguments";
  EXPECT_EQ(ZOT_MemCheckSwitch(0) | ZOT_MemCheckSwitch(1), QURN_OK);
  EXPECT_EQ(ZOT_MemCheckSwitch(2), QURN_INVALID_VALUE);
}

TEST(LegacyHandle, ThousandsOfRecordsAreToldFromEverythingElse) {
  std::vector<ZotHandleRecord*> records(5000);
  bool refused = false;
  for (ZotHandleRecord*& record : records) {
    fault::arm("TOV_MemAllocF", ENOMEM);  // of the memory to remember records in
    if (ZOT_HandleInitialize(nullptr, 1, &record) != QURN_OK) {
      refused = true;
      ASSERT_EQ(ZOT_HandleInitialize(nullptr, 1, &record), QURN_OK);
    }
  }
  EXPECT_TRUE(refused);
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
  ZotHandleRecord* steady = nullptr;
  ASSERT_EQ(ZOT_HandleInitializeByName("steady", &steady), QURN_OK);
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([steady, number] {
      for (int round = 0; round < 2000; ++round) {
        if (number % 2 == 0) {
          ZotHandleRecord* own = nullptr;
          if (ZOT_HandleInitializeByName("passing", &own) != QURN_OK ||
              ZOT_HandleFinalize(own) != QURN_OK) {
            ADD_FAILURE();
          }
        } else if (ZOT_Free_F(ZOT_Malloc_F(valueOf(steady), 1, 32, "thread", 1), "thread", 2) !=
                   QURN_OK) {
          ADD_FAILURE();
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(ZOT_HandleFinalize(steady), QURN_OK);
  EXPECT_EQ(recorded::texts(), Texts{});
}

}  // namespace
