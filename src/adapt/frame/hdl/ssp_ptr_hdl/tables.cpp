// A handle table's life: set-up with its first pages, and its end. The default table and the mutex
// of all tables come and go together.
#include <linux/membarrier.h>
#include <pthread.h>
#include <qurnadapt/legacy_memory.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <mutex>

#include "common/fork_mutex.h"
#include "table_access.h"

using namespace qurn::hdl;

static_assert(offsetof(NbbHndTbl, pageCapacity) == 8 && offsetof(NbbHndTbl, currentPage) == 20 &&
              offsetof(NbbHndTbl, freeQueue) == 24 && offsetof(NbbHndTbl, vacantTail) == 40 &&
              offsetof(NbbHndTbl, spareShift) == 48 && offsetof(NbbHndTbl, pageMask) == 72 &&
              sizeof(NbbHndTbl) == 80);

constinit NbbHndTbl g_stNbbHndTbl{};
constinit uint64_t g_pTblLock = 0;
constinit TableUse qurn::hdl::g_tableUse{};

namespace {

constexpr uint32_t kGenerationBitsMin = 2;
constexpr uint32_t kGenerationBitsMax = 8;
constexpr uint32_t kSlotBits = 8;
constexpr uint32_t kHandleBits = 32;
constexpr int kMostWayMs = 500;

// Held while the module starts or ends.
constinit qurn::ForkMutex g_moduleMutex;

uint32_t maskOf(uint32_t bits) noexcept { return bits >= kHandleBits ? ~0U : (1U << bits) - 1U; }

void release(void* block, uint32_t line) noexcept { ZOT_Free_F(block, kBaseName, line); }

// Frees the pages and the page array. Returns whether a slot was still in use.
bool releaseMemory(const NbbHndTbl& table) noexcept {
  bool inUse = false;
  int32_t index = 0;
  while (NbbIsNeedAllocateNewPage(&table, static_cast<uint32_t>(index)) == 0) {
    NbbHndPage* page = pageIn(table, index);
    const int32_t next = page->nextPage;
    inUse = inUse || page->usedCount != 0;
    release(page, __LINE__);
    if (next == 0) {
      break;
    }
    index = next;
  }
  release(table.pageArray, __LINE__);
  return inUse;
}

// ---- what failed set-ups left

// A failed set-up keeps what it allocated, in a record that nobody may look at: before its first
// set-up a record holds anything. So what is kept is noted here, for the next attempt on the record
// to free. With more failed tables than places, the oldest only has its own termination.
class Leftovers {
 public:
  void keep(const NbbHndTbl* owner) noexcept {
    const std::lock_guard lock(mutex_);
    kept_[next_] = {owner, *owner};
    next_ = (next_ + 1) % kept_.size();
  }

  // The table is being terminated, so its memory is freed elsewhere.
  void forget(const uint64_t* pageArray) noexcept {
    const std::lock_guard lock(mutex_);
    for (Leftover& leftover : kept_) {
      if (leftover.table.pageArray == pageArray) {
        leftover = {};
      }
    }
  }

  void releaseThoseOf(const NbbHndTbl* owner) noexcept {
    const std::lock_guard lock(mutex_);
    for (Leftover& leftover : kept_) {
      if (leftover.owner == owner) {
        releaseMemory(leftover.table);
        leftover = {};
      }
    }
  }

  qurn::ForkMutex& mutex() noexcept { return mutex_; }
  // What may be half noted is given up.
  void drop() noexcept { kept_ = {}; }

 private:
  struct Leftover {
    const NbbHndTbl* owner;
    NbbHndTbl table;
  };

  qurn::ForkMutex mutex_;
  std::array<Leftover, 8> kept_{};
  size_t next_ = 0;
};

constinit Leftovers g_leftovers;

// ---- forks: a thread that is in a table at that moment does not exist in the child

// Those of this thread: several, if a signal's handler forks during a fork.
[[gnu::tls_model("initial-exec")]] constinit thread_local uint32_t t_forks = 0;

// How long calls on tables have waited for the forks under way.
constinit std::atomic<int> g_waitedMs{0};

// Whoever went in before the fork was announced is seen by now, on whatever processor it runs.
void announceFork() noexcept {
  ++t_forks;
  if (++g_tableUse.forks == 1) {
    g_waitedMs = 0;
  }
  if (g_pTblLock != 0 && syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0) != 0) {
    qurn::sleepAMillisecond();
  }
}

bool isOtherThreadInside() noexcept {
  const pthread_t thread = g_tableUse.thread.load(std::memory_order_acquire);
  return thread != 0 && thread != pthread_self();
}

// The tables' lock stays alone: whoever goes in from now on comes out again.
void holdTables() noexcept {
  qurn::ForkPatience patience;
  g_moduleMutex.beforeFork(patience);
  announceFork();
  while (isOtherThreadInside() && patience.waitAMillisecond()) {
  }
  g_leftovers.mutex().beforeFork(patience);
}

void releaseTables() noexcept {
  g_leftovers.mutex().afterForkInParent();
  --g_tableUse.forks;
  --t_forks;
  g_moduleMutex.afterForkInParent();
}

// A table that was being changed counts as not set up; what it held stays allocated, as does a lock
// that may be taken.
void renewTables() noexcept {
  if (!g_leftovers.mutex().afterForkInChild()) {
    g_leftovers.drop();
  }
  if (NbbHndTbl* changing = g_tableUse.changing.exchange(nullptr); changing != nullptr) {
    *changing = {};
  }
  g_tableUse.thread = 0;
  g_tableUse.forks = --t_forks;
  if (g_pTblLock != 0) {
    g_pTblLock = 0;
    KEM_MutexInit(&g_pTblLock);
  }
  g_moduleMutex.afterForkInChild();
}

