// The handle table once more, as plain containers: what every call must answer, and how the table
// must then count.
#pragma once

#include <qurnadapt/handle_table.h>

#include <algorithm>
#include <array>
#include <deque>
#include <map>
#include <numeric>
#include <utility>
#include <vector>

// Does to a table what it does to the model, and compares every answer.
class TableBesideModel {
 public:
  enum Operation : uint32_t { kCreate, kAssign, kModify, kDestroy, kValidate };

  // Sets the table up with these widths. Its allocations fail as failPages says.
  TableBesideModel(uint32_t generationBits, uint32_t pageBits, void (*failPages)(bool fail))
      : generationMask_((1U << generationBits) - 1), pageBits_(pageBits), failPages_(failPages) {
    nbb_handle_table_initialize(&table, 24 - generationBits - pageBits, generationBits, 8,
                                pageBits);
    vacant_.resize(std::min(1U << pageBits, NBB_PAGES_MAX));
    std::iota(vacant_.begin(), vacant_.end(), 0);
    while (freeSlots_ < 1024) {
      makeRoomFor(vacant_.front());
    }
    queue_.swap(pages_[0].freeList);
  }

  // The choice picks a handle: nine times of ten one that was given out, else one made up of it.
  // It is validated afterwards. Returns whether both answered and count the same.
  bool operate(uint32_t operation, uint32_t choice, bool pagesFail) {
    const bool known = !handles_.empty() && choice % 10 != 0;
    choice /= 10;
    const size_t place = known ? choice % handles_.size() : 0;
    const uint32_t lowPages = std::min(1U << pageBits_, choice % 6 == 0 ? 5000U : 20U);
    const uint32_t handle =
        known ? handles_[place] : (choice >> 16U) % lowPages | choice << pageBits_;
    void* const pointer = reinterpret_cast<void*>((++pointers_ << 4U) + 0x1000);
    uint32_t answer = handle;
    uint32_t expected = handle;
    pagesFail_ = pagesFail;
    failPages_(pagesFail);
    if (operation == kCreate) {
      answer = nbb_create_handle_in_table(&table, pointer);
      expected = create(pointer);
    } else if (operation == kAssign) {
      answer = nbb_assign_handle_in_table(&table, handle, pointer);
      expected = assign(handle, pointer);
    } else if (operation == kModify) {
      nbb_modify_handle_in_table(&table, handle, pointer);
      if (void** held = find(handle); held != nullptr) {
        *held = pointer;
      }
    } else if (operation == kDestroy) {
      nbb_destroy_handle_in_table(&table, handle);
      destroy(handle);
    }
    failPages_(false);
    if (operation <= kAssign && answer != 0) {
      handles_.push_back(answer);
    } else if (operation == kDestroy && known && choice % 4 != 0) {
      handles_.erase(handles_.begin() + static_cast<long>(place));
    }
    void** held = find(answer);
    const auto page = pages_.find(pageOf(answer));
    const uint32_t slot = slotOf(answer);
    const auto* record =
        reinterpret_cast<const NbbHndPage*>(table.pageArray[pageOf(answer) % 4096]);
    return answer == expected &&
           nbb_validate_handle_in_table(&table, answer) == (held == nullptr ? nullptr : *held) &&
           (page == pages_.end() || record->generations[slot] == page->second.slots[slot].second) &&
           table.vacantTail == (vacant_.empty() ? nullptr : table.pageArray + vacant_.back()) &&
           table.freeSlotCount == freeSlots_ && table.freedBehindCount == freedBehind_ &&
           table.currentPage == static_cast<int32_t>(current_);
  }

  NbbHndTbl table{};

 private:
  struct Page {
    std::deque<uint32_t> freeList;
    std::array<std::pair<void*, uint32_t>, NBB_SLOTS_PER_PAGE> slots{};  // pointer, generation
  };

  uint32_t pageOf(uint32_t handle) const { return handle % (1U << pageBits_); }
  uint32_t slotOf(uint32_t handle) const { return (handle >> pageBits_) % 256; }
  uint32_t generationOf(uint32_t h) const { return (h >> (pageBits_ + 8)) & generationMask_; }

