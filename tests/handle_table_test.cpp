// The handle table: the stated cases, failures and retries, a randomised comparison with the model,
// and many threads at once.
#include "support/handle_table_model.h"
#include "support/in_child.h"
#include "support/library_test.h"

namespace {

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
  const uint32_t live = nbb_create_handle(pointer(1));
  const uint32_t stale = live + 0x01000000U;
  // No generation, page 4096; and without a word: a vacant page, an old generation, a free slot.
  for (const uint32_t handle : {0U, 0x00010000U, 0x01001000U, 0x01000FFFU, stale, 0x01050000U}) {
    EXPECT_EQ(nbb_validate_handle(handle), nullptr);
  }
  nbb_modify_handle(0, pointer(2));
  nbb_modify_handle(live, nullptr);
  nbb_modify_handle(stale, pointer(2));
  nbb_destroy_handle(stale);
  NbbHndTbl none{};
  EXPECT_CODES(Codes(6, 0), nbb_create_handle(nullptr),
               nbb_assign_handle_in_table(nullptr, 1, pointer(1)),
               nbb_assign_handle_in_table(&g_stNbbHndTbl, 0, pointer(1)),
               nbb_assign_handle_in_table(&g_stNbbHndTbl, 1, nullptr), NbbSetupPageArray(&none),
               nbb_get_spare_handle_bits(&g_stNbbHndTbl, ~0U));
  EXPECT_EQ(nbb_handle_initialize(), 1U) << "once more changes nothing";
  EXPECT_EQ(nbb_validate_handle(live), pointer(1));
  const std::string invalid = "nbb_validate_handle_in_table: Invalid handle value, ignore.";
  EXPECT_TEXTS(40, invalid, invalid, invalid, invalid, "ptrHandle is null.");
  EXPECT_TEXTS(100, "nbb_modify_handle: handle is null.", "nbb_modify_handle: ptr is null.",
               "nbb_modify_handle: pstHandle is null.", "nbb_create_handle,ptr is null.",
               "nbb_assign_handle: psthnd_tbl is null.", "nbb_assign_handle: ptrHandle is null.",
               "nbb_assign_handle: ptr is null.",
               "Handle page memory unsuccessfully, msg len is 0.");
  for (const recorded::Line& line : recorded::lines()) {
    EXPECT_EQ(line.unit, "ssp_ptr_hdl") << line.text;
  }
}