__attribute__((constructor)) void watchForks() noexcept {
  static_cast<void>(pthread_atfork(holdTables, releaseTables, renewTables));
}

}  // namespace

// A fork's own handlers may use the tables. A fork that never comes to its end, as another
// library's handler waits for what this thread holds, must not stop the tables: all calls together
// wait for the forks under way for so long.
void qurn::hdl::makeWayForFork() noexcept {
  const Uncancellable uncancellable;
  while (t_forks == 0 && g_tableUse.forks.load() != 0 && g_waitedMs < kMostWayMs) {
    TableLock::leave();
    KEM_MutexUnlock(&g_pTblLock);
    while (g_tableUse.forks.load() != 0 && ++g_waitedMs <= kMostWayMs) {
      sleepAMillisecond();
    }
    KEM_MutexLock(&g_pTblLock);
    TableLock::enter();
  }
}

namespace {

// ---- set-up

void layOutHandles(NbbHndTbl& table, uint32_t spareBits, uint32_t generationBits, uint32_t slotBits,
                   uint32_t pageBits) noexcept {
  table.spareShift = generationBits + slotBits + pageBits;
  table.spareMask = maskOf(spareBits);
  table.generationShift = slotBits + pageBits;
  table.generationMask = maskOf(generationBits);
  table.slotShift = pageBits;
  table.slotMask = maskOf(slotBits);
  table.pageMask = maskOf(pageBits);
  table.pageCapacity =
      static_cast<int32_t>(std::min<uint64_t>(uint64_t{table.pageMask} + 1, NBB_PAGES_MAX));
}

void chainVacantEntries(NbbHndTbl& table) noexcept {
  uint64_t* last = table.pageArray + table.pageCapacity - 1;
  for (uint64_t* entry = table.pageArray; entry < last; ++entry) {
    *entry = linkTo(entry + 1);
  }
  *last = 0;
  table.vacantHead = table.pageArray;
  table.vacantTail = last;
  table.freeSlotCount = 0;
}

// Adds the first pages, under the lock. Returns whether they hold the reserve.
bool addFirstPages(NbbHndTbl& table) noexcept {
  const TableLock lock;
  const TableChange change(table);
  if (lock.result() != QURN_OK) {
    HDL_LOG(TOV_LOG_ERROR, "Mutex lock unsuccessfully:%d", static_cast<int32_t>(lock.result()));
    return false;
  }
  while (table.freeSlotCount < NBB_FREE_SLOTS_RESERVED && nbb_alloc_next_page(&table) != 0) {
  }
  return table.freeSlotCount >= NBB_FREE_SLOTS_RESERVED;
}

// Asked under the lock, as other threads may be using the table.
bool isDefaultTableSetUp() noexcept {
  const TableLock lock;
  return isSetUp(g_stNbbHndTbl);
}

}  // namespace

extern "C" {

uint32_t NbbSetupPageArray(NbbHndTbl* table) {
  if (table->pageCapacity <= 0) {
    HDL_LOG(TOV_LOG_ERROR, "Handle page memory unsuccessfully, msg len is 0.");
    return 0;
  }
  const size_t bytes = static_cast<size_t>(table->pageCapacity) * sizeof(uint64_t);
  table->pageArray =
      static_cast<uint64_t*>(ZOT_Malloc_F(0, g_aucZotMemPt[0], bytes, kBaseName, __LINE__));
  if (table->pageArray == nullptr) {
    return 0;
  }
  chainVacantEntries(*table);
  if (!addFirstPages(*table)) {
    return 0;
  }
  makeCurrent(*table, 0);
  table->freedBehindCount = 0;
  return 1;
}

uint32_t nbb_handle_table_initialize(NbbHndTbl* table, uint32_t spareBits, uint32_t generationBits,
                                     uint32_t slotBits, uint32_t pageBits) {
  const qurn::Uncancellable uncancellable;
  HDL_ASSERT(uint64_t{spareBits} + generationBits + slotBits + pageBits == kHandleBits);
  HDL_ASSERT(generationBits <= kGenerationBitsMax);
  HDL_ASSERT(generationBits >= kGenerationBitsMin);
  HDL_ASSERT(slotBits == kSlotBits);
  g_leftovers.releaseThoseOf(table);
  *table = {};
  layOutHandles(*table, spareBits, generationBits, slotBits, pageBits);
  if (NbbSetupPageArray(table) != 0) {
    return 1;
  }
  if (table->pageArray != nullptr) {
    g_leftovers.keep(table);
  }
  return 0;
}

void nbb_handle_table_terminate(NbbHndTbl* table) {
  const qurn::Uncancellable uncancellable;
  bool inUse = false;
  {
    const TableLock lock;
    const TableChange change(*table);
    if (table->pageArray == nullptr) {
      return;
    }
    g_leftovers.forget(table->pageArray);
    inUse = releaseMemory(*table);
    table->pageArray = nullptr;
  }
  HDL_ASSERT(!inUse);
}

uint32_t nbb_handle_initialize(void) {
  const qurn::Uncancellable uncancellable;
  const std::lock_guard lock(g_moduleMutex);
  if (g_pTblLock == 0) {
    syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0);
    KEM_MutexInit(&g_pTblLock);
  } else if (isDefaultTableSetUp()) {
    return 1;
  }
  return nbb_handle_table_initialize(&g_stNbbHndTbl, 0, 8, kSlotBits, 16);
}

void NbbHandleTerminate(void) {
  const qurn::Uncancellable uncancellable;
  const std::lock_guard lock(g_moduleMutex);
  nbb_handle_table_terminate(&g_stNbbHndTbl);
  if (g_pTblLock != 0) {
    KEM_MutexDestroy(&g_pTblLock);
    g_pTblLock = 0;
  }
}

}  // extern "C"
