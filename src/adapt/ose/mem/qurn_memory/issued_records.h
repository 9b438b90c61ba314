// The addresses of the handle records that are live: what a handle value must be among before it is
// read as a record. Looked up at every legacy allocation, so asking takes no lock and costs one
// cache line; adding and removing, which happen when a module starts and ends, take one.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "common/fork_mutex.h"

namespace qurn::mem {

class IssuedRecords {
 public:
  [[nodiscard]] bool contains(uintptr_t address) const noexcept;
  // Returns false when there is no memory for it.
  bool add(uintptr_t address) noexcept;
  void remove(uintptr_t address) noexcept;

  // Held while the process forks. What it guards is whole at any moment, for readers without a
  // lock.
  qurn::ForkMutex& mutex() noexcept { return mutex_; }

 private:
  // An address is in the bucket that it hashes to, in one of the segments. A segment is added when
  // that bucket is full in all of them, twice as large as the last, and never freed: readers may be
  // in it.
  struct Bucket {
    std::array<std::atomic<uintptr_t>, 8> addresses;
  };
  struct Segment {
    std::atomic<Segment*> next;
    size_t bucketCount;  // a power of two
    Bucket* buckets;
  };

  static constexpr size_t kFirstBuckets = 64;

  static Bucket& bucketOf(const Segment& segment, uintptr_t address) noexcept;
  static std::atomic<uintptr_t>* findIn(Bucket& bucket, uintptr_t address) noexcept;
  static Segment* makeSegment(size_t bucketCount) noexcept;
  [[nodiscard]] std::atomic<uintptr_t>* find(uintptr_t address) const noexcept;

  alignas(sizeof(Bucket)) std::array<Bucket, kFirstBuckets> firstBuckets_{};
  Segment first_{nullptr, kFirstBuckets, firstBuckets_.data()};
  qurn::ForkMutex mutex_;  // of those who change
};

}  // namespace qurn::mem
