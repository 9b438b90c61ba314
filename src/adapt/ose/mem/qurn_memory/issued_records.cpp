#include "issued_records.h"

#include <mutex>
#include <new>

#include "common/uncancellable.h"
#include "memory_unit.h"

namespace qurn::mem {

namespace {
constexpr uintptr_t kEmpty = 0;
}

IssuedRecords::Bucket& IssuedRecords::bucketOf(const Segment& segment, uintptr_t address) noexcept {
  // Multiplicative hashing: the high bits are the well-mixed ones.
  constexpr uint64_t kGoldenRatio = 0x9E3779B97F4A7C15U;
  constexpr int kHashBits = 32;
  const uint64_t hash = (address * kGoldenRatio) >> kHashBits;
  return segment.buckets[hash & (segment.bucketCount - 1)];
}

std::atomic<uintptr_t>* IssuedRecords::findIn(Bucket& bucket, uintptr_t address) noexcept {
  for (std::atomic<uintptr_t>& place : bucket.addresses) {
    if (place.load(std::memory_order_acquire) == address) {
      return &place;
    }
  }
  return nullptr;
}

std::atomic<uintptr_t>* IssuedRecords::find(uintptr_t address) const noexcept {
  for (const Segment* segment = &first_; segment != nullptr;
       segment = segment->next.load(std::memory_order_acquire)) {
    if (auto* place = findIn(bucketOf(*segment, address), address); place != nullptr) {
      return place;
    }
  }
  return nullptr;
}

// From the framework's allocator: it belongs to no module, so no module is charged with it.
IssuedRecords::Segment* IssuedRecords::makeSegment(size_t bucketCount) noexcept {
  void* memory = TOV_MemAllocF(sizeof(Segment) + bucketCount * sizeof(Bucket), kUnit, __LINE__, 0);
  if (memory == nullptr) {
    return nullptr;
  }
  auto* buckets = reinterpret_cast<Bucket*>(static_cast<Segment*>(memory) + 1);
  for (size_t i = 0; i < bucketCount; ++i) {
    new (&buckets[i]) Bucket{};
  }
  return new (memory) Segment{nullptr, bucketCount, buckets};
}

bool IssuedRecords::contains(uintptr_t address) const noexcept {
  return address != kEmpty && find(address) != nullptr;
}

bool IssuedRecords::add(uintptr_t address) noexcept {
  const qurn::Uncancellable uncancellable;
  const std::lock_guard lock(mutex_);
  if (find(address) != nullptr) {
    return true;
  }
  Segment* last = &first_;
  for (Segment* segment = &first_; segment != nullptr; segment = segment->next.load()) {
    if (auto* place = findIn(bucketOf(*segment, address), kEmpty); place != nullptr) {
      place->store(address, std::memory_order_release);
      return true;
    }
    last = segment;
  }
  Segment* added = makeSegment(2 * last->bucketCount);
  if (added == nullptr) {
    return false;
  }
  bucketOf(*added, address).addresses[0].store(address);
  last->next.store(added, std::memory_order_release);
  return true;
}

void IssuedRecords::remove(uintptr_t address) noexcept {
  const std::lock_guard lock(mutex_);
  if (auto* place = find(address); place != nullptr) {
    place->store(kEmpty, std::memory_order_release);
  }
}

}  // namespace qurn::mem
