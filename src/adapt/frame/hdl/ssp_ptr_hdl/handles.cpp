// Handles: created, assigned, validated, modified and destroyed under the tables' lock, each in one
// hold of it. Callable from any thread.
#include "table_access.h"

using namespace qurn::hdl;

namespace {

// The slot behind a valid handle.
struct NamedSlot {
  NbbHndPage* page;
  uint64_t* slot;  // null when the handle is not valid

  [[nodiscard]] bool valid() const noexcept { return slot != nullptr; }
};

[[gnu::cold, gnu::noinline]] void logInvalidHandle() noexcept {
  const qurn::Uncancellable uncancellable;  // the lock is held
  HDL_LOG(TOV_LOG_INFO, "%s: Invalid handle value, ignore.", "nbb_validate_handle_in_table");
}

[[gnu::cold, gnu::noinline]] void logNothingToDestroy() noexcept {
  const qurn::Uncancellable uncancellable;
  HDL_LOG(TOV_LOG_INFO, "ptrHandle is null.");
}

// Inlined where it is used: the call costs as much as the look-up.
[[gnu::always_inline]] inline NamedSlot find(const NbbHndTbl& table, uint32_t handle) noexcept {
  const uint32_t generation = fieldOf(handle, table.generationShift, table.generationMask);
  const uint32_t pageIndex = handle & table.pageMask;
  if (!isInRange(table, pageIndex) || static_cast<uint8_t>(generation) == 0) [[unlikely]] {
    logInvalidHandle();
    return {nullptr, nullptr};
  }
  if (table.pageArray == nullptr || NbbIsNeedAllocateNewPage(&table, pageIndex) != 0) {
    return {nullptr, nullptr};
  }
  NbbHndPage* page = pageIn(table, pageIndex);
  const uint32_t slotIndex = slotIndexOf(table, handle);
  uint64_t* slot = &page->slots[slotIndex];
  if (NbbIsSlotAlreadyInUse(slot, page) == 0 || page->generations[slotIndex] != generation) {
    return {nullptr, nullptr};
  }
  return {page, slot};
}

uint8_t nextGeneration(uint8_t generation, uint32_t mask) noexcept {
  const auto next = static_cast<uint8_t>((generation + 1U) & mask);
  return next == 0 ? 1 : next;
}

uint32_t popFreeSlot(NbbHndTbl& table, void* pointer) noexcept {
  const int32_t pageIndex = table.currentPage;
  NbbHndPage& page = *pageIn(table, pageIndex);
  uint64_t* slot = table.freeQueue;
  table.freeQueue = linkIn(slot);
  --table.freeSlotCount;
  ++page.usedCount;
  *slot = reinterpret_cast<uint64_t>(pointer);
  const auto slotIndex = static_cast<uint32_t>(slot - page.slots);
  uint8_t& generation = page.generations[slotIndex];
  if (generation == 0) {
    generation = 1;
  }
  return (uint32_t{generation} << (table.generationShift % 32U)) |
         (slotIndex << (table.slotShift % 32U)) | static_cast<uint32_t>(pageIndex);
}

// Takes a slot off a list of free slots. Returns false when it is not on it.
bool unlinkFreeSlot(uint64_t** head, const uint64_t* slot) noexcept {
  if (*head == slot) {
    *head = linkIn(slot);
    return true;
  }
  for (uint64_t* before = *head; before != nullptr; before = linkIn(before)) {
    if (linkIn(before) == slot) {
      *before = *slot;
      return true;
    }
  }
  return false;
}

// Adds the page that a handle to be assigned names; else keeps the reserve of free slots.
bool makeRoomFor(NbbHndTbl& table, uint32_t pageIndex) noexcept {
  if (NbbIsNeedAllocateNewPage(&table, pageIndex) != 0) {
    return nbb_alloc_page(&table, pageIndex) != 0;
  }
  return table.freeSlotCount > NBB_FREE_SLOTS_RESERVED || nbb_alloc_next_page(&table) != 0;
}

}  // namespace

