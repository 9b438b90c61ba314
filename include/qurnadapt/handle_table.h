/* The paged handle table: 32-bit handles with a generation count, each standing for a pointer. A
 * destroyed handle stops validating, even once its slot is used again.
 *
 * One mutex, g_pTblLock, serialises all tables; it exists between nbb_handle_initialize and
 * NbbHandleTerminate. The calls of the first two sections are thread-safe, except that a table must
 * not be set up or terminated while another thread uses it. Those on a table whose set-up failed,
 * or that was terminated, fail: 0, null or nothing done. Booleans are 1 for true and 0 for false;
 * handle 0 is never valid. */
#ifndef QURNADAPT_HANDLE_TABLE_H
#define QURNADAPT_HANDLE_TABLE_H

#include <qurnadapt/api.h>
#include <stdint.h>

QURN_BEGIN_DECLS

#define NBB_SLOTS_PER_PAGE 256U /* Slots of one page. */
#define NBB_PAGES_MAX 4096U     /* Most pages of one table. */
/* A page is added before a handle is given out while no more slots than this are free. */
#define NBB_FREE_SLOTS_RESERVED 1024
/* An empty page goes back to memory only while more slots than this are free. */
#define NBB_FREE_SLOTS_KEPT 2048

/* 256 slots. A used slot holds the caller's pointer, which must not point into a page's slots; a
 * free one the address of the page's next free slot, 0 in the last. */
typedef struct NbbHndPage {
  uint64_t slots[NBB_SLOTS_PER_PAGE]; /* As said above. */
  uint64_t* freeList; /* Null while the list is the table's free queue, and when no slot is free. */
  uint8_t generations[NBB_SLOTS_PER_PAGE]; /* One a slot. */
  uint32_t usedCount;                      /* Slots in use. */
  int32_t nextPage; /* The next allocated page, in a ring that ascends by index. */
  int32_t prevPage; /* The one before. */
} NbbHndPage;

/* A table. Its owner provides the record and changes none of its fields. */
typedef struct NbbHndTbl {
  uint64_t* pageArray;  /* Each entry a page, or vacant: the address of the next vacant entry, or 0.
                           Null while there is no table. */
  int32_t pageCapacity; /* Entries of pageArray. */
  int32_t freeSlotCount;    /* Of all pages. */
  int32_t freedBehindCount; /* Slots freed at or below the current page since the page search last
                               passed page 0. */
  int32_t currentPage;      /* The page whose free slots are the free queue. */
  uint64_t* freeQueue;      /* The current page's first free slot. */
  uint64_t* vacantHead;     /* The vacant entry that gets the next page, */
  uint64_t* vacantTail;     /* and the last one in line. */
  uint32_t spareShift;      /* A handle's fields, from bit 0 up: page, slot, generation, spare. */
  uint32_t spareMask;       /* Masks are for the field once it is shifted down. */
  uint32_t generationShift; /* Lowest bit of the generation. */
  uint32_t generationMask;  /* The generation's width. */
  uint32_t slotShift;       /* Lowest bit of the slot index. */
  uint32_t slotMask;        /* The slot index's width. */
  uint32_t pageMask;        /* The page index's width; its lowest bit is bit 0. */
} NbbHndTbl;

/* The table of the plain calls. Read it only while no other thread uses it. */
QURN_API extern NbbHndTbl g_stNbbHndTbl;
/* The KEM mutex of all tables, 0 while there is none. */
QURN_API extern uint64_t g_pTblLock;

/* ---- The default table: 8 generation bits, 8 slot bits, 16 page bits ---- */

/* Creates the mutex and sets the table up. Returns 1 when it is set up, at once if it was already,
 * and 0 without memory; a later call then tries again. */
QURN_API uint32_t nbb_handle_initialize(void);
/* Frees the table and the mutex. Pointers stay their owners'. */
QURN_API void NbbHandleTerminate(void);

/* As the calls on any table below; they log and fail while there is no mutex. */
QURN_API uint32_t nbb_create_handle(void* pointer);
QURN_API void* nbb_validate_handle(uint32_t handle);
QURN_API void nbb_modify_handle(uint32_t handle, void* pointer);
QURN_API void nbb_destroy_handle(uint32_t handle);

/* ---- Any table ---- */