TEST_F(HandleTable, AssertsOnBadWidthsAndOnHandlesLeftInUseAndGoesOn) {
  const std::string assertion = "assertion in ssp_ptr_hdl";
  NbbHndTbl table;
  const std::array<uint32_t, 4> bad[] = {
      {1, 8, 8, 16}, {15, 1, 8, 8}, {7, 9, 8, 8}, {0, 8, 10, 14}};
  for (const auto& [spare, generation, slot, page] : bad) {
    recorded::forget();
    EXPECT_EQ(nbb_handle_table_initialize(&table, spare, generation, slot, page), 1U);
    EXPECT_EQ(recorded::events(), Texts{assertion});
    // Whatever the widths, no slot beyond a page is touched.
    EXPECT_EQ(nbb_validate_handle_in_table(&table, 0xFFFFFF00U), nullptr);
    nbb_destroy_handle_in_table(&table, nbb_create_handle_in_table(&table, pointer(1)));
    nbb_handle_table_terminate(&table);
  }
  nbb_handle_table_initialize(&table, 8, 8, 8, 8);
  uint32_t handle = nbb_create_handle_in_table(&table, pointer(1));
  recorded::forget();
  nbb_set_spare_handle_bits(&table, &handle, 0xFF);
  nbb_set_spare_handle_bits(&table, &handle, 0xAB);
  // There is such a page already: two assertions; or it is none of the table's either: three.
  EXPECT_CODES((Codes{0xAB010000, 0xAB, 0, 0}), handle, nbb_get_spare_handle_bits(&table, handle),
               nbb_alloc_page(&table, 0), nbb_alloc_page(&table, 1000));
  nbb_set_spare_handle_bits(&table, &handle, 0x100);
  nbb_handle_table_terminate(&table);
  EXPECT_EQ(recorded::events(), Texts(2 + 3 + 1 + 1, assertion));
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

TEST_F(HandleTable, ThePlainCallsNeedTheModule) {
  NbbHandleTerminate();
  EXPECT_EQ(g_pTblLock, 0U);
  EXPECT_EQ(nbb_create_handle(pointer(1)), 0U);
  EXPECT_EQ(nbb_validate_handle(1), nullptr);
  nbb_modify_handle(1, pointer(1));
  nbb_destroy_handle(1);
  EXPECT_TEXTS(100, "NBB create handle unsuccessfully, module has not initialized.",
               "NBB validate handle unsuccessfully, module has not initialized.",
               "NBB modify handle unsuccessfully, module has not initialized.",
               "NBB destroy handle unsuccessfully, module has not initialized.");
  // Nor does a fork ask the platform for a mutex that does not exist.
  const int locks = fault::calls("KEM_MutexLock");
  EXPECT_TRUE(inChild([] { return true; }));
  EXPECT_EQ(fault::calls("KEM_MutexLock"), locks);
  NbbHandleTerminate();
  EXPECT_EQ(nbb_handle_initialize(), 1U);
}

// Growing and shrinking alternate, so that pages come and go. One hold of the lock: no other thread
// can slip between the validation of a handle and the change.
TEST_F(HandleTable, AnswersAsItsModelDoesInOneHoldOfTheLock) {
  const std::array<uint32_t, 3> layouts[] = {{8, 16, 1}, {2, 12, 2}, {8, 4, 3}, {8, 3, 4}};
  for (const auto& [generationBits, pageBits, seed] : layouts) {
    SCOPED_TRACE(seed);
    TableBesideModel both(generationBits, pageBits,
                          [](bool fail) { fault::arm("KEM_MemAlloc_F", ENOMEM, 0, fail ? 1 : 0); });
    std::mt19937 random(seed);
    std::discrete_distribution<uint32_t> growing{60, 5, 5, 10, 20};
    std::discrete_distribution<uint32_t> shrinking{10, 5, 5, 79, 1};
    for (uint32_t step = 0; step < 150'000; ++step) {
      // At the bound of what may be free behind the search, it is made to go on.
      const bool create = both.table.freedBehindCount == 1024 && random() % 64 != 0;
      auto& operations = (step / 10'000) % 2 == 0 ? growing : shrinking;
      const uint32_t drawn = create ? TableBesideModel::kCreate : operations(random);
      const auto choice = static_cast<uint32_t>(random());
      const int locks = fault::calls("KEM_MutexLock");
      ASSERT_TRUE(both.operate(drawn, choice, random() % 2 == 0)) << step;
      const int validations = drawn == TableBesideModel::kValidate ? 0 : 1;
      ASSERT_EQ(fault::calls("KEM_MutexLock"), locks + 1 + validations) << step;
    }
    ASSERT_EQ(recorded::events(), Texts{}) << "assertions";
    nbb_handle_table_terminate(&both.table);
    recorded::forget();  // that handles were left in use
  }
}

// Handles wander between threads through shared places, and each thread also tries to change and
// destroy handles that may be going at this moment.
TEST_F(HandleTable, ManyThreadsLeaveItConsistent) {
  std::array<std::atomic<uint32_t>, 512> places{};
  const auto wander = [&places](uint32_t number) {
    std::mt19937 random(number);
    for (uint32_t round = 0; round < 20'000; ++round) {
      void* const own = pointer(number * 20'000 + round);
      const uint32_t handle = nbb_create_handle(own);
      EXPECT_EQ(nbb_validate_handle(handle), own);
      if (const uint32_t seen = places[random() % places.size()]; round % 8 == 0) {
        nbb_modify_handle(seen, pointer(1000));
        nbb_destroy_handle(seen);
      }
      nbb_destroy_handle(places[random() % places.size()].exchange(handle));
    }
  };
  std::vector<std::jthread> threads;
  for (uint32_t number = 0; number < 4; ++number) {
    threads.emplace_back(wander, number);
  }
  threads.clear();
  for (const uint32_t place : places) {
    nbb_destroy_handle(place);
  }
  const auto pages = static_cast<int32_t>(blocksHeld() - 1);  // the other block is their array
  EXPECT_EQ(g_stNbbHndTbl.freeSlotCount, 256 * pages);
  NbbHandleTerminate();
  EXPECT_EQ(recorded::events(), Texts{});  // nothing was left in use
}

}  // namespace
