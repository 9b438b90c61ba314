// The blocks that a thread has freed of late, and where.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace tov {

struct FreedPlace {
  const char* file;  // kept for good
  uint32_t line;
};

// Written by its thread only. Others may look meanwhile.
class FreedBlocks {
 public:
  void add(uintptr_t block, const FreedPlace& place) noexcept;
  void takeBack() noexcept { next_.store(next_ - 1, std::memory_order_release); }
  // The latest time that it was freed; false when that is not known any more.
  bool find(uintptr_t block, FreedPlace& place) const noexcept;

 private:
  static constexpr size_t kKept = 511;
  struct Record {
    std::atomic<uintptr_t> block;  // 0 while the rest is written
    std::atomic<const char*> file;
    std::atomic<uint32_t> line;
  };
  std::array<Record, kKept + 1> records_{};  // one for what is taken back
  std::atomic<size_t> next_{0};
};

inline void FreedBlocks::add(uintptr_t block, const FreedPlace& place) noexcept {
  const size_t now = next_.load(std::memory_order_relaxed);
  Record& record = records_[now % records_.size()];
  record.block.store(0, std::memory_order_relaxed);
  record.file.store(place.file, std::memory_order_release);
  record.line.store(place.line, std::memory_order_release);
  record.block.store(block, std::memory_order_release);
  next_.store(now + 1, std::memory_order_release);
}

// A record that is written anew meanwhile is not the block's any more.
inline bool FreedBlocks::find(uintptr_t block, FreedPlace& place) const noexcept {
  const size_t next = next_.load(std::memory_order_acquire);
  for (size_t i = 1; i <= kKept && i <= next; ++i) {
    const Record& record = records_[(next - i) % records_.size()];
    if (record.block.load(std::memory_order_acquire) == block) {
      place.file = record.file.load(std::memory_order_acquire);
      place.line = record.line.load(std::memory_order_acquire);
      return record.block.load(std::memory_order_relaxed) == block;
    }
  }
  return false;
}

}  // namespace tov