/* Sets a table up, whatever the record holds; needs the mutex. The four widths must add up to 32,
 * with 2 to 8 generation bits and 8 slot bits. Returns true, or false without memory or mutex: what
 * was allocated stays, until nbb_handle_table_terminate or the next attempt on the record. */
QURN_API uint32_t nbb_handle_table_initialize(NbbHndTbl* table, uint32_t spareBits,
                                              uint32_t generationBits, uint32_t slotBits,
                                              uint32_t pageBits);
/* Frees the table's memory; does nothing to a table that has none. An assertion fails when handles
 * are still in use. */
QURN_API void nbb_handle_table_terminate(NbbHndTbl* table);

/* A new handle for pointer; 0 for null, or when no page can be added to the reserve of free slots.
 * Constant time but for adding a page or looking for one with free slots. */
QURN_API uint32_t nbb_create_handle_in_table(NbbHndTbl* table, void* pointer);
/* Takes the very slot and generation that handle names, adding its page if need be. Returns the
 * handle; 0 for a null argument, a page index out of range, a slot in use or without memory. */
QURN_API uint32_t nbb_assign_handle_in_table(NbbHndTbl* table, uint32_t handle, void* pointer);
/* The pointer of a valid handle, else null. Constant time. */
QURN_API void* nbb_validate_handle_in_table(NbbHndTbl* table, uint32_t handle);
/* Replaces the pointer of a valid handle; logs and does nothing for another handle or null. */
QURN_API void nbb_modify_handle_in_table(NbbHndTbl* table, uint32_t handle, void* pointer);
/* Frees the slot of a valid handle and advances its generation; logs and does nothing for another.
 */
QURN_API void nbb_destroy_handle_in_table(NbbHndTbl* table, uint32_t handle);

/* The spare bits are the caller's: every other call ignores them. value must fit. No lock. */
QURN_API void nbb_set_spare_handle_bits(const NbbHndTbl* table, uint32_t* handle, uint32_t value);
QURN_API uint32_t nbb_get_spare_handle_bits(const NbbHndTbl* table, uint32_t handle);

/* ---- Steps of the above, exported for the framework; the caller holds the mutex, except for
 * NbbSetupPageArray, which takes it ---- */

/* Allocates the page array and the first pages, 1024 slots. */
QURN_API uint32_t NbbSetupPageArray(NbbHndTbl* table);
/* Adds the page at the head of the vacant-entry list; false when the list is empty or there is no
 * memory. */
QURN_API uint32_t nbb_alloc_next_page(NbbHndTbl* table);
/* Adds the page with this index; false when its entry is not vacant or there is no memory. */
QURN_API uint32_t nbb_alloc_page(NbbHndTbl* table, uint32_t pageIndex);
/* Fills an entry that has been taken off the vacant-entry list; it goes back to the head of the
 * list without memory. */
QURN_API uint32_t NbbAllocMemoryForPageNum(NbbHndTbl* table, uint32_t pageIndex);
/* Whether a value of the page array marks a vacant entry. */
QURN_API uint32_t MemoryPageIsUseable(uint64_t entry, const NbbHndTbl* table);
/* Whether the entry at an index below the capacity is vacant. */
QURN_API uint32_t NbbIsNeedAllocateNewPage(const NbbHndTbl* table, uint32_t pageIndex);
/* Whether a slot of the page holds a caller's pointer. */
QURN_API uint32_t NbbIsSlotAlreadyInUse(const uint64_t* slot, const NbbHndPage* page);
/* Logs and returns false for a null table, handle 0 or a null pointer. */
QURN_API uint32_t NbbAssignHandleParaCheck(const NbbHndTbl* table, uint32_t handle,
                                           const void* pointer);
/* Takes a free slot off the list it is on, and counts it as used. */
QURN_API void NbbRemoveSlotFromFreeQueue(NbbHndTbl* table, uint64_t* slot, NbbHndPage* page,
                                         uint32_t pageIndex);
/* Makes the next page with free slots the current one; the free queue must be empty and some slot
 * free. */
QURN_API void nbb_grab_free_slots(NbbHndTbl* table);
/* Gives the page back to memory if it may be. */
QURN_API void NbbFreeHandleInTable(uint32_t pageIndex, NbbHndTbl* table, NbbHndPage* page);

QURN_END_DECLS

#endif