  // Adds the page if there is none yet, else keeps the reserve of free slots.
  bool makeRoomFor(uint32_t index) {
    if (pages_.contains(index)) {
      if (freeSlots_ > 1024 || vacant_.empty()) {
        return freeSlots_ > 1024;
      }
      index = vacant_.front();
    }
    std::erase(vacant_, index);
    if (pagesFail_) {
      vacant_.push_front(index);
      return false;
    }
    std::deque<uint32_t>& added = pages_[index].freeList;
    added.resize(NBB_SLOTS_PER_PAGE);
    std::iota(added.begin(), added.end(), 0);
    freeSlots_ += 256;
    freedBehind_ += index < current_ ? 256 : 0;
    return true;
  }

  // When that uses the free queue up, the next page with a free slot becomes the current one.
  void occupy(uint32_t handle, void* pointer) {
    const uint32_t slot = slotOf(handle);
    Page& page = pages_[pageOf(handle)];
    std::erase(page.freeList, slot);
    if (pageOf(handle) == current_) {
      std::erase(queue_, slot);
    }
    page.slots[slot] = {pointer, generationOf(handle)};
    --freeSlots_;
    if (queue_.empty() && freedBehind_ > 1024) {
      freedBehind_ = 0;
      current_ = 0;
    }
    while (queue_.empty()) {
      const auto next = pages_.upper_bound(current_);
      current_ = next == pages_.end() ? 0 : next->first;
      freedBehind_ = current_ == 0 ? 0 : freedBehind_;
      queue_.swap(pages_[current_].freeList);
    }
  }

  uint32_t create(void* pointer) {
    if (!makeRoomFor(current_)) {
      return 0;
    }
    const uint32_t slot = queue_.front();
    const uint32_t generation = std::max(pages_[current_].slots[slot].second, 1U);
    const uint32_t handle = current_ | slot << pageBits_ | generation << (pageBits_ + 8);
    occupy(handle, pointer);
    return handle;
  }

  uint32_t assign(uint32_t handle, void* pointer) {
    const uint32_t index = pageOf(handle);
    if (handle == 0 || index >= NBB_PAGES_MAX || !makeRoomFor(index) ||
        pages_[index].slots[slotOf(handle)].first != nullptr) {
      return 0;
    }
    freedBehind_ -= index <= current_ ? 1 : 0;
    occupy(handle, pointer);
    return handle;
  }

  // Its pointer, null when the handle is not valid.
  void** find(uint32_t handle) {
    const auto found = pages_.find(pageOf(handle));
    if (found == pages_.end()) {
      return nullptr;
    }
    auto& [pointer, generation] = found->second.slots[slotOf(handle)];
    const bool valid = pointer != nullptr && generation != 0 && generation == generationOf(handle);
    return valid ? &pointer : nullptr;
  }

  void destroy(uint32_t handle) {
    if (find(handle) == nullptr) {
      return;
    }
    const uint32_t index = pageOf(handle);
    Page& page = pages_[index];
    page.slots[slotOf(handle)] = {nullptr, generationOf(handle) % generationMask_ + 1};
    page.freeList.push_front(slotOf(handle));
    ++freeSlots_;
    freedBehind_ += index <= current_ ? 1 : 0;
    if (index != 0 && index != current_ && page.freeList.size() == 256 && freeSlots_ > 2048) {
      pages_.erase(index);
      vacant_.push_back(index);
      freeSlots_ -= 256;
      freedBehind_ -= index < current_ ? 256 : 0;
    }
  }

  uint32_t generationMask_;
  uint32_t pageBits_;
  void (*failPages_)(bool fail);
  bool pagesFail_ = false;
  std::deque<uint32_t> vacant_;
  std::map<uint32_t, Page> pages_;
  std::deque<uint32_t> queue_;
  uint32_t current_ = 0;
  int32_t freeSlots_ = 0;
  int32_t freedBehind_ = 0;
  std::vector<uint32_t> handles_;  // given out, some of them destroyed since
  uint64_t pointers_ = 0;
};
