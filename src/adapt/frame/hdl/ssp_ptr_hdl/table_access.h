// What the files of the handle table share: its lock, its words for entries and slots, and how it
// logs and asserts. Every table is guarded by the one lock.
#pragma once

#include <pthread.h>
#include <qurnadapt/api.h>
#include <qurnadapt/handle_table.h>
#include <qurnadapt/legacy_process.h>
#include <qurnadapt/platform.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "common/uncancellable.h"
#include "common/unit_log.h"

namespace qurn::hdl {

inline constexpr char kUnit[] = "build/src/adapt/frame/hdl/CMakeFiles/adapthdl.dir/src/ssp_ptr_hdl";
inline constexpr const char* kBaseName = baseName(kUnit);
#define HDL_LOG(level, ...) QURN_LOG_AS(LOG_InnerPrint, ::qurn::hdl::kUnit, level, __VA_ARGS__)

// Out of the way of those who check. The thread must not be cancelled in it, under the lock.
[[gnu::cold, gnu::noinline]] inline void reportInconsistency(uint32_t line) noexcept {
  const Uncancellable uncancellable;
  ZOT_Assert(kBaseName, line, 0);
}

// An internal inconsistency is reported, and the code goes on: what follows must stay safe.
#define HDL_ASSERT(condition)                     \
  do {                                            \
    if (!(condition)) [[unlikely]] {              \
      ::qurn::hdl::reportInconsistency(__LINE__); \
    }                                             \
  } while (false)

// Who is in the tables, and what is being changed. The lock itself cannot tell the child of a fork:
// it may have been taken a moment before `thread` says so.
struct TableUse {
  std::atomic<pthread_t> thread;     // that has the lock, else 0
  std::atomic<NbbHndTbl*> changing;  // the table that it changes, else null
  std::atomic<uint32_t> forks;       // under way: nobody else may go in
};
extern constinit TableUse g_tableUse;

// Leaves the tables until no other thread's fork is under way any more.
[[gnu::cold]] void makeWayForFork() noexcept;

// Holds the tables' lock for a scope. Work goes on without a lock that cannot be taken, as there is
// none before the module is initialised.
class TableLock {
 public:
  TableLock() noexcept : result_(KEM_MutexLock(&g_pTblLock)) {
    if (result_ == QURN_OK) [[likely]] {
      enter();
      if (g_tableUse.forks.load(std::memory_order_relaxed) != 0) [[unlikely]] {
        makeWayForFork();
      }
    }
  }
  ~TableLock() {
    if (result_ == QURN_OK) [[likely]] {
      leave();
      KEM_MutexUnlock(&g_pTblLock);
    }
  }
  static void enter() noexcept {
    g_tableUse.thread.store(pthread_self(), std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
  }
  static void leave() noexcept { g_tableUse.thread.store(0, std::memory_order_release); }
  TableLock(const TableLock&) = delete;
  TableLock& operator=(const TableLock&) = delete;

  [[nodiscard]] uint32_t result() const noexcept { return result_; }

 private:
  uint32_t result_;
};

// Marks a table as being changed, under the lock.
class TableChange {
 public:
  explicit TableChange(NbbHndTbl& table) noexcept {
    g_tableUse.changing.store(&table, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
  }
  ~TableChange() { g_tableUse.changing.store(nullptr, std::memory_order_release); }
  TableChange(const TableChange&) = delete;
  TableChange& operator=(const TableChange&) = delete;
};

// A table that is set up has a page array and, between two operations, a free queue that is never
// empty: its reserve of free slots sees to that.
inline bool isSetUp(const NbbHndTbl& table) noexcept {
  return table.pageArray != nullptr && table.freeQueue != nullptr;
}

// A field of a handle. The default table's spare field starts at bit 32, so the shift is wide.
inline uint32_t fieldOf(uint32_t handle, uint32_t shift, uint32_t mask) noexcept {
  return static_cast<uint32_t>(uint64_t{handle} >> (shift % 64U)) & mask;
}

inline uint32_t slotIndexOf(const NbbHndTbl& table, uint32_t handle) noexcept {
  return fieldOf(handle, table.slotShift, table.slotMask) % NBB_SLOTS_PER_PAGE;
}

inline bool isInRange(const NbbHndTbl& table, uint32_t pageIndex) noexcept {
  return pageIndex < static_cast<uint32_t>(table.pageCapacity);
}

inline bool isAtOrBelowCurrent(const NbbHndTbl& table, uint32_t pageIndex) noexcept {
  return static_cast<int64_t>(pageIndex) <= table.currentPage;
}

inline bool isBelowCurrent(const NbbHndTbl& table, uint32_t pageIndex) noexcept {
  return static_cast<int64_t>(pageIndex) < table.currentPage;
}

// The page in an entry that is in use.
inline NbbHndPage* pageIn(const NbbHndTbl& table, uint32_t pageIndex) noexcept {
  return reinterpret_cast<NbbHndPage*>(table.pageArray[pageIndex]);
}

inline NbbHndPage* pageIn(const NbbHndTbl& table, int32_t pageIndex) noexcept {
  return pageIn(table, static_cast<uint32_t>(pageIndex));
}

// Slots and vacant entries are linked through the words they occupy.
inline uint64_t* linkIn(const uint64_t* word) noexcept {
  return reinterpret_cast<uint64_t*>(*word);
}

inline uint64_t linkTo(const uint64_t* word) noexcept { return reinterpret_cast<uint64_t>(word); }

// The page's free slots become the free queue.
inline void makeCurrent(NbbHndTbl& table, int32_t pageIndex) noexcept {
  NbbHndPage* page = pageIn(table, pageIndex);
  table.currentPage = pageIndex;
  table.freeQueue = page->freeList;
  page->freeList = nullptr;
}

}  // namespace qurn::hdl
