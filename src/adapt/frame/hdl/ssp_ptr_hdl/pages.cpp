// Pages of the handle table: how they are added, found and given back. Vacant entries of the page
// array form a list that decides which index the next page gets; allocated pages form a ring in
// ascending order. Page 0 is added first and stays. Called with the tables' lock held.
#include <qurnadapt/legacy_memory.h>

#include <cstddef>

#include "internal/safe_strings.h"
#include "table_access.h"

using namespace qurn::hdl;

static_assert(offsetof(NbbHndPage, freeList) == 2048 && offsetof(NbbHndPage, generations) == 2056 &&
              offsetof(NbbHndPage, usedCount) == 2312 && offsetof(NbbHndPage, nextPage) == 2316 &&
              offsetof(NbbHndPage, prevPage) == 2320 && sizeof(NbbHndPage) == 2328);

namespace {

constexpr int32_t kSlots = NBB_SLOTS_PER_PAGE;

// ---- vacant entries

// Takes an entry off the list. Returns false when it is not on it.
bool unlinkVacantEntry(NbbHndTbl& table, const uint64_t* entry) noexcept {
  if (entry == table.vacantHead) {
    table.vacantHead = linkIn(entry);
    if (table.vacantHead == nullptr) {
      table.vacantTail = nullptr;
    }
    return true;
  }
  for (uint64_t* before = table.vacantHead; before != nullptr; before = linkIn(before)) {
    if (linkIn(before) == entry) {
      *before = *entry;
      if (entry == table.vacantTail) {
        table.vacantTail = before;
        HDL_ASSERT(*before == 0);
      }
      return true;
    }
  }
  return false;
}

void pushVacantEntry(NbbHndTbl& table, uint64_t* entry) noexcept {
  *entry = linkTo(table.vacantHead);
  table.vacantHead = entry;
  if (table.vacantTail == nullptr) {
    table.vacantTail = entry;
  }
}

void appendVacantEntry(NbbHndTbl& table, uint64_t* entry) noexcept {
  *entry = 0;
  if (table.vacantTail == nullptr) {
    table.vacantHead = entry;
  } else {
    *table.vacantTail = linkTo(entry);
  }
  table.vacantTail = entry;
  HDL_ASSERT((table.vacantHead == nullptr) == (table.vacantTail == nullptr));
}

// ---- the ring

constexpr int32_t kNoPage = -1;

// The nearest allocated page with a lower index. Only page 0 has none.
int32_t pageBelow(const NbbHndTbl& table, uint32_t pageIndex) noexcept {
  auto below = static_cast<int32_t>(pageIndex) - 1;
  while (below > kNoPage && NbbIsNeedAllocateNewPage(&table, static_cast<uint32_t>(below)) != 0) {
    --below;
  }
  return below;
}

void linkIntoRing(const NbbHndTbl& table, uint32_t pageIndex, NbbHndPage& page) noexcept {
  const auto index = static_cast<int32_t>(pageIndex);
  const int32_t below = pageBelow(table, pageIndex);
  if (below == kNoPage) {
    HDL_ASSERT(pageIndex == 0);
    page.nextPage = index;
    page.prevPage = index;
    return;
  }
  NbbHndPage& before = *pageIn(table, below);
  page.prevPage = below;
  page.nextPage = before.nextPage;
  pageIn(table, before.nextPage)->prevPage = index;
  before.nextPage = index;
}

void unlinkFromRing(const NbbHndTbl& table, const NbbHndPage& page) noexcept {
  pageIn(table, page.prevPage)->nextPage = page.nextPage;
  pageIn(table, page.nextPage)->prevPage = page.prevPage;
}

// The next page of the ring. That is nearly always the neighbour, as the array tells: a search over
// thousands of full pages need not wait for each page's link before it can look at the next.
int32_t pageAfter(const NbbHndTbl& table, int32_t pageIndex) noexcept {
  const auto neighbour = static_cast<uint32_t>(pageIndex) + 1;
  if (isInRange(table, neighbour) && NbbIsNeedAllocateNewPage(&table, neighbour) == 0) {
    return pageIndex + 1;
  }
  return pageIn(table, pageIndex)->nextPage;
}

// ---- one page

// The platform's part is done without a cancellation in the middle, as the lock is held.
[[gnu::noinline]] NbbHndPage* allocatePage() noexcept {
  const qurn::Uncancellable uncancellable;
  return static_cast<NbbHndPage*>(
      ZOT_Malloc_F(0, g_aucZotMemPt[0], sizeof(NbbHndPage), kBaseName, __LINE__));
}

[[gnu::noinline]] void freePage(NbbHndPage* page) noexcept {
  const qurn::Uncancellable uncancellable;
  ZOT_Free_F(page, kBaseName, __LINE__);
}

void chainFreeSlots(NbbHndPage& page) noexcept {
  for (uint32_t i = 0; i + 1 < NBB_SLOTS_PER_PAGE; ++i) {
    page.slots[i] = linkTo(&page.slots[i + 1]);
  }
  page.slots[NBB_SLOTS_PER_PAGE - 1] = 0;
  page.freeList = page.slots;
}

}  // namespace

