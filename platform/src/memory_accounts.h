// Who holds how much memory: an account for each handle, partition and place of allocation, and the
// blocks that were freed of late. A thread writes only its own records, without a lock; who asks
// adds them up. The records of a thread that has ended are taken over by a later one.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "freed_blocks.h"

namespace tov {

struct Account;
struct ThreadRecords;

// What one thread had to do with an account.
struct alignas(64) Share {
  Account* account;
  const ThreadRecords* owner;
  Share* nextOfAccount;
  // Allocated by the owner, less what it has freed of that itself.
  std::atomic<uint64_t> blocks;
  std::atomic<uint64_t> bytes;
  // Freed by others.
  std::atomic<uint64_t> freedBlocks;
  std::atomic<uint64_t> freedBytes;

  // A block of the owner's, which is the calling thread.
  void enter(size_t size) noexcept {
    add(blocks, 1);
    add(bytes, size);
  }
  // One that any thread frees.
  void strike(size_t size) noexcept;

 private:
  // Only the owner writes. What a reader must see, it has been told of by other means.
  static void add(std::atomic<uint64_t>& own, uint64_t number) noexcept {
    own.store(own.load(std::memory_order_relaxed) + number, std::memory_order_relaxed);
  }
};

// The calling thread's share, or null when the handle cannot be charged. Throws std::bad_alloc.
Share* shareOf(uint32_t handleId, uint8_t partition, const char* file, uint32_t line);

// Marks a live block as freed there by the calling thread, or returns false.
bool markFreedAt(uintptr_t block, const char* file, uint32_t line) noexcept;
// The latest time that it was freed; false when that is not known.
bool findFreed(uintptr_t block, FreedPlace& place) noexcept;

// Returns false for a null name, without memory, or when all ids have been given out.
bool giveHandle(const char* name, uint32_t& handleId) noexcept;

struct Held {
  uint64_t blocks = 0;
  uint64_t bytes = 0;
};
struct Finalisation {
  bool isKnown;
  std::string name;
  Held held;
};
Finalisation finaliseHandle(uint32_t handleId);

Held heldBy(uint32_t handleId);
// A line for each account that holds something, in order.
std::vector<std::string> accountLines();

}  // namespace tov
