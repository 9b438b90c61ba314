// The handle table: the stated cases, failures and retries, a randomised comparison with the model,
// and many threads at once.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <tovplatform/stand_in.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <random>
#include <thread>

#include "support/faults.h"
#include "support/handle_table_model.h"
#include "support/recording_platform.h"

namespace {

using Texts = std::vector<std::string>;

constexpr uint32_t kAnyMoment = 1000;

// A pointer that is none of the table's own memory.
void* pointer(uint64_t number) { return reinterpret_cast<void*>((number << 4U) + 0x1000); }

uint64_t blocksHeld() {
  uint64_t blocks = 0;
  uint64_t bytes = 0;
  TovStandInMemoryHeld(0, &blocks, &bytes);
  return blocks;
}

class HandleTable : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(nbb_handle_initialize(), 1U); }
  void TearDown() override {
    NbbHandleTerminate();
    EXPECT_EQ(blocksHeld(), 0U);
  }
};

TEST_F(HandleTable, MistakesAreAnsweredWithTheirLines) {
  const std::string invalid = "nbb_validate_handle_in_table: Invalid handle value, ignore.";
  const auto said = [](const Texts& info, const Texts& errors) {
    EXPECT_EQ(recorded::texts(40), info);
    EXPECT_EQ(recorded::texts(100), errors);
    for (const recorded::Line& line : recorded::lines()) {
      EXPECT_EQ(line.unit, "ssp_ptr_hdl") << line.text;
    }
    recorded::forget();
  };
  const uint32_t live = nbb_create_handle(pointer(1));
  for (const uint32_t handle : {0U, 0x00010000U, 0x01001000U}) {  // no generation, page 4096
    EXPECT_EQ(nbb_validate_handle(handle), nullptr);
    said({invalid}, {});
  }
  for (const uint32_t handle : {0x01000FFFU, 0x02000000U, 0x01050000U}) {  // vacant, old, free
    EXPECT_EQ(nbb_validate_handle(handle), nullptr);
    said({}, {});
  }
  nbb_modify_handle(0, pointer(2));
  said({invalid}, {"nbb_modify_handle: handle is null."});
  nbb_modify_handle(live, nullptr);
  said({}, {"nbb_modify_handle: ptr is null."});
  nbb_modify_handle(live + 0x01000000U, pointer(2));
  said({}, {"nbb_modify_handle: pstHandle is null."});
  nbb_destroy_handle(live + 0x01000000U);
  said({"ptrHandle is null."}, {});
  EXPECT_EQ(nbb_create_handle(nullptr), 0U);
  said({}, {"nbb_create_handle,ptr is null."});
  EXPECT_EQ(nbb_assign_handle_in_table(nullptr, 1, pointer(1)), 0U);
  EXPECT_EQ(nbb_assign_handle_in_table(&g_stNbbHndTbl, 0, pointer(1)), 0U);
  EXPECT_EQ(nbb_assign_handle_in_table(&g_stNbbHndTbl, 1, nullptr), 0U);
  said({}, {"nbb_assign_handle: psthnd_tbl is null.", "nbb_assign_handle: ptrHandle is null.",
            "nbb_assign_handle: ptr is null."});
  EXPECT_EQ(nbb_assign_handle_in_table(&g_stNbbHndTbl, 0x01001000U, pointer(1)), 0U);
  NbbHndTbl none{};
  EXPECT_EQ(NbbSetupPageArray(&none), 0U);
  said({}, {"Handle page memory unsuccessfully, msg len is 0."});
  EXPECT_EQ(nbb_handle_initialize(), 1U) << "once more, and nothing changes";
  EXPECT_EQ(nbb_validate_handle(live), pointer(1));
  EXPECT_EQ(nbb_get_spare_handle_bits(&g_stNbbHndTbl, ~0U), 0U);
  said({}, {});
}

TEST_F(HandleTable, AssertsOnBadWidthsAndOnHandlesLeftInUseAndGoesOn) {
  NbbHndTbl table;
  const std::array<std::array<uint32_t, 4>, 4> bad{
      {{1, 8, 8, 16}, {15, 1, 8, 8}, {7, 9, 8, 8}, {0, 8, 10, 14}}};
  for (const auto& [spare, generation, slot, page] : bad) {
    recorded::forget();
    EXPECT_EQ(nbb_handle_table_initialize(&table, spare, generation, slot, page), 1U);
    EXPECT_EQ(recorded::events(), Texts{"assertion in ssp_ptr_hdl"});
    // Whatever the widths, no slot beyond a page is touched.
    EXPECT_EQ(nbb_validate_handle_in_table(&table, 0xFFFFFF00U), nullptr);
    const uint32_t handle = nbb_create_handle_in_table(&table, pointer(1));
    nbb_destroy_handle_in_table(&table, handle);
    nbb_handle_table_terminate(&table);
  }
  nbb_handle_table_initialize(&table, 8, 8, 8, 8);
  uint32_t handle = nbb_create_handle_in_table(&table, pointer(1));
  recorded::forget();
  EXPECT_EQ(nbb_alloc_page(&table, 0), 0U);  // there is one already
  EXPECT_EQ(recorded::events().size(), 2U);
  EXPECT_EQ(nbb_alloc_page(&table, 1000), 0U);
  nbb_set_spare_handle_bits(&table, &handle, 0xAB);
  EXPECT_EQ(handle, 0xAB010000U);
  EXPECT_EQ(nbb_get_spare_handle_bits(&table, handle), 0xABU);
  EXPECT_EQ(nbb_validate_handle_in_table(&table, handle), pointer(1));
  recorded::forget();
  nbb_set_spare_handle_bits(&table, &handle, 0x100);
  nbb_handle_table_terminate(&table);
  EXPECT_EQ(recorded::events().size(), 2U);
}

