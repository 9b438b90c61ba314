#include "handle_table_model.h"

#include <algorithm>
#include <numeric>

TableBesideModel::TableBesideModel(uint32_t generationBits, uint32_t pageBits,
                                   void (*failPages)(bool fail))
    : generationMask_((1U << generationBits) - 1), pageBits_(pageBits), failPages_(failPages) {
  nbb_handle_table_initialize(&table, 24 - generationBits - pageBits, generationBits, 8, pageBits);
  vacant_.resize(std::min(1U << pageBits, NBB_PAGES_MAX));
  std::iota(vacant_.begin(), vacant_.end(), 0);
  while (freeSlots_ < 1024) {
    addPage(vacant_.front());
  }
  queue_.swap(pages_[0].freeList);
}

uint32_t TableBesideModel::handleOf(const Named& named) const {
  return named.page | named.slot << pageBits_ | named.generation << (pageBits_ + 8);
}

TableBesideModel::Named TableBesideModel::namedBy(uint32_t handle) const {
  return {handle & ((1U << pageBits_) - 1), (handle >> pageBits_) & 0xFF,
          (handle >> (pageBits_ + 8)) & generationMask_};
}

bool TableBesideModel::addPage(uint32_t index) {
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

bool TableBesideModel::keepReserve() {
  return freeSlots_ > 1024 || (!vacant_.empty() && addPage(vacant_.front()));
}

// When the free queue is used up, the next page with a free slot becomes the current one.
void TableBesideModel::occupy(const Named& free, void* pointer) {
  Page& page = pages_[free.page];
  if (free.page == current_) {
    std::erase(queue_, free.slot);
  }
  std::erase(page.freeList, free.slot);
  page.pointers[free.slot] = pointer;
  page.generations[free.slot] = static_cast<uint8_t>(free.generation);
  ++page.used;
  --freeSlots_;
  if (!queue_.empty()) {
    return;
  }
  if (freedBehind_ > 1024) {
    freedBehind_ = 0;
    current_ = 0;
  }
  do {
    const auto next = pages_.upper_bound(current_);
    current_ = next == pages_.end() ? 0 : next->first;
    freedBehind_ = current_ == 0 ? 0 : freedBehind_;
  } while (pages_[current_].used == NBB_SLOTS_PER_PAGE);
  queue_.swap(pages_[current_].freeList);
}

uint32_t TableBesideModel::create(void* pointer) {
  if (!keepReserve()) {
    return 0;
  }
  const uint32_t slot = queue_.front();
  const Named free{current_, slot, std::max<uint32_t>(pages_[current_].generations[slot], 1)};
  occupy(free, pointer);
  return handleOf(free);
}

uint32_t TableBesideModel::assign(uint32_t handle, void* pointer) {
  const Named free = namedBy(handle);
  if (handle == 0 || free.page >= NBB_PAGES_MAX ||
      !(pages_.contains(free.page) ? keepReserve() : addPage(free.page)) ||
      pages_[free.page].pointers[free.slot] != nullptr) {
    return 0;
  }
  freedBehind_ -= free.page <= current_ ? 1 : 0;
  occupy(free, pointer);
  return handle;
}

void** TableBesideModel::find(uint32_t handle) {
  const auto [index, slot, generation] = namedBy(handle);
  const auto found = pages_.find(index);
  if (found == pages_.end() || generation == 0 || found->second.generations[slot] != generation) {
    return nullptr;
  }
  void** pointer = &found->second.pointers[slot];
  return *pointer == nullptr ? nullptr : pointer;
}

void TableBesideModel::destroy(uint32_t handle) {
  void** pointer = find(handle);
  if (pointer == nullptr) {
    return;
  }
  *pointer = nullptr;
  const auto [index, slot, generation] = namedBy(handle);
  Page& page = pages_[index];
  page.generations[slot] = static_cast<uint8_t>(generation % generationMask_ + 1);
  page.freeList.push_front(slot);
  --page.used;
  ++freeSlots_;
  freedBehind_ += index <= current_ ? 1 : 0;
  if (index != 0 && index != current_ && page.used == 0 && freeSlots_ > 2048) {
    pages_.erase(index);
    vacant_.push_back(index);
    freeSlots_ -= 256;
    freedBehind_ -= index < current_ ? 256 : 0;
  }
}

bool TableBesideModel::operate(Operation operation, uint32_t choice, bool pagesFail) {
  void* const pointer = reinterpret_cast<void*>((++pointers_ << 4U) + 0x1000);
  const bool known = !handles_.empty() && choice % 10 != 0;
  choice /= 10;
  const size_t place = known ? choice % handles_.size() : 0;
  // Mostly of a low page.
  const uint32_t pages = std::min(1U << pageBits_, choice % 6 == 0 ? 5000U : 20U);
  const uint32_t handle =
      known ? handles_[place]
            : handleOf({(choice >> 16U) % pages, (choice >> 8U) % 256, choice & generationMask_});
  uint32_t answer = handle;
  uint32_t expected = handle;
  pagesFail_ = pagesFail;
  failPages_(pagesFail);
  if (operation == Operation::kCreate) {
    answer = nbb_create_handle_in_table(&table, pointer);
    expected = create(pointer);
  } else if (operation == Operation::kAssign) {
    answer = nbb_assign_handle_in_table(&table, handle, pointer);
    expected = assign(handle, pointer);
  } else if (operation == Operation::kModify) {
    nbb_modify_handle_in_table(&table, handle, pointer);
    if (void** held = find(handle); held != nullptr) {
      *held = pointer;
    }
  } else if (operation == Operation::kDestroy) {
    nbb_destroy_handle_in_table(&table, handle);
    destroy(handle);
  }
  failPages_(false);
  if (operation <= Operation::kAssign && answer != 0) {
    handles_.push_back(answer);
  } else if (operation == Operation::kDestroy && known && choice % 4 != 0) {
    std::swap(handles_[place], handles_.back());
    handles_.pop_back();
  }
  void** held = find(answer);
  return answer == expected &&
         nbb_validate_handle_in_table(&table, answer) == (held == nullptr ? nullptr : *held) &&
         table.freeSlotCount == freeSlots_ && table.freedBehindCount == freedBehind_ &&
         table.currentPage == static_cast<int32_t>(current_);
}