extern "C" {

uint32_t NbbIsSlotAlreadyInUse(const uint64_t* slot, const NbbHndPage* page) {
  return *slot != 0 && *slot - linkTo(page->slots) >= sizeof(page->slots) ? 1 : 0;
}

uint32_t nbb_create_handle_in_table(NbbHndTbl* table, void* pointer) {
  if (pointer == nullptr) {
    HDL_LOG(TOV_LOG_ERROR, "nbb_create_handle,ptr is null.");
    return 0;
  }
  const TableLock lock;
  const TableChange change(*table);
  if (!isSetUp(*table) ||
      (table->freeSlotCount <= NBB_FREE_SLOTS_RESERVED && nbb_alloc_next_page(table) == 0)) {
    return 0;
  }
  const uint32_t handle = popFreeSlot(*table, pointer);
  if (table->freeQueue == nullptr) {
    nbb_grab_free_slots(table);
  }
  HDL_ASSERT(handle != 0);
  return handle;
}

uint32_t NbbAssignHandleParaCheck(const NbbHndTbl* table, uint32_t handle, const void* pointer) {
  if (table == nullptr) {
    HDL_LOG(TOV_LOG_ERROR, "nbb_assign_handle: psthnd_tbl is null.");
    return 0;
  }
  if (handle == 0) {
    HDL_LOG(TOV_LOG_ERROR, "nbb_assign_handle: ptrHandle is null.");
    return 0;
  }
  if (pointer == nullptr) {
    HDL_LOG(TOV_LOG_ERROR, "nbb_assign_handle: ptr is null.");
    return 0;
  }
  return 1;
}

void NbbRemoveSlotFromFreeQueue(NbbHndTbl* table, uint64_t* slot, NbbHndPage* page,
                                uint32_t pageIndex) {
  const bool current = pageIndex == static_cast<uint32_t>(table->currentPage);
  const bool removed =
      (current && unlinkFreeSlot(&table->freeQueue, slot)) || unlinkFreeSlot(&page->freeList, slot);
  HDL_ASSERT(removed);
  ++page->usedCount;
  --table->freeSlotCount;
  if (isAtOrBelowCurrent(*table, pageIndex)) {
    --table->freedBehindCount;
  }
}

uint32_t nbb_assign_handle_in_table(NbbHndTbl* table, uint32_t handle, void* pointer) {
  if (NbbAssignHandleParaCheck(table, handle, pointer) == 0) {
    return 0;
  }
  const TableLock lock;
  const TableChange change(*table);
  const uint32_t pageIndex = handle & table->pageMask;
  if (!isSetUp(*table) || !isInRange(*table, pageIndex) || !makeRoomFor(*table, pageIndex)) {
    return 0;
  }
  NbbHndPage* page = pageIn(*table, pageIndex);
  const uint32_t slotIndex = slotIndexOf(*table, handle);
  uint64_t* slot = &page->slots[slotIndex];
  if (NbbIsSlotAlreadyInUse(slot, page) != 0) {
    return 0;
  }
  NbbRemoveSlotFromFreeQueue(table, slot, page, pageIndex);
  *slot = reinterpret_cast<uint64_t>(pointer);
  page->generations[slotIndex] =
      static_cast<uint8_t>(fieldOf(handle, table->generationShift, table->generationMask));
  if (table->freeQueue == nullptr) {
    nbb_grab_free_slots(table);
  }
  return handle;
}

void* nbb_validate_handle_in_table(NbbHndTbl* table, uint32_t handle) {
  const TableLock lock;
  const NamedSlot named = find(*table, handle);
  return named.valid() ? reinterpret_cast<void*>(*named.slot) : nullptr;
}

void nbb_modify_handle_in_table(NbbHndTbl* table, uint32_t handle, void* pointer) {
  const qurn::Uncancellable uncancellable;
  const TableLock lock;
  const TableChange change(*table);
  const NamedSlot named = find(*table, handle);
  if (handle == 0) {
    HDL_LOG(TOV_LOG_ERROR, "nbb_modify_handle: handle is null.");
  } else if (pointer == nullptr) {
    HDL_LOG(TOV_LOG_ERROR, "nbb_modify_handle: ptr is null.");
  } else if (!named.valid()) {
    HDL_LOG(TOV_LOG_ERROR, "nbb_modify_handle: pstHandle is null.");
  } else {
    *named.slot = reinterpret_cast<uint64_t>(pointer);
  }
}

void nbb_destroy_handle_in_table(NbbHndTbl* table, uint32_t handle) {
  const TableLock lock;
  const TableChange change(*table);
  const auto [page, slot] = find(*table, handle);
  if (slot == nullptr) {
    logNothingToDestroy();
    return;
  }
  const uint32_t pageIndex = handle & table->pageMask;
  ++table->freeSlotCount;
  --page->usedCount;
  if (isAtOrBelowCurrent(*table, pageIndex)) {
    ++table->freedBehindCount;
  }
  *slot = linkTo(page->freeList);
  page->freeList = slot;
  uint8_t& generation = page->generations[slot - page->slots];
  generation = nextGeneration(generation, table->generationMask);
  NbbFreeHandleInTable(pageIndex, table, page);
}

void nbb_set_spare_handle_bits(const NbbHndTbl* table, uint32_t* handle, uint32_t value) {
  HDL_ASSERT(value <= table->spareMask);
  const uint32_t shift = table->spareShift % 64U;
  const auto field = static_cast<uint32_t>(uint64_t{table->spareMask} << shift);
  *handle = (*handle & ~field) | static_cast<uint32_t>(uint64_t{value} << shift);
}

uint32_t nbb_get_spare_handle_bits(const NbbHndTbl* table, uint32_t handle) {
  return fieldOf(handle, table->spareShift, table->spareMask);
}

// ---- the default table

uint32_t nbb_create_handle(void* pointer) {
  if (g_pTblLock == 0) {
    HDL_LOG(TOV_LOG_ERROR, "NBB create handle unsuccessfully, module has not initialized.");
    return 0;
  }
  return nbb_create_handle_in_table(&g_stNbbHndTbl, pointer);
}

void* nbb_validate_handle(uint32_t handle) {
  if (g_pTblLock == 0) {
    HDL_LOG(TOV_LOG_ERROR, "NBB validate handle unsuccessfully, module has not initialized.");
    return nullptr;
  }
  return nbb_validate_handle_in_table(&g_stNbbHndTbl, handle);
}

void nbb_modify_handle(uint32_t handle, void* pointer) {
  if (g_pTblLock == 0) {
    HDL_LOG(TOV_LOG_ERROR, "NBB modify handle unsuccessfully, module has not initialized.");
    return;
  }
  nbb_modify_handle_in_table(&g_stNbbHndTbl, handle, pointer);
}

void nbb_destroy_handle(uint32_t handle) {
  if (g_pTblLock == 0) {
    HDL_LOG(TOV_LOG_ERROR, "NBB destroy handle unsuccessfully, module has not initialized.");
    return;
  }
  nbb_destroy_handle_in_table(&g_stNbbHndTbl, handle);
}

}  // extern "C"
