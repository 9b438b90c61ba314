#include "live_blocks.h"

#include <sys/mman.h>

#include <array>
#include <atomic>
#include <cstddef>

namespace tov {
namespace {

// A state for every sixteen bytes, which is what the heap aligns blocks to: a number in a tree of
// two levels over the addresses that the kernel gives to processes.
using State = std::atomic<FreerId>;
constexpr FreerId kLive = 0xFFFF;
static_assert(kMostFreers < kLive && State::is_always_lock_free);

constexpr int kAddressBits = 48;
constexpr int kBranchBits = 14;
constexpr int kRegionBits = 20;
constexpr int kBlockBits = 4;
static_assert(2 * kBranchBits + kRegionBits == kAddressBits);
static_assert(alignof(std::max_align_t) == 1U << kBlockBits);

template <int bits>
constexpr size_t kSize = size_t{1} << bits;

using Region = std::array<State, kSize<kRegionBits - kBlockBits>>;
using Branch = std::array<std::atomic<Region*>, kSize<kBranchBits>>;

constinit std::array<std::atomic<Branch*>, kSize<kBranchBits>> g_branches{};

// The bits of an address above these, as an index into a level.
template <int bits, typename Level>
auto& under(Level& level, uintptr_t address) noexcept {
  return level[(address >> bits) % level.size()];
}

bool canBeBlock(uintptr_t address) noexcept {
  return address >> kAddressBits == 0 && address % alignof(std::max_align_t) == 0;
}

State* stateOf(uintptr_t block) noexcept {
  if (!canBeBlock(block)) {
    return nullptr;
  }
  Branch* branch = under<kBranchBits + kRegionBits>(g_branches, block).load();
  Region* region = branch == nullptr ? nullptr : under<kRegionBits>(*branch, block).load();
  return region == nullptr ? nullptr : &under<kBlockBits>(*region, block);
}

// Pages of zeros, which take no memory until they are written to.
template <typename Part>
Part* grow(std::atomic<Part*>& place) noexcept {
  if (Part* grown = place.load(); grown != nullptr) {
    return grown;
  }
  void* memory =
      mmap(nullptr, sizeof(Part), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    return nullptr;
  }
  Part* other = nullptr;
  if (place.compare_exchange_strong(other, static_cast<Part*>(memory))) {
    return static_cast<Part*>(memory);
  }
  munmap(memory, sizeof(Part));
  return other;
}

[[gnu::cold, gnu::noinline]] State* growStateOf(uintptr_t block) noexcept {
  if (!canBeBlock(block)) {
    return nullptr;
  }
  Branch* branch = grow(under<kBranchBits + kRegionBits>(g_branches, block));
  Region* region = branch == nullptr ? nullptr : grow(under<kRegionBits>(*branch, block));
  return region == nullptr ? nullptr : &under<kBlockBits>(*region, block);
}

}  // namespace

bool markLive(uintptr_t block) noexcept {
  State* state = stateOf(block);
  if (state == nullptr) {
    state = growStateOf(block);
  }
  if (state != nullptr) {
    state->store(kLive, std::memory_order_release);
  }
  return state != nullptr;
}

bool markFreed(uintptr_t block, FreerId freer) noexcept {
  State* state = stateOf(block);
  FreerId live = kLive;
  return state != nullptr && state->compare_exchange_strong(live, freer);
}

FreerId freerOf(uintptr_t block) noexcept {
  const State* state = stateOf(block);
  const FreerId now = state == nullptr ? kNobody : state->load();
  return now == kLive ? kNobody : now;
}

}  // namespace tov
