// Legacy handles and memory on the stand-in's accounts.
#include <sys/mman.h>

#include <barrier>
#include <ctime>
#include <limits>
#include <regex>

#include "support/in_child.h"
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

TEST(HandleTableMemory, IsOfTheFirstPartition) {
  g_aucZotMemPt[0] = 3;
  ASSERT_EQ(nbb_handle_initialize(), 1U);
  EXPECT_FALSE(held().empty());
  for (const std::string& line : held()) {
    EXPECT_NE(line.find("partition 3, ssp_ptr_hdl"), std::string::npos) << line;
  }
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

// ---- the accounts themselves

struct Sum {
  uint64_t blocks = 0;
  uint64_t bytes = 0;
  bool operator==(const Sum&) const = default;
};
Sum heldBy(uint32_t id) {
  Sum held;
  TovStandInMemoryHeld(id, &held.blocks, &held.bytes);
  return held;
}

// Threads come and go, and each frees what others have allocated.
TEST(KemMemory, AccountsAreExactHoweverManyThreadsAllocateAndFree) {
  static std::array<std::atomic<size_t*>, 64> shared{};
  const auto swap = [](size_t* block, size_t place) {
    return KEM_MemFree_F(0, shared.at(place % shared.size()).exchange(block), "swap", 1);
  };
  for (int round = 0; round < 3; ++round) {
    std::vector<std::jthread> threads;
    for (unsigned seed = 0; seed < 4; ++seed) {
      threads.emplace_back([=] {
        std::minstd_rand random(seed);
        for (size_t bytes = 8; bytes < 5000; ++bytes) {
          const auto place = static_cast<uint32_t>(bytes % 300);
          auto* block = static_cast<size_t*>(KEM_MemAlloc_F(5, 1, bytes, "swap", place));
          *block = bytes;
          EXPECT_EQ(swap(block, random()), QURN_OK);
        }
      });
    }
  }
  Sum known;
  for (const size_t* block : shared) {
    known.blocks += block == nullptr ? 0 : 1;
    known.bytes += block == nullptr ? 0 : *block;
  }
  EXPECT_EQ(heldBy(5), known);
  for (size_t place = 0; place < shared.size(); ++place) {
    EXPECT_EQ(swap(nullptr, place), QURN_OK);
  }
  EXPECT_EQ(held(), Texts{});
}

TEST(KemMemory, OfTwoThreadsThatFreeABlockAtOnceOneIsToldWhereTheOtherDid) {
  std::atomic<void*> block;
  std::atomic<int> freed{0};
  std::barrier together(2);
  const auto freeThem = [&](const char* file, uint32_t line) {
    for (int round = 0; round < 200; ++round) {
      if (line == 1) {
        block = KEM_MemAlloc_F(0, 0, 8, file, 3);
      }
      together.arrive_and_wait();
      freed += KEM_MemFree_F(0, block, file, line) == QURN_OK ? 1 : 0;
      together.arrive_and_wait();
    }
  };
  std::thread([&] {
    const std::jthread other(freeThem, "two", 2);
    freeThem("one", 1);
  }).join();
  EXPECT_EQ(freed, 200);
  const std::regex right(
      "Block 0x[0-9a-f]+ is freed twice: at (one:1, and before at two:2|"
      "two:2, and before at one:1)[.]");
  EXPECT_EQ(recorded::texts().size(), 200U);
  for (const std::string& text : recorded::texts()) {
    EXPECT_TRUE(std::regex_match(text, right)) << text;
  }
}

TEST(KemMemory, AnyAddressMayBeFreedAndANameMayChangeWhereItStands) {
  void* unreadable = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  for (const uintptr_t address : {reinterpret_cast<uintptr_t>(unreadable), uintptr_t{16},
                                  uintptr_t{1} << 47U, uintptr_t{1} << 63U, UINTPTR_MAX}) {
    EXPECT_EQ(KEM_MemFree_F(0, reinterpret_cast<void*>(address), "x", 1), QURN_FAILED);
  }
  EXPECT_EQ(KEM_MemAlloc_F(0, 0, UINTPTR_MAX, "x", 1), nullptr);
  std::string name = "first";
  void* first = KEM_MemAlloc_F(6, 0, 1, name.c_str(), 1);
  name.assign("other");
  void* other = KEM_MemAlloc_F(6, 0, 2, name.c_str(), 1);
  name.assign("third");
  EXPECT_EQ(held(), (Texts{"handle 6 (-), partition 0, first:1: 1 blocks, 1 bytes",
                           "handle 6 (-), partition 0, other:1: 1 blocks, 2 bytes"}));
  EXPECT_EQ(KEM_MemFree_F(0, first, "x", 1) | KEM_MemFree_F(0, other, "x", 1), QURN_OK);
}

double residentBytes() {
  double whole = 0;
  double resident = 0;
  std::ifstream("/proc/self/statm") >> whole >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

// Before and after, so that both use fresh memory.
template <typename Action>
double residentBytesOf(Action action) {
  const double before = residentBytes();
  for (int i = 0; i < 1'000'000; ++i) {
    std::memset(action(), 1, 64);
  }
  return residentBytes() - before;
}

TEST(KemMemory, AMillionBlocksTakeHalfAsMuchAgainAsTheHeapsAtMost) {
  if (!kSanitizers.empty() || kEmulated) {
    GTEST_SKIP();
  }
  const double plain = residentBytesOf([] { return malloc(64); });
  const double accounted = residentBytesOf([] { return KEM_MemAlloc_F(0, 0, 64, "x", 1); });
  EXPECT_LE(accounted / plain, 1.5);
}

int64_t processorNs() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return now.tv_sec * 1'000'000'000 + now.tv_nsec;
}

TEST(KemMemory, AModuleFinalisesAsFastAfterThousandsOfOthers) {
  const auto fastestOf = [](int modules) {
    int64_t fastest = std::numeric_limits<int64_t>::max();
    for (int i = 0; i < modules; ++i) {
      uint32_t id = 0;
      KEM_HandleInitialize("passing", &id);
      KEM_MemFree_F(0, KEM_MemAlloc_F(id, 0, 8, "x", 1), "x", 2);
      const int64_t start = processorNs();
      EXPECT_EQ(KEM_HandleFinalize(id), QURN_OK);
      fastest = std::min(fastest, processorNs() - start);
    }
    return fastest;
  };
  const int64_t early = fastestOf(10);
  fastestOf(64'000);
  const int64_t late = fastestOf(10);
  EXPECT_LE(late, 20 * early);
}

}  // namespace