// No operation on a table without memory may do or touch anything.
void expectDead(NbbHndTbl& table) {
  EXPECT_EQ(nbb_create_handle_in_table(&table, pointer(1)), 0U);
  EXPECT_EQ(nbb_assign_handle_in_table(&table, 0x01000000U, pointer(1)), 0U);
  EXPECT_EQ(nbb_validate_handle_in_table(&table, 0x01000000U), nullptr);
  nbb_modify_handle_in_table(&table, 0x01000000U, pointer(1));
  nbb_destroy_handle_in_table(&table, 0x01000000U);
}

TEST_F(HandleTable, AFailedSetUpFailsCleanlyAndCanBeRetried) {
  NbbHandleTerminate();
  for (int after = 0; after <= 4; ++after) {  // the array and four pages
    fault::arm("KEM_MemAlloc_F", ENOMEM, after);
    EXPECT_EQ(nbb_handle_initialize(), 0U);
    EXPECT_EQ(blocksHeld(), static_cast<uint64_t>(after));  // what was added stays
    expectDead(g_stNbbHndTbl);
    EXPECT_EQ(nbb_create_handle(pointer(1)), 0U);
    if (after % 2 == 0) {
      NbbHandleTerminate();
      EXPECT_EQ(blocksHeld(), 0U);
    }
  }
  ASSERT_EQ(nbb_handle_initialize(), 1U);
  fault::arm("KEM_MutexLock", EINVAL, 0, 2);
  NbbHndTbl own;
  NbbHndTbl other;
  EXPECT_EQ(nbb_handle_table_initialize(&own, 0, 8, 8, 16), 0U);
  EXPECT_EQ(nbb_handle_table_initialize(&other, 0, 8, 8, 16), 0U);
  EXPECT_ERROR("Mutex lock unsuccessfully:7");
  expectDead(own);
  EXPECT_EQ(nbb_handle_table_initialize(&own, 14, 8, 8, 2), 1U);  // frees what the first try kept
  EXPECT_EQ(nbb_handle_table_initialize(&other, 14, 8, 8, 2), 1U);
  EXPECT_EQ(blocksHeld(), 5U + 5U + 5U);
  nbb_handle_table_terminate(&other);
  nbb_handle_table_terminate(&own);
  expectDead(own);
  nbb_handle_table_terminate(&own);
  EXPECT_EQ(nbb_handle_table_initialize(&own, 15, 8, 8, 1), 0U);  // cannot hold 1024 slots
  nbb_handle_table_terminate(&own);
}

// More than 1024 slots freed behind the current page make the search start over, from page 0 on.
TEST_F(HandleTable, TheSearchForFreeSlotsGoesOnUntilEnoughAreFreeBehindIt) {
  for (const uint32_t freed : {1024U, 1025U}) {
    std::vector<uint32_t> handles;
    while (g_stNbbHndTbl.currentPage < 5) {
      handles.push_back(nbb_create_handle(pointer(1)));
    }
    for (uint32_t i = 0; i < freed; ++i) {
      nbb_destroy_handle(handles[i % 5 * 256 + i / 5]);  // no page gets empty
    }
    ASSERT_EQ(g_stNbbHndTbl.freedBehindCount, static_cast<int32_t>(freed));
    for (int i = 0; i < 256; ++i) {
      nbb_create_handle(pointer(2));  // what page 5 has
    }
    EXPECT_EQ(nbb_create_handle(pointer(3)) & 0xFFFFU, freed > 1024 ? 1U : 6U);
    NbbHandleTerminate();
    ASSERT_EQ(nbb_handle_initialize(), 1U);
  }
}

// So that no other thread can slip between the validation of a handle and the change.
TEST_F(HandleTable, EveryCallTakesTheLockOnce) {
  const uint32_t handle = nbb_create_handle(pointer(1));
  const auto locksOnce = [](auto call) {
    fault::arm("KEM_MutexLock", 0, 1);
    call();
    return fault::strikes("KEM_MutexLock");  // the next one is the second
  };
  EXPECT_TRUE(locksOnce([] { nbb_create_handle(pointer(2)); }));
  EXPECT_TRUE(locksOnce([=] { nbb_validate_handle(handle); }));
  EXPECT_TRUE(locksOnce([=] { nbb_modify_handle(handle, pointer(3)); }));
  EXPECT_TRUE(locksOnce([=] { nbb_destroy_handle(handle); }));
  EXPECT_TRUE(locksOnce(
      [=] { nbb_assign_handle_in_table(&g_stNbbHndTbl, handle + (1U << 24U), pointer(4)); }));
}