extern "C" {

uint32_t MemoryPageIsUseable(uint64_t entry, const NbbHndTbl* table) {
  const uint64_t first = linkTo(table->pageArray);
  const uint64_t bytes = static_cast<uint32_t>(table->pageCapacity) * sizeof(uint64_t);
  return entry == 0 || entry - first < bytes ? 1 : 0;
}

uint32_t NbbIsNeedAllocateNewPage(const NbbHndTbl* table, uint32_t pageIndex) {
  return MemoryPageIsUseable(table->pageArray[pageIndex], table);
}

uint32_t nbb_alloc_next_page(NbbHndTbl* table) {
  if (table->vacantHead == nullptr) {
    return 0;
  }
  return nbb_alloc_page(table, static_cast<uint32_t>(table->vacantHead - table->pageArray));
}

uint32_t nbb_alloc_page(NbbHndTbl* table, uint32_t pageIndex) {
  const bool inRange = isInRange(*table, pageIndex);
  HDL_ASSERT(inRange);
  const bool vacant = inRange && NbbIsNeedAllocateNewPage(table, pageIndex) != 0;
  HDL_ASSERT(vacant);
  const bool unlinked = vacant && unlinkVacantEntry(*table, table->pageArray + pageIndex);
  HDL_ASSERT(unlinked);
  return unlinked ? NbbAllocMemoryForPageNum(table, pageIndex) : 0;
}

uint32_t NbbAllocMemoryForPageNum(NbbHndTbl* table, uint32_t pageIndex) {
  uint64_t* entry = table->pageArray + pageIndex;
  NbbHndPage* page = allocatePage();
  if (page == nullptr) {
    pushVacantEntry(*table, entry);
    return 0;
  }
  *entry = reinterpret_cast<uint64_t>(page);
  linkIntoRing(*table, pageIndex, *page);
  chainFreeSlots(*page);
  memset_s(page->generations, sizeof(page->generations), 0, sizeof(page->generations));
  page->usedCount = 0;
  table->freeSlotCount += kSlots;
  if (isBelowCurrent(*table, pageIndex)) {
    table->freedBehindCount += kSlots;
  }
  return 1;
}

void NbbFreeHandleInTable(uint32_t pageIndex, NbbHndTbl* table, NbbHndPage* page) {
  if (pageIndex == 0 || pageIndex == static_cast<uint32_t>(table->currentPage) ||
      page->usedCount != 0 || table->freeSlotCount <= NBB_FREE_SLOTS_KEPT) {
    return;
  }
  unlinkFromRing(*table, *page);
  freePage(page);
  appendVacantEntry(*table, table->pageArray + pageIndex);
  table->freeSlotCount -= kSlots;
  if (isBelowCurrent(*table, pageIndex)) {
    table->freedBehindCount -= kSlots;
  }
}

// Goes on upwards from the current page, so that slots freed behind it rest, until enough of them
// have gathered to start over. Some page has a free slot, so the search ends.
void nbb_grab_free_slots(NbbHndTbl* table) {
  HDL_ASSERT(table->freeQueue == nullptr);
  if (table->freedBehindCount > NBB_FREE_SLOTS_RESERVED) {
    table->freedBehindCount = 0;
    table->currentPage = 0;
  }
  int32_t candidate = table->currentPage;
  do {
    candidate = pageAfter(*table, candidate);
    if (candidate == 0) {
      table->freedBehindCount = 0;
    }
  } while (pageIn(*table, candidate)->usedCount == NBB_SLOTS_PER_PAGE);
  makeCurrent(*table, candidate);
}

}  // extern "C"