TEST_F(HandleTable, ThePlainCallsNeedTheModule) {
  NbbHandleTerminate();
  EXPECT_EQ(g_pTblLock, 0U);
  EXPECT_EQ(nbb_create_handle(pointer(1)), 0U);
  EXPECT_EQ(nbb_validate_handle(1), nullptr);
  nbb_modify_handle(1, pointer(1));
  nbb_destroy_handle(1);
  Texts expected;
  for (const std::string call : {"create", "validate", "modify", "destroy"}) {
    expected.push_back("NBB " + call + " handle unsuccessfully, module has not initialized.");
  }
  EXPECT_EQ(recorded::texts(100), expected);
  // Nor does a fork ask the platform for a mutex that does not exist.
  const int locks = fault::calls("KEM_MutexLock");
  const pid_t child = fork();
  if (child == 0) {
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  EXPECT_EQ(fault::calls("KEM_MutexLock"), locks);
  NbbHandleTerminate();
  EXPECT_EQ(nbb_handle_initialize(), 1U);
}

struct Layout {
  uint32_t generationBits;
  uint32_t pageBits;
  uint32_t seed;
};

void PrintTo(const Layout& layout, std::ostream* out) {
  *out << layout.generationBits << " generation bits, " << layout.pageBits << " page bits";
}

void failPages(bool fail) { fault::arm("KEM_MemAlloc_F", ENOMEM, 0, fail ? 1 : 0); }

class AgainstModel : public testing::TestWithParam<Layout> {};

// Growing and shrinking alternate, so that pages come and go.
TEST_P(AgainstModel, EveryAnswerAndTheRecordAreTheModels) {
  using Operation = TableBesideModel::Operation;
  constexpr uint32_t kSteps = 150'000;
  const auto [generationBits, pageBits, seed] = GetParam();
  NbbHndTbl table;
  ASSERT_EQ(nbb_handle_initialize(), 1U);
  ASSERT_EQ(nbb_handle_table_initialize(&table, 24 - generationBits - pageBits, generationBits, 8,
                                        pageBits),
            1U);
  TableBesideModel both(table, generationBits, pageBits, failPages);
  std::mt19937 random(seed);
  const auto any = [&random] { return static_cast<uint32_t>(random()); };
  std::discrete_distribution<int> growing{60, 5, 5, 10, 20};
  std::discrete_distribution<int> shrinking{10, 5, 5, 79, 1};
  ASSERT_EQ(both.difference(true), "");
  for (uint32_t step = 1; step <= kSteps; ++step) {
    const int drawn = (step / 6000) % 2 == 0 ? growing(random) : shrinking(random);
    ASSERT_TRUE(both.operate(static_cast<Operation>(drawn), any(), any() % 20 == 0)) << step;
    ASSERT_TRUE(both.operate(Operation::kValidate, any(), false)) << step;
    ASSERT_EQ(both.difference(step % 500 == 0), "") << step;
    if (step % 5000 == 0) {
      ASSERT_EQ(recorded::events(), Texts{}) << "assertions, before " << step;
      recorded::forget();
    }
  }
  nbb_handle_table_terminate(&table);
  NbbHandleTerminate();
  EXPECT_EQ(blocksHeld(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Nbb, AgainstModel,
                         testing::Values(Layout{8, 16, 1}, Layout{8, 16, 2}, Layout{2, 12, 3},
                                         Layout{8, 3, 4}),
                         [](const auto& layout) {
                           return "Seed" + std::to_string(layout.param.seed);
                         });

// Handles wander between threads through shared places, and each thread also tries to change and
// destroy handles that may be going at this moment.
TEST_F(HandleTable, ManyThreadsLeaveItConsistent) {
  constexpr uint32_t kThreads = 4;
  constexpr uint32_t kRounds = 20'000;
  std::array<std::atomic<uint32_t>, 512> places{};
  std::vector<std::thread> threads;
  for (uint32_t number = 0; number < kThreads; ++number) {
    threads.emplace_back([&places, number] {
      std::mt19937 random(number);
      for (uint32_t round = 0; round < kRounds; ++round) {
        const uint32_t handle = nbb_create_handle(pointer(number * kRounds + round));
        if (nbb_validate_handle(handle) != pointer(number * kRounds + round)) {
          ADD_FAILURE() << "a new handle does not validate";
        }
        const uint32_t seen = places[random() % places.size()];
        if (round % 8 == 0 && seen != 0) {
          nbb_modify_handle(seen, pointer(kAnyMoment));
          nbb_destroy_handle(seen);
        }
        if (const uint32_t old = places[random() % places.size()].exchange(handle); old != 0) {
          nbb_destroy_handle(old);
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(inconsistencyOf(g_stNbbHndTbl), "");
  for (std::atomic<uint32_t>& place : places) {
    if (place != 0) {
      nbb_destroy_handle(place);
    }
  }
  recorded::forget();
  NbbHandleTerminate();
  EXPECT_EQ(recorded::events(), Texts{});  // nothing was left in use
}

}  // namespace
